#include "OrlinthHost/Service/LastText.h"

#include "base/Bytes.h"
#include "base/Text.h"

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
                                              .received = home_.system.clock.epochMilliseconds()});
    timer_->arm(lifetime, [this] { forget(); });
}

bool LastText::forget() noexcept {
    timer_->disarm();
    return std::exchange(text_, nullptr) != nullptr;
}

} // namespace orlinth::host
