#include "orlinth/Program/ClipboardWriter.h"

#include "OrlinthCore/Receiving/PasteboardWriter.h"
#include "OrlinthCore/Receiving/ReceivingLimits.h"
#include "OrlinthHost/Service/LastText.h"

#include <asio/post.hpp>

#include <utility>

namespace orlinth::cli {

namespace {

/// What can be done about a text that did not reach the clipboard; "" for an empty one.
std::string hintFor(std::size_t bytes) {
    static_assert(host::LastText::maxBytes == std::size_t{1} << 20, "the hint has it");
    if (bytes > host::LastText::maxBytes) {
        return "The text is too long to be kept (over 1 MiB).";
    }
    return bytes > 0 ? "To print the last text: `orlinth clip --last`" : "";
}

} // namespace

ClipboardWriter::ClipboardWriter(Host& host)
    : host_(host), chores_(host.system.queues, "orlinth.serve.clipboard"), log_(host) {}

void ClipboardWriter::write(std::string text, OnWritten onWritten) {
    log_.setLastSize(text.size());
    const MutexLock guard(lock_);
    const bool isAwaited = newest_.has_value();
    newest_ = Text{.text = std::move(text), .onWritten = std::move(onWritten)};
    if (!isAwaited) {
        chores_.add([this] { writeNewest(); });
    }
}

void ClipboardWriter::writeNewest() {
    std::optional<Text> newest;
    {
        const MutexLock guard(lock_);
        newest = std::exchange(newest_, std::nullopt);
    }
    std::function<void(bool)> onDone;
    if (newest->onWritten) {
        onDone = [executor = host_.tasks.executor(), onWritten = std::move(newest->onWritten)](bool isThere) {
            asio::post(executor, [onWritten, isThere] { onWritten(isThere); });
        };
    }
    PasteboardWriter::write(host_.system.clipboard, log_, chores_.queue(), std::move(newest->text),
                            std::move(onDone)); // next on this queue
}

Task<> ClipboardWriter::finish() {
    co_await chores_.finish(); // then the last text is on its way
    co_await chores_.finish();
    log_.finish();
}

ClipboardWriter::ClipboardLog::ClipboardLog(Host& host)
    : host_(host),
      lines_(host.system.clock, host.tasks.executor(), limits::linesOfStrangers, [&host](std::int64_t untold) {
          const std::string text = "the clipboard could not be written " + std::to_string(untold) +
                                   (untold == 1 ? " more time" : " more times");
          host.system.log.write(platform::LogLevel::error, "com.tarvinex.orlinth", "pasteboard", text);
          host.output.message(text);
      }) {}

void ClipboardWriter::ClipboardLog::write(platform::LogLevel level, std::string_view subsystem,
                                          std::string_view category, std::string_view message) noexcept {
    try {
        // ClipboardWriter::finish() comes behind it
        asio::post(host_.tasks.executor(), [this, level, subsystem = std::string(subsystem),
                                            category = std::string(category), text = std::string(message)] {
            if (lines_.admits()) {
                host_.system.log.write(level, subsystem, category, text);
                host_.output.message(text);
                if (const std::string hint = hintFor(lastSize_); !hint.empty()) {
                    host_.output.message(hint);
                }
            }
        });
    } catch (...) {
        // Only memory can run out here.
        host_.system.log.write(level, subsystem, category, message);
    }
}

} // namespace orlinth::cli
