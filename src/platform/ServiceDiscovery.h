#pragma once

#include "base/SecretBytes.h"
#include "base/Time.h"
#include "platform/Task.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::platform {

/// One service of DNS-SD (RFC 6763): what is published, and what is found.
struct ServiceRecord {
    /// A string of the TXT record, key and "=" included, may have this many bytes (RFC 6763 §6.1).
    static constexpr std::size_t maxTxtStringBytes = 255;

    std::string name;       ///< instance name, UTF-8
    std::string type;       ///< "_orlinth-pair._tcp."; with or without the dot at its end
    std::string domain;     ///< "local."; likewise
    std::uint16_t port = 0; ///< where the service listens
    /// Keys and values of the TXT record in their order. What is found has keys in lower case, as their case does not
    /// matter (RFC 6763 §6.4).
    std::vector<std::pair<std::string, std::string>> txt;

    bool operator==(const ServiceRecord&) const = default;

    /// Wipes the values of the TXT record: there may be a secret among them.
    void wipeTxt() noexcept {
        for (auto& [key, value] : txt) {
            wipe(std::as_writable_bytes(std::span(value)));
        }
    }
};

/// A service that is announced for as long as this lives. Destroying it withdraws it, and nothing is called any more.
class ServicePublication {
public:
    virtual ~ServicePublication() = default;
};

/// The system's DNS-SD service.
class ServiceDiscovery {
public:
    virtual ~ServiceDiscovery() = default;

    /// What is heard of a publication. Each may be empty.
    struct PublicationEvents {
        /// Others can find it now. Again when it was lost meanwhile.
        std::function<void()> onPublished;
        /// Announcing has failed, for this reason.
        std::function<void(const std::string& reason)> onFailure;
    };

    /// Begins to announce the service, under exactly its name. Returns at once and never throws for the network's or
    /// the DNS-SD service's sake: whenever announcing fails (the DNS-SD service is missing or goes away, the name is
    /// taken), `onFailure` is called. A DNS-SD service that comes (back) later is used. A taken name is given up.
    /// Events come on `executor`.
    [[nodiscard]] virtual std::unique_ptr<ServicePublication> publish(ServiceRecord service, Executor executor,
                                                                      PublicationEvents events) = 0;

    /// Looks for services of a type for `duration` and returns what was there, each once, even if it is seen on several
    /// networks. @throws SystemError if there is no DNS-SD service; Cancelled
    [[nodiscard]] virtual Task<std::vector<ServiceRecord>> find(std::string type, Seconds duration) = 0;
};

} // namespace orlinth::platform
