#include "platform/linux/AvahiAnnouncement.h"

#include "base/Mutex.h"
#include "base/SecretBytes.h"
#include "platform/linux/AvahiLibrary.h"
#include "platform/linux/AvahiText.h"

#include <asio/post.hpp>

#include <atomic>
#include <cstdint>

namespace orlinth::platform {
namespace {

constexpr std::chrono::milliseconds retryPause = 1s;

struct StringListFree {
    void operator()(AvahiStringList* list) const noexcept {
        for (AvahiStringList* text = list; text != nullptr; text = text->next) {
            wipe(std::as_writable_bytes(std::span(text->text, text->size)));
        }
        avahi().avahi_string_list_free(list);
    }
};
using StringList = std::unique_ptr<AvahiStringList, StringListFree>;

/// Whether another attempt would fail in the same way, because it is this service that Avahi does not want.
bool isFinal(int error) {
    switch (error) {
    case AVAHI_ERR_COLLISION:
    case AVAHI_ERR_INVALID_DOMAIN_NAME:
    case AVAHI_ERR_INVALID_RECORD:
    case AVAHI_ERR_INVALID_SERVICE_NAME:
    case AVAHI_ERR_INVALID_SERVICE_TYPE:
    case AVAHI_ERR_INVALID_PORT:
    case AVAHI_ERR_INVALID_ARGUMENT:
    case AVAHI_ERR_NOT_PERMITTED:
    case AVAHI_ERR_ACCESS_DENIED:
        return true;
    default:
        return false;
    }
}

} // namespace

/// The way from the loop's thread to the executor. Outlives the announcement while a call is on its way.
struct AvahiAnnouncement::Teller {
    Mutex lock;
    Executor executor ORLINTH_GUARDED_BY(lock); ///< empty when silent
    ServiceDiscovery::PublicationEvents events; ///< the executor only
    std::atomic<bool> silent = false;
};

AvahiAnnouncement::AvahiAnnouncement(AvahiLoop& loop, ServiceRecord service, Executor executor,
                                     ServiceDiscovery::PublicationEvents events)
    : AvahiJob(loop), service_(std::move(service)), teller_(std::make_shared<Teller>()) {
    teller_->executor = std::move(executor);
    teller_->events = std::move(events);
}

AvahiAnnouncement::~AvahiAnnouncement() {
    service_.wipeTxt();
}

void AvahiAnnouncement::fallSilent() noexcept {
    teller_->silent = true;
    const MutexLock guard(teller_->lock);
    teller_->executor = Executor();
}

void AvahiAnnouncement::begin() {
    open();
}

void AvahiAnnouncement::end() noexcept {
    close();
    if (closing_ != nullptr) {
        poll()->timeout_free(closing_);
        closing_ = nullptr;
    }
}

void AvahiAnnouncement::open() noexcept {
    failing_ = false;
    int error = AVAHI_ERR_FAILURE;
    client_ = openClient(
        AVAHI_CLIENT_NO_FAIL,
        [](AvahiClient* client, AvahiClientState state, void* self) noexcept {
            static_cast<AvahiAnnouncement*>(self)->clientChanged(client, state);
        },
        this, error);
    if (client_ == nullptr) {
        group_ = nullptr; // it went with the client, should there have been one
        forgetSocket();
        failed(error);
    }
}

void AvahiAnnouncement::close() noexcept {
    if (client_ != nullptr) {
        avahi().avahi_client_free(client_); // and its group
    }
    client_ = nullptr;
    group_ = nullptr;
    forgetSocket();
}

void AvahiAnnouncement::clientChanged(AvahiClient* client, AvahiClientState state) noexcept {
    if (failing_ || isInterrupted()) {
        return;
    }
    switch (state) {
    case AVAHI_CLIENT_S_RUNNING:
        announce(client);
        break;
    case AVAHI_CLIENT_S_REGISTERING:
    case AVAHI_CLIENT_S_COLLISION:
        // the host's own name is changing; it runs again afterwards
        if (group_ != nullptr) {
            avahi().avahi_entry_group_reset(group_);
        }
        break;
    case AVAHI_CLIENT_CONNECTING:
        tellOnce(AVAHI_ERR_NO_DAEMON); // the library waits for it
        break;
    case AVAHI_CLIENT_FAILURE:
        failed(avahi().avahi_client_errno(client));
        break;
    }
}

void AvahiAnnouncement::announce(AvahiClient* client) noexcept {
    if (group_ == nullptr) {
        group_ = avahi().avahi_entry_group_new(
            client,
            [](AvahiEntryGroup* group, AvahiEntryGroupState state, void* self) noexcept {
                static_cast<AvahiAnnouncement*>(self)->groupChanged(group, state);
            },
            this);
    }
    int error = group_ == nullptr ? avahi().avahi_client_errno(client) : avahi().avahi_entry_group_reset(group_);
    if (error == AVAHI_OK) {
        error = addService();
    }
    if (error == AVAHI_OK) {
        error = avahi().avahi_entry_group_commit(group_);
    }
    if (error != AVAHI_OK) {
        failed(error);
    }
}

int AvahiAnnouncement::addService() noexcept {
    StringList txt;
    for (const auto& [key, value] : service_.txt) {
        std::string pair = key;
        pair.append("=").append(value);
        if (pair.size() > ServiceRecord::maxTxtStringBytes) { // Avahi would cut it short without a word
            return AVAHI_ERR_INVALID_RECORD;
        }
        // A list grows at its head, and is published from its end: what is added last comes last.
        AvahiStringList* longer = avahi().avahi_string_list_add_arbitrary(
            txt.get(), reinterpret_cast<const std::uint8_t*>(pair.data()), pair.size());
        wipe(std::as_writable_bytes(std::span(pair)));
        if (longer == nullptr) {
            return AVAHI_ERR_NO_MEMORY;
        }
        static_cast<void>(txt.release());
        txt.reset(longer);
    }
    return avahi().avahi_entry_group_add_service_strlst(
        group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, {}, service_.name.c_str(), withoutDot(service_.type).c_str(),
        withoutDot(service_.domain).c_str(), nullptr, service_.port, txt.get());
}

void AvahiAnnouncement::groupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state) noexcept {
    if (failing_ || isInterrupted()) {
        return;
    }
    switch (state) {
    case AVAHI_ENTRY_GROUP_ESTABLISHED:
        told_ = false; // what fails from now on is news
        tellPublished();
        break;
    case AVAHI_ENTRY_GROUP_COLLISION:
        failed(AVAHI_ERR_COLLISION);
        break;
    case AVAHI_ENTRY_GROUP_FAILURE:
        failed(avahi().avahi_client_errno(avahi().avahi_entry_group_get_client(group)));
        break;
    case AVAHI_ENTRY_GROUP_UNCOMMITED:
    case AVAHI_ENTRY_GROUP_REGISTERING:
        break;
    }
}

