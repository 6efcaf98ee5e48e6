#include "platform/linux/LinuxServiceDiscovery.h"

#include "platform/Cancelled.h"
#include "platform/SystemError.h"
#include "platform/linux/AvahiAnnouncement.h"
#include "platform/linux/AvahiSearch.h"

#include <asio/post.hpp>
#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>

#include <algorithm>
#include <set>

namespace orlinth::platform {
namespace {

constexpr double longestSearch = 24.0 * 3600;

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
    loop_->add(std::move(announcement));
    return publication;
}

Task<std::vector<ServiceRecord>> LinuxServiceDiscovery::find(std::string type, double seconds) {
    const Executor executor = co_await asio::this_coro::executor;
    const std::chrono::duration<double> bounded(seconds > 0 ? std::min(seconds, longestSearch) : 0);
    const auto alarm =
        std::make_shared<asio::steady_timer>(executor, std::chrono::ceil<asio::steady_timer::duration>(bounded));
    // set to a time that has passed, rather than cancelled: so it rings even if nobody waits for it yet
    const auto ring = [weak = std::weak_ptr(alarm)] {
        if (const auto timer = weak.lock()) {
            timer->expires_at(asio::steady_timer::time_point::min());
        }
    };
    const auto search =
        std::make_shared<AvahiSearch>(*loop_, std::move(type), [executor, ring] { asio::post(executor, ring); });
    const RunningSearch running(loop_, search);

    std::error_code code;
    try {
        co_await alarm->async_wait(asio::redirect_error(asio::use_awaitable, code));
    } catch (const std::exception& error) {
        if (isCancellation(error)) {
            throw Cancelled(); // the task was cancelled before it came here
        }
        throw;
    }
    const asio::cancellation_state state = co_await asio::this_coro::cancellation_state;
    if (state.cancelled() != asio::cancellation_type::none) {
        throw Cancelled();
    }
    if (const std::optional<std::string> failure = search->failure()) {
        throw SystemError(*failure);
    }
    if (code) {
        throw SystemError(code);
    }
    co_return search->found();
}

} // namespace orlinth::platform
