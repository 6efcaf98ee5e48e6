#include "orlinth/Program/TomlScan.h"

#include <algorithm>
#include <cstddef>

namespace orlinth::cli {

namespace {

/// Quotes that open a string of several lines, and that close it.
constexpr std::size_t longQuotes = 3;
/// Two may stand before those that close it: they belong to the string.
constexpr std::size_t mostClosingQuotes = 5;

/// Goes through a text from one part to the next.
class TomlScan {
public:
    explicit TomlScan(std::string_view text) noexcept : text_(text) {}

    [[nodiscard]] std::optional<std::size_t> findForeign() noexcept {
        constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
        at_ = text_.starts_with(byteOrderMark) ? byteOrderMark.size() : 0;
        while (at_ < text_.size()) {
            const char here = text_[at_];
            if (static_cast<unsigned char>(here) >= 0x80) {
                return at_;
            }
            if (here == '#') {
                at_ = std::min(text_.find('\n', at_), text_.size());
            } else if (here == '"' || here == '\'') {
                passString(here);
            } else {
                ++at_;
            }
        }
        return std::nullopt;
    }

private:
    /// How many of these quotes stand here.
    [[nodiscard]] std::size_t quotesHere(char quote) const noexcept {
        return std::min(text_.find_first_not_of(quote, at_), text_.size()) - at_;
    }

    /// At its first quote: goes behind its end.
    void passString(char quote) noexcept {
        const std::size_t quotes = quotesHere(quote);
        if (quotes == 2) { // an empty string
            at_ += 2;
            return;
        }
        const bool isLong = quotes >= longQuotes;
        at_ += isLong ? longQuotes : 1;
        while (at_ < text_.size()) {
            const char here = text_[at_];
            if (here == '\\' && quote == '"') {
                at_ += 2;
            } else if (here == '\n' && !isLong) {
                at_ = text_.size();
            } else if (here != quote) {
                ++at_;
            } else if (const std::size_t closing = quotesHere(quote); !isLong) {
                ++at_;
                return;
            } else if (closing >= longQuotes) {
                at_ += std::min(closing, mostClosingQuotes);
                return;
            } else {
                at_ += closing;
            }
        }
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

bool startsCharacter(char byte) noexcept {
    return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
}

} // namespace

std::optional<SettingsPlace> findForeignCharacter(std::string_view toml) noexcept {
    const std::optional<std::size_t> found = TomlScan(toml).findForeign();
    if (!found) {
        return std::nullopt;
    }
    const std::string_view before = toml.substr(0, *found);
    const std::size_t lineEnd = before.rfind('\n');
    const std::string_view inLine = lineEnd == std::string_view::npos ? before : before.substr(lineEnd + 1);
    return SettingsPlace{.line = static_cast<std::uint32_t>(std::ranges::count(before, '\n') + 1),
                         .column = static_cast<std::uint32_t>(std::ranges::count_if(inLine, startsCharacter) + 1)};
}

} // namespace orlinth::cli