void AvahiAnnouncement::failed(int error) noexcept {
    if (failing_ || isInterrupted()) {
        return;
    }
    failing_ = true;
    opensAgain_ = !isFinal(error);
    if (opensAgain_) {
        tellOnce(error);
    } else {
        tell(error);
    }
    timeval when{};
    avahi().avahi_elapse_time(&when, opensAgain_ ? static_cast<unsigned>(retryPause.count()) : 0, 0);
    if (closing_ != nullptr) {
        poll()->timeout_update(closing_, &when);
        return;
    }
    closing_ = poll()->timeout_new(
        poll(), &when,
        [](AvahiTimeout*, void* self) noexcept {
            auto& announcement = *static_cast<AvahiAnnouncement*>(self);
            announcement.close();
            if (announcement.opensAgain_) {
                announcement.open();
            }
        },
        this);
}

void AvahiAnnouncement::tellOnce(int error) noexcept {
    if (!told_) {
        tell(error);
    }
}

void AvahiAnnouncement::tell(int error) noexcept {
    told_ = true;
    tellFailure(avahi().avahi_strerror(error));
}

void AvahiAnnouncement::tellFailure(std::string reason) noexcept {
    const MutexLock guard(teller_->lock);
    if (teller_->executor) {
        asio::post(teller_->executor, [teller = teller_, reason = std::move(reason)] {
            if (!teller->silent && teller->events.onFailure) {
                teller->events.onFailure(reason);
            }
        });
    }
}

void AvahiAnnouncement::tellPublished() noexcept {
    const MutexLock guard(teller_->lock);
    if (teller_->executor) {
        asio::post(teller_->executor, [teller = teller_] {
            if (!teller->silent && teller->events.onPublished) {
                teller->events.onPublished();
            }
        });
    }
}

} // namespace orlinth::platform
