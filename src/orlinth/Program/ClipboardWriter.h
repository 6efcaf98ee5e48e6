#pragma once

#include "OrlinthHost/Chores.h"
#include "OrlinthHost/LineLimit.h"
#include "base/Mutex.h"
#include "orlinth/Program/Host.h"
#include "platform/Log.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::cli {

/// Puts the texts that come onto the desktop's clipboard, one after the other, on a thread of its own: its programs may
/// take seconds. Of the texts that come meanwhile only the newest waits; it would replace the others anyway.
class ClipboardWriter {
public:
    /// `host` outlives this.
    explicit ClipboardWriter(Host& host);
    ClipboardWriter(const ClipboardWriter&) = delete;
    ClipboardWriter& operator=(const ClipboardWriter&) = delete;

    /// Told on the executor of the tasks whether a text got onto the clipboard.
    using OnWritten = std::function<void(bool isThere)>;

    /// Returns at once. Any thread. `onWritten` may be empty; it is not called for a text that a newer one has replaced
    /// before its turn.
    void write(std::string text, OnWritten onWritten = {});
    /// Waits until the newest text is written. Nothing is added meanwhile.
    [[nodiscard]] Task<> finish();

private:
    /// The log of those who write the clipboard; its errors are told as messages too. What a phone has sent can fail as
    /// often as it likes, so that both are limited.
    class ClipboardLog final : public platform::Log {
    public:
        explicit ClipboardLog(Host& host);
        /// What is written gets there by way of the thread of `main`.
        void write(platform::LogLevel level, std::string_view subsystem, std::string_view category,
                   std::string_view message) noexcept override;
        /// Tells of what was left out. On the thread of `main`, behind everything that was written.
        void finish() { lines_.finish(); }
        /// Of the text that came last, in bytes: it is the one that can still be had. Any thread.
        void setLastSize(std::size_t bytes) noexcept { lastSize_ = bytes; }

    private:
        Host& host_;
        host::LineLimit lines_; ///< on the thread of `main`
        std::atomic<std::size_t> lastSize_ = 0;
    };

    struct Text {
        std::string text;
        OnWritten onWritten;
    };

    void writeNewest();

    Host& host_;
    host::Chores chores_;
    ClipboardLog log_;
    Mutex lock_;
    std::optional<Text> newest_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth::cli
