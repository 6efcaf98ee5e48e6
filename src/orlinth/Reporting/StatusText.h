#pragma once

#include "OrlinthHost/Service/ServiceNews.h"

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::cli {

/// What the running service has told of itself, as lines for people.
class StatusText {
public:
    /// One more thing that it has told.
    void take(const host::ServiceNews& news);

    /// Everything, at most `columns` wide.
    [[nodiscard]] std::vector<std::string> lines(EpochMilliseconds now, std::size_t columns) const;

    /// "film.mov from Pixel 8", "a.jpg to Tablet".
    [[nodiscard]] static std::string nameOf(const host::TransferView& transfer);
    /// How it is: "62%  41 MB/s  0:12 left", "cancelled", "failed: …".
    [[nodiscard]] static std::string stateOf(const host::TransferView& transfer);

private:
    [[nodiscard]] std::string serviceLine() const;
    [[nodiscard]] static std::string phoneLine(const host::PhoneView& phone, EpochMilliseconds now);
    [[nodiscard]] static std::string offerLine(const host::OfferView& offer, EpochMilliseconds now);
    [[nodiscard]] static std::string batchLine(const host::OutboxView& batch, EpochMilliseconds now);

    std::optional<host::ServiceView> service_;
    std::vector<host::PhoneView> phones_; ///< in the order in which they were told
    std::map<host::TransferNumber, host::TransferView> transfers_;
    std::map<std::pair<BatchId, PeerKey>, host::OutboxView> batches_;
    std::map<host::OfferNumber, host::OfferView> offers_;
};

} // namespace orlinth::cli
