#pragma once

#include "OrlinthHost/Service/ServiceApi.h"
#include "OrlinthHost/Service/ServiceNews.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {

/// What one who watches has been told, and so what is news to him. On the home's executor.
class NewsReader {
public:
    /// `api` outlives this.
    explicit NewsReader(const ServiceApi& api);

    /// What has changed since the last call; everything at the first, but for settings and the history. Phones are
    /// looked at again only if `isTimeToLook` or if something was heard of one.
    [[nodiscard]] std::vector<ServiceNews> next(bool isTimeToLook);
    /// Whether there may be news.
    [[nodiscard]] bool isBehind() const noexcept { return seenVersion_ != api_.version(); }

private:
    void addService(std::vector<ServiceNews>& news);
    void addPhones(std::vector<ServiceNews>& news);
    void addTransfers(std::vector<ServiceNews>& news);
    void addBatches(std::vector<ServiceNews>& news);
    void addOffers(std::vector<ServiceNews>& news);
    void addSettings(std::vector<ServiceNews>& news);
    void addHistory(std::vector<ServiceNews>& news);

    const ServiceApi& api_;
    std::uint64_t seenVersion_ = 0;
    std::uint64_t seenPhonesVersion_ = 0;
    std::uint64_t seenHistory_ = 0;
    std::optional<ServiceView> service_;
    std::map<PeerKey, PhoneView> phones_;
    std::map<TransferNumber, TransferView> transfers_;
    std::map<std::pair<BatchId, PeerKey>, OutboxView> batches_;
    std::map<OfferNumber, OfferView> offers_;
    std::map<std::string, SettingView> settings_;
};

} // namespace orlinth::host
