#include "platform/linux/AvahiSearch.h"

#include "base/SecretBytes.h"
#include "platform/linux/AvahiLibrary.h"
#include "platform/linux/AvahiText.h"
#include "platform/linux/LinuxServiceDiscovery.h"

#include <algorithm>

namespace orlinth::platform {
namespace {

/// The record's strings, in its order.
std::vector<std::string> stringsOf(const AvahiStringList* list) {
    std::vector<std::string> strings;
    for (; list != nullptr; list = list->next) {
        strings.emplace_back(reinterpret_cast<const char*>(list->text), list->size);
    }
    return strings;
}

} // namespace

AvahiSearch::AvahiSearch(AvahiLoop& loop, std::string type, std::function<void()> onFailure)
    : AvahiJob(loop), type_(withoutDot(std::move(type))), onFailure_(std::move(onFailure)) {}

AvahiSearch::~AvahiSearch() {
    for (auto& [sighting, record] : records_) {
        record.wipeTxt();
    }
}

std::vector<ServiceRecord> AvahiSearch::found() const {
    std::vector<ServiceRecord> services;
    const MutexLock guard(lock_);
    for (const auto& [sighting, record] : records_) {
        const bool known = std::find(services.begin(), services.end(), record) != services.end();
        if (!known && services.size() < LinuxServiceDiscovery::maxFound) {
            services.push_back(record);
        }
    }
    return services;
}

std::optional<std::string> AvahiSearch::failure() const {
    const MutexLock guard(lock_);
    return failure_ || looks_ ? failure_ : avahi().avahi_strerror(AVAHI_ERR_TIMEOUT);
}

void AvahiSearch::fallSilent() noexcept {
    const MutexLock guard(lock_);
    onFailure_ = nullptr;
}

void AvahiSearch::begin() {
    int error = AVAHI_ERR_FAILURE;
    client_ = openClient(
        {},
        [](AvahiClient* client, AvahiClientState state, void* self) noexcept {
            if (state == AVAHI_CLIENT_FAILURE) {
                static_cast<AvahiSearch*>(self)->failed(avahi().avahi_client_errno(client));
            }
        },
        this, error);
    if (client_ == nullptr) {
        failed(error);
        return;
    }
    const AvahiServiceBrowser* browser = avahi().avahi_service_browser_new(
        client_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type_.c_str(), nullptr, {},
        [](AvahiServiceBrowser* source, AvahiIfIndex interface, AvahiProtocol protocol, AvahiBrowserEvent event,
           const char* name, const char* type, const char* domain, AvahiLookupResultFlags, void* self) noexcept {
            auto& search = *static_cast<AvahiSearch*>(self);
            AvahiClient* client = avahi().avahi_service_browser_get_client(source);
            if (event == AVAHI_BROWSER_NEW) {
                search.appeared(client, {interface, protocol, name, type, domain});
            } else if (event == AVAHI_BROWSER_REMOVE) {
                search.disappeared({interface, protocol, name, type, domain});
            } else if (event == AVAHI_BROWSER_FAILURE) {
                search.failed(avahi().avahi_client_errno(client));
            }
        },
        this);
    if (browser == nullptr) {
        failed(avahi().avahi_client_errno(client_));
        return;
    }
    const MutexLock guard(lock_);
    looks_ = true;
}

void AvahiSearch::end() noexcept {
    if (client_ != nullptr) {
        avahi().avahi_client_free(client_); // and all that it has
    }
    client_ = nullptr;
    resolvings_.clear();
    forgetSocket();
}

void AvahiSearch::appeared(AvahiClient* client, Sighting sighting) noexcept {
    if (isInterrupted() || resolvings_.size() >= LinuxServiceDiscovery::maxSightings ||
        resolvings_.contains(sighting)) {
        return;
    }
    auto resolving = std::make_unique<Resolving>();
    resolving->search = this;
    resolving->sighting = sighting;
    const auto& [interface, protocol, name, type, domain] = resolving->sighting;
    resolving->resolver = avahi().avahi_service_resolver_new(
        client, interface, protocol, name.c_str(), type.c_str(), domain.c_str(), AVAHI_PROTO_UNSPEC,
        AVAHI_LOOKUP_NO_ADDRESS, // port and TXT are asked for, no more
        [](AvahiServiceResolver*, AvahiIfIndex, AvahiProtocol, AvahiResolverEvent event, const char*, const char*,
           const char*, const char*, const AvahiAddress*, std::uint16_t port, AvahiStringList* txt,
           AvahiLookupResultFlags, void* self) noexcept {
            // A failure is one of this sighting alone: it did not answer in time.
            if (event == AVAHI_RESOLVER_FOUND) {
                const auto& done = *static_cast<Resolving*>(self);
                done.search->resolved(done.sighting, port, txt);
            }
        },
        resolving.get());
    if (resolving->resolver != nullptr) {
        resolvings_.emplace(std::move(sighting), std::move(resolving));
    }
}

void AvahiSearch::disappeared(const Sighting& sighting) noexcept {
    const auto place = resolvings_.find(sighting);
    if (place != resolvings_.end()) {
        avahi().avahi_service_resolver_free(place->second->resolver);
        resolvings_.erase(place);
    }
    const MutexLock guard(lock_);
    const auto record = records_.find(sighting);
    if (record != records_.end()) {
        record->second.wipeTxt();
        records_.erase(record);
    }
}

void AvahiSearch::resolved(const Sighting& sighting, std::uint16_t port, const AvahiStringList* txt) noexcept {
    const auto& [interface, protocol, name, type, domain] = sighting;
    std::vector<std::string> strings = stringsOf(txt);
    ServiceRecord record{
        .name = name, .type = withDot(type), .domain = withDot(domain), .port = port, .txt = txtPairs(strings)};
    for (std::string& text : strings) {
        wipe(std::as_writable_bytes(std::span(text)));
    }
    const MutexLock guard(lock_);
    std::swap(records_[sighting], record);
    record.wipeTxt(); // what it said before
}

void AvahiSearch::failed(int error) noexcept {
    if (isInterrupted()) {
        return;
    }
    const MutexLock guard(lock_);
    if (!failure_) {
        failure_ = avahi().avahi_strerror(error);
        if (onFailure_) {
            onFailure_();
        }
    }
}

} // namespace orlinth::platform
