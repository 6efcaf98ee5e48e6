#pragma once

#include "platform/System.h"

#include <asio/io_context.hpp>

#include <memory>

namespace orlinth::platform {

/// This Linux machine. Made once in `main`; `context` is run by `main` and outlives it.
class LinuxSystem {
public:
    explicit LinuxSystem(asio::io_context& context);
    ~LinuxSystem();
    LinuxSystem(const LinuxSystem&) = delete;
    LinuxSystem& operator=(const LinuxSystem&) = delete;

    [[nodiscard]] System system();

    /// To be called when the program's work is done, before the context is run dry: ends what would wait for the
    /// desktop for ever. Notifications that were shown just before have a quarter of a second to reach it.
    void close();

    /// Whether a name is still being resolved on a thread that cannot be interrupted; destroying the context would
    /// wait for it.
    [[nodiscard]] bool isResolving() const noexcept;

private:
    struct Parts;
    std::unique_ptr<Parts> parts_;
};

} // namespace orlinth::platform
