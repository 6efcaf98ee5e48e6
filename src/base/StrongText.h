#pragma once

#include <compare>
#include <functional>
#include <ostream>
#include <string>
#include <utility>

namespace orlinth {

/// A text with one meaning, such as an id: it is made on purpose, and does not pass for a text of another meaning.
///
/// A plain value; files and messages hold its text().
template <typename Meaning>
class StrongText {
public:
    StrongText() = default;
    explicit StrongText(std::string text) noexcept : text_(std::move(text)) {}

    [[nodiscard]] const std::string& text() const noexcept { return text_; }
    [[nodiscard]] bool isEmpty() const noexcept { return text_.empty(); }

    auto operator<=>(const StrongText&) const = default;

    /// In JSON it is the text itself. Reading one is for whoever knows what is wrong if it is no text.
    template <typename AnyJson>
    friend void to_json(AnyJson& json, const StrongText& value) {
        json = value.text_;
    }
    /// For the messages of tests.
    friend std::ostream& operator<<(std::ostream& out, const StrongText& value) { return out << value.text_; }

private:
    std::string text_;
};

/// Names one transfer, across attempts and restarts: what the sender chooses and a phone finds its partial file by.
using TransferId = StrongText<struct TransferIdMeaning>;
/// Names a batch of the outbox, and its folder: an upper-case UUID.
using BatchId = StrongText<struct BatchIdMeaning>;
/// A device's static public key in standard Base64, by which it is known whatever its name and address.
using PeerKey = StrongText<struct PeerKeyMeaning>;

} // namespace orlinth

template <typename Meaning>
struct std::hash<orlinth::StrongText<Meaning>> {
    std::size_t operator()(const orlinth::StrongText<Meaning>& value) const noexcept {
        return std::hash<std::string>()(value.text());
    }
};
