#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orlinth {

/// How deep arrays and objects may nest in a JSON text.
inline constexpr int maxJsonDepth = 32;

/// How many values (numbers, strings, arrays and so on) a message of another device, or a server, may have. Ours have a
/// dozen at most.
inline constexpr std::int64_t maxJsonMessageValues = 256;

/// How many values any other text may have. However few bytes a value has in the text, it may take about 150 bytes of
/// memory: so this is at most three times a text of 16 MiB, and what our own largest files have is far below it.
[[nodiscard]] constexpr std::int64_t maxJsonValues(std::size_t textBytes) noexcept {
    constexpr std::size_t always = std::size_t{1} << 18U;
    constexpr std::size_t bytesPerValue = 64;
    return static_cast<std::int64_t>(std::max(always, textBytes / bytesPerValue));
}

/// Longest number or literal, bytes. The longest number that a double needs has 770.
inline constexpr std::size_t maxJsonScalarBytes = 1024;

/// What scanJson() meets, in the order of the text. Does nothing unless overridden.
class JsonSink {
public:
    virtual ~JsonSink() = default;
    /// `raw` is what stands between the quotes, escapes and all.
    virtual void string(std::string_view /*raw*/) {}
    /// The key of the member whose value comes next.
    virtual void key(std::string_view /*raw*/) {}
    /// A number, "true", "false" or "null".
    virtual void scalar(std::string_view /*text*/) {}
    virtual void openArray() {}
    virtual void openObject() {}
    virtual void close() {}
};

/// Reads a JSON text (RFC 8259) from its start to its end, within the limits above: in one pass, and without taking
/// memory. With a sink that does nothing this decides whether it is one, before anything is built from it.
/// @throws JsonError, where it is not, or goes beyond a limit
void scanJson(std::string_view text, std::int64_t maxValues, JsonSink& sink);

} // namespace orlinth
