#pragma once

#include "OrlinthHost/Home.h"
#include "base/SecretBytes.h"
#include "base/Time.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace orlinth::host {

/// The last text that a phone has sent, so that it is not lost where it reaches no clipboard. It is in memory alone, of
/// the kind that secrets have, and wiped when it goes: after a day, when the next one comes, on request, or at the end.
///
/// Threading: on the home's executor.
class LastText {
public:
    /// A longer one is not kept; nor is the one before it, which is the last no more.
    static constexpr std::size_t maxBytes = std::size_t{1} << 20;
    static constexpr Seconds lifetime = std::chrono::hours(24);

    struct Text {
        SecretBytes bytes; ///< UTF-8, never empty
        std::string from;  ///< the phone's name, of a long one the beginning
        EpochMilliseconds received;
    };

    explicit LastText(Home& home) : home_(home), timer_(home.system.clock.makeTimer(home.executor)) {}
    LastText(const LastText&) = delete;
    LastText& operator=(const LastText&) = delete;

    /// In place of the text before.
    void keep(std::string_view text, std::string_view from);
    /// Null if there is none. Whoever holds it keeps it from being wiped.
    [[nodiscard]] std::shared_ptr<const Text> get() const noexcept { return text_; }
    /// Returns whether there was one.
    bool forget() noexcept;

private:
    Home& home_;
    std::shared_ptr<const Text> text_;
    std::unique_ptr<platform::Timer> timer_; ///< for the end of its lifetime
};

} // namespace orlinth::host
