#pragma once

#include "platform/Clock.h"
#include "platform/ServiceDiscovery.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>

#include <algorithm>
#include <optional>

namespace orlinth::fakes {

/// DNS-SD within one process: what is published is what is found, and what a test adds.
class FakeServiceDiscovery : public platform::ServiceDiscovery {
public:
    explicit FakeServiceDiscovery(platform::Clock& clock) : clock_(clock) {}
    ~FakeServiceDiscovery() override;

    [[nodiscard]] std::unique_ptr<platform::ServicePublication>
    publish(platform::ServiceRecord service, Executor executor, PublicationEvents events) override {
        auto publication = std::make_unique<Publication>(*this, std::move(service));
        if (!failure) {
            services.push_back(publication->service);
        }
        asio::post(executor, [alive = std::weak_ptr(publication->alive), events = std::move(events), why = failure] {
            if (!alive.lock()) {
                return;
            }
            if (why && events.onFailure) {
                events.onFailure(*why);
            } else if (!why && events.onPublished) {
                events.onPublished();
            }
        });
        return publication;
    }

    [[nodiscard]] Task<std::vector<platform::ServiceRecord>> find(std::string type, Seconds duration) override {
        if (failure) {
            throw platform::SystemError(*failure);
        }
        co_await clock_.sleep(duration);
        std::vector<platform::ServiceRecord> found;
        std::copy_if(services.begin(), services.end(), std::back_inserter(found),
                     [&type](const auto& service) { return service.type == type; });
        co_return found;
    }

    std::vector<platform::ServiceRecord> services; ///< announced now
    std::optional<std::string> failure;            ///< every call fails with this reason, if set

private:
    struct Publication : platform::ServicePublication {
        Publication(FakeServiceDiscovery& discovery, platform::ServiceRecord record)
            : owner(discovery), service(std::move(record)) {}
        ~Publication() override { std::erase(owner.services, service); }
        Publication(const Publication&) = delete;
        Publication& operator=(const Publication&) = delete;

        FakeServiceDiscovery& owner;
        platform::ServiceRecord service;
        std::shared_ptr<int> alive = std::make_shared<int>();
    };

    platform::Clock& clock_;
};

} // namespace orlinth::fakes
