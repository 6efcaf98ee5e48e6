#include "OrlinthHost/Service/LastText.h"

#include "base/Bytes.h"
#include "base/Text.h"

#include <algorithm>
#include <utility>

namespace orlinth::host {

namespace {

/// A phone's name is on a line of its own with other things, and that has a limit.
constexpr std::size_t maxNameBytes = 512;

} // namespace

void LastText::keep(std::string_view text, std::string_view from) {
    forget();
    if (text.empty() || text.size() > maxBytes) {
        return;
    }
    text_ = std::make_shared<const Text>(Text{.bytes = SecretBytes(asBytes(text)),
                                              .from = firstCharactersWithin(from, maxNameBytes),
                                              .received = clock_.epochMilliseconds()});
    keptAt_ = clock_.now();
    awaitEnd();
}

std::shared_ptr<const LastText::Text> LastText::get() {
    if (text_ && age() >= lifetime) {
        forget();
    }
    return text_;
}

/// The clock for durations stands still while the computer sleeps, and the wall clock may be set back.
Seconds LastText::age() const {
    return std::max<Seconds>(clock_.now() - keptAt_, clock_.epochMilliseconds() - text_->received);
}

/// The timer stands still during sleep too: so that the text goes soon after waking, it rings in small steps.
void LastText::awaitEnd() {
    timer_->arm(std::min(lifetime - age(), longestStep), [this] {
        if (get()) {
            awaitEnd();
        }
    });
}

bool LastText::forget() noexcept {
    timer_->disarm();
    return std::exchange(text_, nullptr) != nullptr;
}

} // namespace orlinth::host
