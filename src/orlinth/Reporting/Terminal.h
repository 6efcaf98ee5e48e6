#pragma once

#include <cstddef>
#include <string_view>

/// What the terminal behind a standard stream can do.
namespace orlinth::cli {

[[nodiscard]] bool isTerminal(int descriptor);

/// Whether it is a terminal that can go back to the start of a line (TERM is set and not "dumb").
[[nodiscard]] bool canRedraw(int descriptor);

/// NO_COLOR is not set, or empty.
[[nodiscard]] bool wantsColour();

/// Its width as it is now; 80 if it does not tell.
[[nodiscard]] std::size_t columnsOfTerminal(int descriptor);

/// Its height as it is now; 24 if it does not tell.
[[nodiscard]] std::size_t rowsOfTerminal(int descriptor);

/// One line of standard error that is redrawn in place, such as a countdown. Draws nothing where it cannot be.
class StatusLine {
public:
    explicit StatusLine(bool enabled);
    ~StatusLine();
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    /// In place of what was there; fit for a terminal, and cut to its width.
    void show(std::string_view text);
    void clear() noexcept;

private:
    bool enabled_;
    bool shown_ = false;
};

} // namespace orlinth::cli
