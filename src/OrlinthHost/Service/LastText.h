#pragma once

#include "base/SecretBytes.h"
#include "base/Time.h"
#include "platform/Clock.h"

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace orlinth::host {

/// The last text that a phone has sent, so that it is not lost where it reaches no clipboard. It is in memory alone, of
/// the kind that secrets have, and wiped when it goes: after a day, when the next one comes, on request, or at the end.
/// Time that the computer sleeps counts: after it wakes, nobody gets a text that is too old, and it is wiped within
/// `longestStep`.
///
/// Threading: on the executor.
class LastText {
public:
    /// A longer one is not kept; nor is the one before it, which is the last no more.
    static constexpr std::size_t maxBytes = std::size_t{1} << 20;
    static constexpr Seconds lifetime = std::chrono::hours(24);
    /// Between two looks at how old the text is.
    static constexpr Seconds longestStep = std::chrono::minutes(10);

    struct Text {
        SecretBytes bytes; ///< UTF-8, never empty
        std::string from;  ///< the phone's name, of a long one the beginning
        EpochMilliseconds received;
    };

    /// `clock` outlives this.
    LastText(platform::Clock& clock, Executor executor) : clock_(clock), timer_(clock.makeTimer(std::move(executor))) {}
    LastText(const LastText&) = delete;
    LastText& operator=(const LastText&) = delete;

    /// In place of the text before.
    void keep(std::string_view text, std::string_view from);
    /// Null if there is none. Whoever holds it keeps it from being wiped.
    [[nodiscard]] std::shared_ptr<const Text> get();
    /// Returns whether there was one.
    bool forget() noexcept;

private:
    [[nodiscard]] Seconds age() const;
    void awaitEnd();

    platform::Clock& clock_;
    std::shared_ptr<const Text> text_;
    platform::Clock::Instant keptAt_{};
    std::unique_ptr<platform::Timer> timer_; ///< for the next look, while there is a text
};

} // namespace orlinth::host
