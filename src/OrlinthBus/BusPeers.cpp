#include "OrlinthBus/BusPeers.h"

#include "platform/linux/SystemdLibrary.h"

#include <exception>
#include <utility>

namespace orlinth::bus {

namespace {

using platform::systemd;

constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";

} // namespace

BusPeers::~BusPeers() {
    detach();
}

void BusPeers::detach() noexcept {
    peers_.clear();
    loop_ = nullptr;
}

/// The rule first: the bus works through both in this order, so that nobody leaves in between unseen.
bool BusPeers::add(const std::string& name) {
    if (contains(name)) {
        return true;
    }
    if (name.empty() || loop_ == nullptr || loop_->get() == nullptr || peers_.size() >= maxPeers) {
        return false;
    }
    auto peer = std::make_unique<Peer>(Peer{.owner = *this, .name = name, .rule = nullptr, .lookup = nullptr});
    const std::string rule = std::string("type='signal',sender='") + busName + "',path='" + busPath + "',interface='" +
                             busName + "',member='NameOwnerChanged',arg0='" + name + "'";
    sd_bus_slot* slot = nullptr;
    if (systemd().sd_bus_add_match_async(loop_->get(), &slot, rule.c_str(), onOwnerChanged, nullptr, peer.get()) < 0) {
        return false;
    }
    peer->rule.reset(slot);
    if (systemd().sd_bus_call_method_async(loop_->get(), &slot, busName, busPath, busName, "GetNameOwner", onLookedUp,
                                           peer.get(), "s", name.c_str()) < 0) {
        return false;
    }
    peer->lookup.reset(slot);
    peers_.emplace(name, std::move(peer));
    loop_->wake();
    return true;
}

void BusPeers::remove(const std::string& name) {
    const auto node = peers_.extract(name);
    if (!node.empty()) {
        onGone_(node.key());
    }
}

int BusPeers::onOwnerChanged(sd_bus_message* message, void* peer, sd_bus_error* /*error*/) {
    const auto* const self = static_cast<const Peer*>(peer);
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (!platform::isFromBus(message) || systemd().sd_bus_message_read(message, "sss", &name, &before, &after) <= 0 ||
        *after != '\0') {
        return 0;
    }
    try {
        self->owner.remove(std::string(self->name));
    } catch (const std::exception&) {
        return 0; // no memory: it is looked after no more, or stays until the connection ends
    }
    return 0;
}

int BusPeers::onLookedUp(sd_bus_message* message, void* peer, sd_bus_error* /*error*/) {
    auto* const self = static_cast<Peer*>(peer);
    if (platform::isFromBus(message) && systemd().sd_bus_message_is_method_error(message, nullptr) == 0) {
        self->lookup.reset();
        return 1;
    }
    try {
        self->owner.remove(std::string(self->name));
    } catch (const std::exception&) {
        return 1; // as above
    }
    return 1;
}

} // namespace orlinth::bus
