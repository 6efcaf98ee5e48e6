#pragma once

#include "OrlinthBus/BusObject.h"
#include "OrlinthBus/BusVtable.h"
#include "OrlinthBus/PairingObject.h"
#include "platform/linux/BusLoop.h"
#include "platform/linux/Descriptor.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace orlinth::bus {

/// A method call that waits for its answer. Exactly one of the last two is called, once; a call that is let go of
/// without is answered by an error.
class BusCall {
public:
    /// Keeps the message.
    explicit BusCall(sd_bus_message* message) noexcept;
    BusCall(BusCall&&) noexcept = default;
    BusCall& operator=(BusCall&&) noexcept = default;
    BusCall(const BusCall&) = delete;
    BusCall& operator=(const BusCall&) = delete;
    ~BusCall();

    [[nodiscard]] std::string path() const;
    [[nodiscard]] std::string member() const;
    /// The name that the bus itself has given the caller.
    [[nodiscard]] std::string sender() const;
    /// "" if the caller has named none.
    [[nodiscard]] std::string interface() const;
    /// The name that the bus itself has given the caller.
    [[nodiscard]] std::string sender() const;
    /// The next argument, a list of texts or of paths. @throws std::exception if it is none, or longer than `most`
    [[nodiscard]] std::vector<std::string> readTexts(char type, std::size_t most);
    /// The next argument, a text.
    [[nodiscard]] std::string readText();
    /// The next argument, "v": a text, a flag, or a whole number that 63 bits can hold. @throws std::exception if it is
    /// none of these
    [[nodiscard]] std::variant<std::string, bool, std::int64_t> readValue();

    /// The next argument, a{sv}; values that are no flag, no whole number and no text are left out.
    /// @throws std::exception if it is none, or has too many
    [[nodiscard]] BusOptions readOptions();
    /// The next argument, "b". @throws std::exception
    [[nodiscard]] bool readFlag();

    /// The next argument, "s". @throws std::exception
    [[nodiscard]] std::string readText();
    /// The same, "t" or "u".
    template <typename Number>
    [[nodiscard]] Number readNumber();
    /// The same, "h", under a number of our own.
    [[nodiscard]] platform::detail::Descriptor readDescriptor();

    void reply();
    void reply(const std::string& text);
    /// With what `append` appends; negative: the library has refused.
    void reply(const std::function<int(sd_bus_message*)>& append);
    /// `name` is the last part of the error's name; `message` for people, with a hint in a line of its own.
    void fail(const char* name, const std::string& message);

private:
    void readBasic(char type, void* value);

    std::unique_ptr<sd_bus_message, platform::detail::Freer<platform::detail::freeBusMessage>> message_;
};

template <>
std::uint32_t BusCall::readNumber<std::uint32_t>();
template <>
std::uint64_t BusCall::readNumber<std::uint64_t>();

/// The service's objects on a connection: answers for them, and tells of what changes. Objects are values; whoever has
/// it compares nothing and emits nothing.
///
/// Threading: on the executor of the connection.
class BusTree {
public:
    /// `onCall` gets the calls of methods; it may throw nothing. `managers` are the paths below which objects are.
    BusTree(std::vector<BusInterface> interfaces, std::vector<std::string> managers,
            std::function<void(BusCall)> onCall);
    ~BusTree();
    BusTree(const BusTree&) = delete;
    BusTree& operator=(const BusTree&) = delete;

    /// Serves the objects on this connection, until detach(). False if the library refuses.
    [[nodiscard]] bool attach(platform::BusLoop& loop);
    /// Before the connection is closed.
    void detach() noexcept;

    /// What an update has come to.
    struct Told {
        std::size_t signals = 0;
        bool isEverything = true;
    };
    /// From now on the objects are these, which is told by at most so many signals. What was left is told by a later
    /// call, those first that were told of longest ago.
    Told update(const BusObjects& objects, std::size_t mostSignals);
    /// As they were told.
    [[nodiscard]] const BusObjects& objects() const noexcept { return told_; }

private:
    struct Interface;

    static int onCall(sd_bus_message* message, void* self, sd_bus_error* error);
    static int onGet(sd_bus* bus, const char* path, const char* interface, const char* property, sd_bus_message* reply,
                     void* self, sd_bus_error* error);
    static int onFind(sd_bus* bus, const char* path, const char* interface, void* self, void** found,
                      sd_bus_error* error);
    static int onList(sd_bus* bus, const char* prefix, void* self, char*** nodes, sd_bus_error* error);
    [[nodiscard]] std::uint64_t lastTold(const std::string& path) const;
    void tellChange(const std::string& path, const BusObject* before, const BusObject* after);

    std::vector<BusInterface> described_; ///< until the first attach()
    const std::vector<std::string> managers_;
    const std::function<void(BusCall)> onCall_;
    std::list<Interface> interfaces_;
    platform::BusLoop* loop_ = nullptr; ///< while attached
    std::vector<platform::BusSlotRef> slots_;
    BusObjects told_;
    std::map<std::string, std::uint64_t> toldAt_; ///< by path, counted in signals
    std::uint64_t signals_ = 0;
};

} // namespace orlinth::bus
