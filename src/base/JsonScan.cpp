#include "base/JsonScan.h"

#include "base/Hex.h"
#include "base/Json.h"
#include "base/Text.h"

#include <bitset>
#include <optional>
#include <string>

namespace orlinth {
namespace {

constexpr char32_t firstHighSurrogate = 0xD800;
constexpr char32_t firstLowSurrogate = 0xDC00;
constexpr char32_t firstBehindSurrogates = 0xE000;

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

bool isBlank(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

/// The text, read from its start.
///
///     value ──scalar, string──▶ end of a value ──","──▶ value (in an array) or key (in an object)
///       │                         ▲        └──nothing is open──▶ done
///       └──"[", "{"──▶ first value, first key ──"]", "}"──┘          key ──":"──▶ value
class Scan {
public:
    Scan(std::string_view text, std::int64_t maxValues, JsonSink& sink)
        : text_(text), valuesLeft_(maxValues), sink_(sink) {}

    void run() {
        constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF"; // which some editors write
        at_ = text_.starts_with(byteOrderMark) ? byteOrderMark.size() : 0;
        while (next_ != Next::done) {
            skipBlanks();
            step();
        }
        skipBlanks();
        if (at_ != text_.size()) {
            refuse();
        }
    }

private:
    /// What may come.
    enum class Next { value, firstValue, key, firstKey, endOfValue, done };

    void step() {
        const char c = peek();
        switch (next_) {
        case Next::firstValue:
            c == ']' ? close() : takeValue();
            break;
        case Next::value:
            takeValue();
            break;
        case Next::firstKey:
            c == '}' ? close() : takeKey();
            break;
        case Next::key:
            takeKey();
            break;
        case Next::endOfValue:
            takeEndOfValue();
            break;
        case Next::done:
            break;
        }
    }

    [[noreturn]] void refuse() const { throw JsonError("not valid JSON at byte " + std::to_string(at_ + 1)); }

    [[nodiscard]] bool isAtEnd() const noexcept { return at_ == text_.size(); }
    /// A NUL at the end, which is in no place a character of JSON.
    [[nodiscard]] char peek() const noexcept { return isAtEnd() ? '\0' : text_[at_]; }
    [[nodiscard]] bool takeIf(char c) noexcept {
        const bool isThere = !isAtEnd() && text_[at_] == c;
        at_ += isThere ? 1U : 0U;
        return isThere;
    }
    void demand(char c) {
        if (!takeIf(c)) {
            refuse();
        }
    }

    void skipBlanks() {
        while (!isAtEnd() && isBlank(text_[at_])) {
            ++at_;
        }
    }

    void takeValue() {
        if (--valuesLeft_ < 0) {
            throw JsonError("too many values");
        }
        switch (peek()) {
        case '[':
        case '{':
            open();
            return;
        case '"':
            sink_.string(takeString());
            break;
        case 't':
            takeLiteral("true");
            break;
        case 'f':
            takeLiteral("false");
            break;
        case 'n':
            takeLiteral("null");
            break;
        default:
            takeNumber();
        }
        next_ = depth_ == 0 ? Next::done : Next::endOfValue;
    }

    void open() {
        if (depth_ == maxJsonDepth) {
            throw JsonError("nested deeper than " + std::to_string(maxJsonDepth) + " levels");
        }
        const bool isObject = text_[at_++] == '{';
        isObject_.set(static_cast<std::size_t>(depth_++), isObject);
        isObject ? sink_.openObject() : sink_.openArray();
        next_ = isObject ? Next::firstKey : Next::firstValue;
    }

    void close() {
        ++at_;
        --depth_;
        sink_.close();
        next_ = depth_ == 0 ? Next::done : Next::endOfValue;
    }

    [[nodiscard]] bool isInObject() const { return isObject_.test(static_cast<std::size_t>(depth_ - 1)); }

    void takeEndOfValue() {
        if (takeIf(',')) {
            next_ = isInObject() ? Next::key : Next::value;
        } else if (peek() == (isInObject() ? '}' : ']')) {
            close();
        } else {
            refuse();
        }
    }

    void takeKey() {
        sink_.key(takeString());
        skipBlanks();
        demand(':');
        next_ = Next::value;
    }

    void takeLiteral(std::string_view literal) {
        for (const char c : literal) {
            demand(c);
        }
        sink_.scalar(literal);
    }

    void takeDigits() {
        if (!isDigit(peek())) {
            refuse();
        }
        while (isDigit(peek())) {
            ++at_;
        }
    }

    void takeNumber() {
        const std::size_t start = at_;
        static_cast<void>(takeIf('-'));
        if (!takeIf('0')) {
            takeDigits();
        }
        if (takeIf('.')) {
            takeDigits();
        }
        if (takeIf('e') || takeIf('E')) {
            static_cast<void>(takeIf('+') || takeIf('-'));
            takeDigits();
        }
        if (at_ - start > maxJsonScalarBytes) {
            throw JsonError("too long a number at byte " + std::to_string(start + 1));
        }
        sink_.scalar(text_.substr(start, at_ - start));
    }

    /// Returns what is between the quotes.
    std::string_view takeString() {
        demand('"');
        const std::size_t start = at_;
        while (peek() != '"') {
            if (static_cast<unsigned char>(peek()) < 0x20) { // or the end
                refuse();
            }
            if (text_[at_] == '\\') {
                takeEscape();
            } else {
                ++at_;
            }
        }
        const std::string_view raw = text_.substr(start, at_ - start);
        if (!isUtf8(raw)) {
            refuse();
        }
        ++at_;
        return raw;
    }

    void takeEscape() {
        ++at_;
        const char kind = peek();
        if (kind == '\0' || std::string_view("\"\\/bfnrtu").find(kind) == std::string_view::npos) {
            refuse();
        }
        ++at_;
        if (kind != 'u') {
            return;
        }
        const char32_t unit = takeCodeUnit();
        if (unit < firstHighSurrogate || unit >= firstBehindSurrogates) {
            return;
        }
        if (unit >= firstLowSurrogate) {
            refuse();
        }
        demand('\\');
        demand('u');
        const char32_t low = takeCodeUnit();
        if (low < firstLowSurrogate || low >= firstBehindSurrogates) {
            refuse();
        }
    }

    /// Four hexadecimal digits.
    [[nodiscard]] char32_t takeCodeUnit() {
        char32_t unit = 0;
        for (int digit = 0; digit < 4; ++digit, ++at_) {
            const std::optional<unsigned> value = hexDigit(peek());
            if (!value) {
                refuse();
            }
            unit = unit * 16 + *value;
        }
        return unit;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    Next next_ = Next::value;
    int depth_ = 0;                      ///< arrays and objects that are open
    std::bitset<maxJsonDepth> isObject_; ///< of each of them, from the outside
    std::int64_t valuesLeft_;
    JsonSink& sink_;
};

} // namespace

void scanJson(std::string_view text, std::int64_t maxValues, JsonSink& sink) {
    Scan(text, maxValues, sink).run();
}

} // namespace orlinth
