#pragma once

#include "OrlinthBus/BusCall.h"
#include "OrlinthBus/BusObject.h"
#include "OrlinthBus/BusVtable.h"
#include "platform/linux/BusLoop.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace orlinth::bus {

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
