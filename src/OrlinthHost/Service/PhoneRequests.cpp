#include "OrlinthHost/Service/PhoneRequests.h"

#include "OrlinthCore/SecureChannel/TransportFrame.h"
#include "OrlinthHost/Phones/PairedPhones.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Sending/Farewell.h"
#include "OrlinthHost/Sending/PhoneWake.h"
#include "OrlinthHost/Sending/TextDelivery.h"
#include "base/Bytes.h"
#include "base/Text.h"
#include "platform/Blocking.h"

#include <asio/this_coro.hpp>

#include <set>
#include <utility>

namespace orlinth::host {

namespace {

/// The record of each of these, once, in their order. @throws NoSuchPhone, PeerStoreError
std::vector<PeerRecord> recordsOf(const Home& home, const std::vector<PeerKey>& phones) {
    const PeerBook book = home.peers().loadBook();
    std::vector<PeerRecord> records;
    std::set<PeerKey> taken;
    for (const PeerKey& phone : phones) {
        const PeerRecord* const record = book.find(phone);
        if (record == nullptr) {
            throw NoSuchPhone();
        }
        if (taken.insert(phone).second) {
            records.push_back(*record);
        }
    }
    return records;
}

} // namespace

/// A request, for as long as this lives.
class PhoneRequests::UnderWay {
public:
    explicit UnderWay(PhoneRequests& owner) : owner_(owner) {
        ++owner_.underWay_;
        owner_.tellChange();
    }
    ~UnderWay() {
        --owner_.underWay_;
        owner_.tellChange();
    }
    UnderWay(const UnderWay&) = delete;
    UnderWay& operator=(const UnderWay&) = delete;

private:
    PhoneRequests& owner_;
};

const std::size_t PhoneRequests::maxTextBytes = TransportFramer::maxPlaintextBytes;

PhoneRequests::PhoneRequests(Home& home, const platform::PrivateKey& ownKey, FindSetting find)
    : home_(home), ownKey_(ownKey), find_(find), farewells_(home.executor) {}

void PhoneRequests::tellChange() {
    if (onChanged) {
        onChanged();
    }
}

Task<> PhoneRequests::rename(PeerKey phone, std::string name) {
    const UnderWay underWay(*this);
    const auto step = [this, &phone, &name] { return PairedPhones(home_).rename(phone, name).has_value(); };
    const bool isThere = co_await platform::blocking(home_.system.queues, step);
    if (!isThere) {
        throw NoSuchPhone();
    }
}

Task<> PhoneRequests::remove(PeerKey phone) {
    const UnderWay underWay(*this);
    const auto step = [this, &phone] {
        return PairedPhones(home_).remove(recordsOf(home_, {phone}).front(), ownKey_.publicKey());
    };
    std::optional<PeerRecord> removed = co_await platform::blocking(home_.system.queues, step);
    if (!removed) { // another program was quicker
        throw NoSuchPhone();
    }
    farewells_.add(bidFarewell(std::move(*removed)), [](const std::exception_ptr&) {
        // the service ends; the phone is notified when it connects to the next one
    });
}

Task<> PhoneRequests::bidFarewell(PeerRecord phone) {
    const std::string name = forDisplay(phone.peer_hostname);
    const Farewell farewell = co_await notifyRemoved(home_, ownKey_, std::move(phone));
    if (!farewell.wasSent) {
        home_.system.log.write(platform::LogLevel::info, "com.tarvinex.orlinth", "control",
                               name + " was removed and could not be notified now: " + farewell.problem);
    }
}

Task<PeerRecord> PhoneRequests::find(PeerKey phone) {
    const auto step = [this, &phone] { return recordsOf(home_, {phone}).front(); };
    co_return co_await platform::blocking(home_.system.queues, step);
}

Task<> PhoneRequests::wake(PeerKey phone) {
    const UnderWay underWay(*this);
    PeerRecord record = co_await find(std::move(phone));
    co_await wakePhone(home_, std::move(record));
}

Task<> PhoneRequests::sendText(SecretBytes text, std::vector<PeerKey> phones) {
    const UnderWay underWay(*this);
    const auto content = std::make_shared<const std::string>(toText(text.reveal()));
    requireText(*content);
    const auto choose = [this, &phones] {
        std::vector<PeerRecord> records = recordsOf(home_, phones);
        if (records.empty()) {
            records.push_back(defaultPeer(home_, ownKey_.publicKey(), PeerUse::connection).record);
        }
        for (const PeerRecord& record : records) {
            static_cast<void>(checkPeer(record, ownKey_.publicKey(), PeerUse::connection));
        }
        return records;
    };
    std::vector<PeerRecord> records = co_await platform::blocking(home_.system.queues, choose);
    if (records.size() == 1) {
        co_await deliver(content, std::move(records.front()));
    } else {
        co_await deliverToAll(content, std::move(records));
    }
}

Task<> PhoneRequests::deliver(std::shared_ptr<const std::string> text, PeerRecord phone) {
    const std::string name = forDisplay(phone.peer_hostname);
    OneOffRequest request = textRequest(std::move(phone), ownKey_, {}, text->size());
    const OneOffEnd end = co_await deliverText(home_, find_, *text, "text/plain", std::move(request));
    if (end == OneOffEnd::brokeOff) {
        throw HostError(name + " broke the connection off before it had the whole text; it may not have arrived");
    }
}

Task<> PhoneRequests::deliverToAll(std::shared_ptr<const std::string> text, std::vector<PeerRecord> phones) {
    std::string problem;
    platform::TaskGroup deliveries(home_.executor);
    for (PeerRecord& phone : phones) {
        const std::string name = forDisplay(phone.peer_hostname);
        deliveries.add(deliver(text, std::move(phone)), [&problem, name](const std::exception_ptr& error) {
            if (error) {
                problem += (problem.empty() ? "" : "; ") + name + ": " + describe(error);
            }
        });
    }
    std::exception_ptr cancelled;
    try {
        co_await deliveries.join();
    } catch (...) {
        cancelled = std::current_exception();
    }
    if (cancelled) {
        co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
        deliveries.cancelAll();
        co_await deliveries.join(); // they refer to this frame
        std::rethrow_exception(cancelled);
    }
    if (!problem.empty()) {
        throw HostError("not every phone has got the text: " + problem);
    }
}

Task<> PhoneRequests::finish() {
    farewells_.cancelAll();
    co_await farewells_.join();
}

} // namespace orlinth::host
