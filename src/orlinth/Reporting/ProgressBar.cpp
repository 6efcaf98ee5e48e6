#include "orlinth/Reporting/ProgressBar.h"

#include "OrlinthHost/HumanText.h"
#include "base/Text.h"
#include "orlinth/Reporting/Output.h"
#include "orlinth/Reporting/Terminal.h"

#include <algorithm>
#include <unistd.h>
#include <utility>

namespace orlinth::cli {

ProgressBar::ProgressBar() : enabled_(canRedraw(STDERR_FILENO)), coloured_(wantsColour()) {}

void ProgressBar::begin(std::string name, const Progress& progress) {
    if (!enabled_) {
        return;
    }
    clear();
    name_ = std::move(name);
    progress_ = progress;
    rate_ = {};
    doneWhenLastDrawn_ = progress.done;
    lastDrawn_ = Clock::now();
    draw();
}

void ProgressBar::rename(std::string name) {
    name_ = std::move(name);
}

void ProgressBar::update(const Progress& progress) {
    if (!enabled_) {
        return;
    }
    progress_ = progress;
    const auto now = Clock::now();
    const Seconds passed = now - lastDrawn_;
    if (passed < drawingInterval) {
        if (!shown_ && redrawsAtOnce_) {
            draw();
        }
        return;
    }
    rate_.add(progress.done - doneWhenLastDrawn_, passed);
    lastDrawn_ = now;
    doneWhenLastDrawn_ = progress.done;
    draw();
}

void ProgressBar::clear() noexcept {
    if (shown_) {
        shown_ = false;
        writeToStandardError("\r\x1b[K");
    }
}

void ProgressBar::draw() {
    shown_ = true;
    // the last column stays free: writing it would make some terminals begin a new line
    writeToStandardError("\r" + line(columnsOfTerminal(STDERR_FILENO) - 1) + "\x1b[K");
}

std::string ProgressBar::line(std::size_t columns) const {
    const auto [done, total] = progress_;
    const double share = total > 0 ? std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0) : 1.0;
    const std::string percent = std::to_string(static_cast<int>(share * 100)) + "%";
    std::string figures = host::padded("", 4 - std::min<std::size_t>(4, percent.size())) + percent;
    std::string rate;
    if (const double perSecond = rate_.perSecond(); perSecond > 0) {
        const Seconds left(static_cast<double>(std::max<std::int64_t>(0, total - done)) / perSecond);
        rate = "  " + host::humanRate(perSecond) + "  " + host::humanDuration(left) + " left";
    }
    // what does not fit is left out, the least important first: the bar, rate and time, the name's end
    const bool roomForRate = columnsOf(figures) + columnsOf(rate) + 10 <= columns;
    if (roomForRate) {
        figures += host::padded(rate, 26);
    }
    const std::size_t forName = columns > columnsOf(figures) + 2 ? columns - columnsOf(figures) - 2 : 0;
    const std::size_t forBar = forName >= 40 ? std::min<std::size_t>(30, forName - 24) : 0;
    std::string text = host::fitted(name_, forName - (forBar > 0 ? forBar + 4 : 0));
    if (!text.empty()) {
        text += "  ";
    }
    if (forBar > 0) {
        const auto full = static_cast<std::size_t>(share * static_cast<double>(forBar));
        const std::string filled(full, '#');
        text += "[" + (coloured_ ? "\x1b[32m" + filled + "\x1b[0m" : filled) + std::string(forBar - full, '-') + "]  ";
    }
    return host::fitted(text + figures, coloured_ && forBar > 0 ? columns + 9 : columns);
}

} // namespace orlinth::cli
