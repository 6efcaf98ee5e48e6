#include "platform/linux/LinuxServiceDiscovery.h"

#include "platform/Event.h"
#include "platform/SystemError.h"
#include "platform/linux/AvahiAnnouncement.h"
#include "platform/linux/AvahiLibrary.h"
#include "platform/linux/AvahiSearch.h"
#include "platform/linux/LinuxClock.h"

#include <asio/this_coro.hpp>

#include <algorithm>
#include <set>

namespace orlinth::platform {
namespace {

constexpr Seconds longestSearch = 24h;

class Publication final : public ServicePublication {
public:
    Publication(std::weak_ptr<AvahiLoop> loop, std::shared_ptr<AvahiAnnouncement> announcement)
        : loop_(std::move(loop)), announcement_(std::move(announcement)) {}
    Publication(const Publication&) = delete;
    Publication& operator=(const Publication&) = delete;
    ~Publication() override {
        announcement_->fallSilent();
        if (const auto loop = loop_.lock()) {
            loop->remove(announcement_);
        }
    }

private:
    std::weak_ptr<AvahiLoop> loop_;
    std::shared_ptr<AvahiAnnouncement> announcement_;
};

/// Ends the search when the one who waits for it goes, for whatever reason.
class RunningSearch {
public:
    RunningSearch(std::shared_ptr<AvahiLoop> loop, std::shared_ptr<AvahiSearch> search)
        : loop_(std::move(loop)), search_(std::move(search)) {
        loop_->add(search_);
    }
    RunningSearch(const RunningSearch&) = delete;
    RunningSearch& operator=(const RunningSearch&) = delete;
    ~RunningSearch() {
        search_->fallSilent();
        loop_->remove(search_);
    }

private:
    std::shared_ptr<AvahiLoop> loop_;
    std::shared_ptr<AvahiSearch> search_;
};

std::string lowerCasedAscii(std::string text) {
    for (char& character : text) {
        if (character >= 'A' && character <= 'Z') {
            character = static_cast<char>(character - 'A' + 'a');
        }
    }
    return text;
}

} // namespace

std::vector<std::pair<std::string, std::string>> txtPairs(const std::vector<std::string>& strings) {
    std::vector<std::pair<std::string, std::string>> pairs;
    std::set<std::string> known;
    for (const std::string& text : strings) {
        const std::size_t end = std::min(text.find('='), text.size());
        std::string key = lowerCasedAscii(text.substr(0, end));
        if (!key.empty() && known.insert(key).second) {
            pairs.emplace_back(std::move(key), text.substr(std::min(end + 1, text.size())));
        }
    }
    return pairs;
}

LinuxServiceDiscovery::LinuxServiceDiscovery() : loop_(std::make_shared<AvahiLoop>()) {}

LinuxServiceDiscovery::~LinuxServiceDiscovery() = default;

std::unique_ptr<ServicePublication> LinuxServiceDiscovery::publish(ServiceRecord service, Executor executor,
                                                                   PublicationEvents events) {
    auto announcement =
        std::make_shared<AvahiAnnouncement>(*loop_, std::move(service), std::move(executor), std::move(events));
    auto publication = std::make_unique<Publication>(loop_, announcement);
    try {
        static_cast<void>(avahi());
    } catch (const SystemError& error) {
        announcement->tellFailure(error.description());
        return publication;
    }
    loop_->add(std::move(announcement));
    return publication;
}

Task<std::vector<ServiceRecord>> LinuxServiceDiscovery::find(std::string type, Seconds duration) {
    const Executor executor = co_await asio::this_coro::executor;
    const Seconds bounded = duration > 0s ? std::min(duration, longestSearch) : 0s;
    const auto failed = std::make_shared<Event>(executor);
    const auto search = std::make_shared<AvahiSearch>(*loop_, std::move(type), [failed] { failed->set(); });
    const RunningSearch running(loop_, search);

    LinuxClock clock;
    static_cast<void>(co_await failed->wait(clock, bounded)); // whatever is found meanwhile
    if (const std::optional<std::string> failure = search->failure()) {
        throw SystemError(*failure);
    }
    co_return search->found();
}

} // namespace orlinth::platform
