#include "OrlinthBus/BusCall.h"

#include "OrlinthBus/ObjectPath.h"
#include "base/Text.h"
#include "platform/Cancelled.h"
#include "platform/SystemError.h"
#include "platform/linux/PassedFile.h"
#include "platform/linux/SystemdLibrary.h"

#include <exception>
#include <optional>
#include <utility>

namespace orlinth::bus {

namespace {

using platform::systemd;

/// A whole number of this type, as a wider one; nothing if it is none, or too large for that.
template <typename Number>
std::optional<BusOption> readNumber(sd_bus_message* message, char type) {
    Number number = 0;
    if (systemd().sd_bus_message_read_basic(message, type, &number) <= 0 || !std::in_range<std::int64_t>(number)) {
        return std::nullopt;
    }
    return BusOption(static_cast<std::int64_t>(number));
}

/// The value of an option; nothing for one of another kind, which is skipped.
std::optional<BusOption> readOption(sd_bus_message* message, const std::string& type) {
    if (type == "b") {
        int flag = 0;
        return systemd().sd_bus_message_read_basic(message, 'b', &flag) > 0 ? std::optional<BusOption>(flag != 0)
                                                                            : std::nullopt;
    }
    if (type == "s") {
        const char* text = nullptr;
        return systemd().sd_bus_message_read_basic(message, 's', static_cast<void*>(&text)) > 0
                   ? std::optional<BusOption>(std::string(text))
                   : std::nullopt;
    }
    if (type == "y") {
        return readNumber<std::uint8_t>(message, 'y');
    }
    if (type == "n") {
        return readNumber<std::int16_t>(message, 'n');
    }
    if (type == "q") {
        return readNumber<std::uint16_t>(message, 'q');
    }
    if (type == "i") {
        return readNumber<std::int32_t>(message, 'i');
    }
    if (type == "u") {
        return readNumber<std::uint32_t>(message, 'u');
    }
    if (type == "x") {
        return readNumber<std::int64_t>(message, 'x');
    }
    if (type == "t") {
        return readNumber<std::uint64_t>(message, 't');
    }
    systemd().sd_bus_message_skip(message, type.c_str());
    return std::nullopt;
}

} // namespace

BusCall::BusCall(sd_bus_message* message) noexcept : message_(systemd().sd_bus_message_ref(message)) {}

BusCall::~BusCall() {
    try {
        if (message_) {
            fail({.text = "it was not done"});
        }
    } catch (const std::exception&) {
        return; // no memory to say so: the caller waits until its own limit
    }
}

std::string BusCall::path() const {
    const char* const path = systemd().sd_bus_message_get_path(message_.get());
    return path != nullptr ? path : "";
}

std::string BusCall::member() const {
    const char* const member = systemd().sd_bus_message_get_member(message_.get());
    return member != nullptr ? member : "";
}

std::string BusCall::sender() const {
    const char* const sender = systemd().sd_bus_message_get_sender(message_.get());
    return sender != nullptr ? sender : "";
}

bool BusCall::readFlag() {
    int flag = 0;
    readBasic('b', &flag);
    return flag != 0;
}

BusOptions BusCall::readOptions() {
    constexpr std::size_t most = 64;
    BusOptions options;
    sd_bus_message* const message = message_.get();
    const auto require = [](int result) {
        if (result <= 0) {
            throw platform::SystemError("not a list of options");
        }
    };
    require(systemd().sd_bus_message_enter_container(message, 'a', "{sv}"));
    while (systemd().sd_bus_message_enter_container(message, 'e', "sv") > 0) {
        const char* name = nullptr;
        const char* type = nullptr;
        require(systemd().sd_bus_message_read_basic(message, 's', static_cast<void*>(&name)));
        require(systemd().sd_bus_message_peek_type(message, nullptr, &type));
        require(systemd().sd_bus_message_enter_container(message, 'v', type));
        options.insert_or_assign(name, readOption(message, type));
        if (options.size() > most) {
            throw platform::SystemError("more than " + std::to_string(most) + " options");
        }
        systemd().sd_bus_message_exit_container(message);
        systemd().sd_bus_message_exit_container(message);
    }
    systemd().sd_bus_message_exit_container(message);
    return options;
}

std::string BusCall::interface() const {
    const char* const interface = systemd().sd_bus_message_get_interface(message_.get());
    return interface != nullptr ? interface : "";
}

std::string BusCall::readText() {
    const char* text = nullptr;
    readBasic('s', &text);
    return text;
}

template <>
std::uint64_t BusCall::readNumber<std::uint64_t>() {
    std::uint64_t number = 0;
    readBasic('t', &number);
    return number;
}

template <>
std::uint32_t BusCall::readNumber<std::uint32_t>() {
    std::uint32_t number = 0;
    readBasic('u', &number);
    return number;
}

platform::detail::Descriptor BusCall::readDescriptor() {
    int number = -1; // the message's
    readBasic('h', &number);
    return platform::sameFile(number);
}

void BusCall::readBasic(char type, void* value) {
    if (systemd().sd_bus_message_read_basic(message_.get(), type, value) <= 0) {
        throw platform::SystemError("an argument is missing");
    }
}

std::vector<std::string> BusCall::readTexts(char type, std::size_t most) {
    const char content[] = {type, '\0'};
    std::vector<std::string> texts;
    if (systemd().sd_bus_message_enter_container(message_.get(), 'a', content) < 0) {
        throw platform::SystemError("not a list of texts");
    }
    const char* text = nullptr;
    while (systemd().sd_bus_message_read_basic(message_.get(), type, static_cast<void*>(&text)) > 0) {
        if (texts.size() == most) {
            throw platform::SystemError("more than " + std::to_string(most) + " in a list");
        }
        texts.emplace_back(text);
    }
    systemd().sd_bus_message_exit_container(message_.get());
    return texts;
}

BusOption BusCall::readValue() {
    sd_bus_message* const message = message_.get();
    const char* content = nullptr;
    char type = 0;
    if (systemd().sd_bus_message_peek_type(message, &type, &content) <= 0 || type != 'v' ||
        systemd().sd_bus_message_enter_container(message, 'v', content) < 0) {
        throw platform::SystemError("not a value");
    }
    std::optional<BusOption> value = readOption(message, content);
    if (!value) {
        throw platform::SystemError("neither a text nor a flag nor a whole number");
    }
    systemd().sd_bus_message_exit_container(message);
    return *std::move(value);
}

void BusCall::reply() {
    static_cast<void>(systemd().sd_bus_reply_method_return(message_.get(), "")); // a caller who is gone needs none
    message_.reset();
}

void BusCall::reply(const std::string& text) {
    static_cast<void>(systemd().sd_bus_reply_method_return(message_.get(), "s", text.c_str()));
    message_.reset();
}

void BusCall::reply(const std::function<int(sd_bus_message*)>& append) {
    sd_bus_message* made = nullptr;
    if (systemd().sd_bus_message_new_method_return(message_.get(), &made) < 0) {
        return; // no memory: the call answers with an error when it goes
    }
    const platform::BusMessageRef answer(made);
    if (append(answer.get()) < 0) {
        fail({.text = "the answer cannot be put into a message"});
        return;
    }
    static_cast<void>(systemd().sd_bus_send(nullptr, answer.get(), nullptr)); // a caller who is gone needs none
    message_.reset();
}

void BusCall::fail(const BusError& error) {
    const std::string name = std::string(serviceName) + ".Error." + error.name;
    const std::string text = toUtf8(error.text); // else the library sends nothing at all
    static_cast<void>(systemd().sd_bus_reply_method_errorf(message_.get(), name.c_str(), "%s", text.c_str()));
    message_.reset();
}

Task<> answerBy(Task<> work, std::shared_ptr<BusCall> call, platform::BusLoop& loop) {
    std::optional<BusError> problem;
    try {
        co_await std::move(work);
    } catch (const std::exception& error) {
        if (platform::isCancellation(error)) {
            throw;
        }
        problem = busErrorOf(error);
    }
    if (problem) {
        call->fail(*problem);
    }
    loop.wake();
}

} // namespace orlinth::bus
