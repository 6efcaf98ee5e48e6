#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace orlinth::host {

/// How many connections a phone gets at once: one at first, and another one for each file that it has taken, as that
/// shows that it takes one after the other. After fallBack() it is down to one, and the second one comes again only
/// with the ninth file that it takes after that (`most` and one).
///
/// Where that ends, more gains nothing: several connections are for small files, whose time goes into greetings.
class PhoneLanes {
public:
    /// Connections to one phone.
    static constexpr int most = 8;
    /// To all phones together; each phone gets one in any case.
    static constexpr std::size_t mostOfAll = 64;
    /// No further file is begun while so much is under way to a phone: large files gain nothing by company.
    static constexpr std::int64_t enoughBytes = 8 << 20;

    /// What is under way.
    struct UnderWay {
        std::size_t ofPhone = 0;       ///< connections
        std::int64_t bytesOfPhone = 0; ///< of their files
        std::size_t ofAll = 0;         ///< connections to all phones
    };

    [[nodiscard]] std::size_t allowed() const noexcept {
        return static_cast<std::size_t>(std::clamp(1 + takenInARow_, 1, most));
    }
    /// Whether one more connection may be opened.
    [[nodiscard]] bool mayOpen(const UnderWay& underWay) const noexcept {
        return underWay.ofPhone == 0 ||
               (underWay.ofPhone < allowed() && underWay.bytesOfPhone < enoughBytes && underWay.ofAll < mostOfAll);
    }
    /// The phone has taken a file.
    void addTaken() noexcept { takenInARow_ = std::min(takenInARow_ + 1, most); }
    /// A connection was one too many (judge() in Attempt.h), or the phone cannot be reached.
    void fallBack() noexcept { takenInARow_ = -most; }

private:
    int takenInARow_ = 0; ///< since fallBack(); after that, less than none
};

} // namespace orlinth::host
