#pragma once

#include "orlinth/Chores.h"
#include "orlinth/Host.h"
#include "platform/Log.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace orlinth::host {

/// Puts the texts that come onto the desktop's clipboard, one after the other, on a thread of its own: its programs may
/// take seconds. Of the texts that come meanwhile only the newest waits; it would replace the others anyway.
class ClipboardWriter {
public:
    /// `host` outlives this.
    explicit ClipboardWriter(Host& host);
    ClipboardWriter(const ClipboardWriter&) = delete;
    ClipboardWriter& operator=(const ClipboardWriter&) = delete;

    /// Returns at once. Any thread.
    void write(std::string text);
    /// Waits until the newest text is written. Nothing is added meanwhile.
    [[nodiscard]] Task<> finish();

private:
    /// The log of those who write the clipboard; its errors are told as messages too.
    class ClipboardLog final : public platform::Log {
    public:
        explicit ClipboardLog(Host& host) : host_(host) {}
        void write(platform::LogLevel level, std::string_view subsystem, std::string_view category,
                   std::string_view message) noexcept override;

    private:
        Host& host_;
    };

    void writeNewest();

    Host& host_;
    Chores chores_;
    ClipboardLog log_;
    std::mutex lock_; ///< guards the next one
    std::optional<std::string> newest_;
};

} // namespace orlinth::host
