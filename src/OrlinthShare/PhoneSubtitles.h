#pragma once

#include "OrlinthCore/Share/ServicePresence.h"
#include "OrlinthCore/Share/ShareOutbox.h"

#include <QDateTime>
#include <vector>

namespace orlinth::share {

/// Replaces the second line of phones of which the service knows more than the list does: "Here now", "Asleep, will be
/// woken", "Asleep", "Last here 14:05" or, on another day, "Last here 2026-03-09". Phones of one name keep the part of
/// their line that tells them apart. No phone is left out, whatever is known of it.
void showPresence(std::vector<ShareOutbox::SharePeer>& phones, const std::vector<SharePresence>& presence,
                  const QDateTime& now);

} // namespace orlinth::share
