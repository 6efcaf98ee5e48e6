#include "OrlinthHost/Service/NewsReader.h"

#include <utility>

namespace orlinth::host {

namespace {

/// Adds what is new or different among `current` to `news`, and a line of the kind `gone` for what is there no more;
/// then `told` is `current`.
template <typename Key, typename View, typename Gone>
void addChanges(std::map<Key, View>& told, std::map<Key, View> current, std::vector<ServiceNews>& news, Gone gone) {
    for (const auto& [key, view] : told) {
        if (!current.contains(key)) {
            news.push_back(gone(key));
        }
    }
    for (const auto& [key, view] : current) {
        const auto before = told.find(key);
        if (before == told.end() || before->second != view) {
            news.push_back(view);
        }
    }
    told = std::move(current);
}

std::map<std::string, SettingView> byName(std::vector<SettingView> settings) {
    std::map<std::string, SettingView> named;
    for (SettingView& setting : settings) {
        std::string name = setting.name;
        named.emplace(std::move(name), std::move(setting));
    }
    return named;
}

} // namespace

NewsReader::NewsReader(const ServiceApi& api)
    : api_(api), seenHistory_(api.history().version()), settings_(byName(api.settings())) {}

std::vector<ServiceNews> NewsReader::next(bool isTimeToLook) {
    std::vector<ServiceNews> news;
    const bool isFirst = seenVersion_ == 0;
    const bool looksAtPhones = isTimeToLook || seenPhonesVersion_ != api_.phonesVersion();
    seenVersion_ = api_.version();
    seenPhonesVersion_ = api_.phonesVersion();
    addService(news);
    if (looksAtPhones) {
        addPhones(news);
    }
    addTransfers(news);
    addBatches(news);
    addOffers(news);
    addSettings(news);
    addHistory(news);
    if (isFirst) {
        news.emplace_back(CurrentLine{});
    }
    return news;
}

void NewsReader::addService(std::vector<ServiceNews>& news) {
    ServiceView current = api_.service();
    if (service_ != current) {
        news.emplace_back(current);
        service_ = std::move(current);
    }
}

void NewsReader::addPhones(std::vector<ServiceNews>& news) {
    std::map<PeerKey, PhoneView> current;
    for (PhoneView& phone : api_.phones()) {
        current.emplace(phone.presence.peerKey, std::move(phone));
    }
    addChanges(phones_, std::move(current), news,
               [](const PeerKey& peerKey) -> ServiceNews { return PhoneGoneLine{peerKey}; });
}

void NewsReader::addTransfers(std::vector<ServiceNews>& news) {
    std::map<TransferNumber, TransferView> current;
    for (TransferView& transfer : api_.transfers()) {
        current.emplace(transfer.number, std::move(transfer));
    }
    addChanges(transfers_, std::move(current), news,
               [](TransferNumber number) -> ServiceNews { return TransferGoneLine{number}; });
}

void NewsReader::addBatches(std::vector<ServiceNews>& news) {
    std::map<std::pair<BatchId, PeerKey>, OutboxView> current;
    for (OutboxView& batch : api_.batches()) {
        std::pair key{batch.batch, batch.peerKey};
        current.emplace(std::move(key), std::move(batch));
    }
    addChanges(batches_, std::move(current), news, [](const std::pair<BatchId, PeerKey>& key) -> ServiceNews {
        return BatchGoneLine{.batch = key.first, .peerKey = key.second};
    });
}

void NewsReader::addOffers(std::vector<ServiceNews>& news) {
    std::map<OfferNumber, OfferView> current;
    for (OfferView& offer : api_.offers()) {
        current.emplace(offer.number, std::move(offer));
    }
    addChanges(offers_, std::move(current), news,
               [](OfferNumber number) -> ServiceNews { return OfferGoneLine{number}; });
}

void NewsReader::addSettings(std::vector<ServiceNews>& news) {
    addChanges(settings_, byName(api_.settings()), news,
               [](const std::string& name) -> ServiceNews { return SettingGoneLine{name}; });
}

void NewsReader::addHistory(std::vector<ServiceNews>& news) {
    HistoryKeeper::News added = api_.history().since(seenHistory_);
    seenHistory_ = added.version;
    if (!added.isWhole) {
        news.emplace_back(HistoryLine{});
    }
    for (HistoryEntry& entry : added.added) {
        news.emplace_back(HistoryLine{std::move(entry)});
    }
}

} // namespace orlinth::host
