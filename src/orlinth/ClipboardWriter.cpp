#include "orlinth/ClipboardWriter.h"

#include "OrlinthCore/Receiving/PasteboardWriter.h"

#include <asio/post.hpp>

#include <utility>

namespace orlinth::host {

ClipboardWriter::ClipboardWriter(Host& host)
    : host_(host), chores_(host.system.network, "orlinth.serve.clipboard"), log_(host) {}

void ClipboardWriter::write(std::string text) {
    const std::lock_guard guard(lock_);
    const bool isAwaited = newest_.has_value();
    newest_ = std::move(text);
    if (!isAwaited) {
        chores_.add([this] { writeNewest(); });
    }
}

void ClipboardWriter::writeNewest() {
    std::optional<std::string> text;
    {
        const std::lock_guard guard(lock_);
        text = std::exchange(newest_, std::nullopt);
    }
    const platform::System& system = host_.system;
    platform::System desktop{.network = system.network,
                             .clock = system.clock,
                             .files = system.files,
                             .mimeTypes = system.mimeTypes,
                             .log = log_,
                             .https = system.https,
                             .clipboard = system.clipboard,
                             .interfaces = system.interfaces,
                             .services = system.services,
                             .local = system.local,
                             .notifications = system.notifications,
                             .signals = system.signals,
                             .folders = system.folders,
                             .directories = system.directories,
                             .mainQueue = chores_.queue()};
    PasteboardWriter::write(desktop, std::move(*text)); // next on this queue
}

Task<> ClipboardWriter::finish() {
    co_await chores_.finish(); // then the last text is on its way
    co_await chores_.finish();
}

void ClipboardWriter::ClipboardLog::write(platform::LogLevel level, std::string_view subsystem,
                                          std::string_view category, std::string_view message) noexcept {
    host_.system.log.write(level, subsystem, category, message);
    try {
        asio::post(host_.tasks.executor(),
                   [&output = host_.output, text = std::string(message)] { output.message(text); });
    } catch (...) {
        // Only memory can run out here, and the log has it.
    }
}

} // namespace orlinth::host
