#include "OrlinthCore/Sending/FcmWake.h"
#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/PairedPhones.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Sending/Farewell.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Commands/PairingRecord.h"

#include <algorithm>
#include <array>
#include <map>
#include <utility>

namespace orlinth::cli {

namespace {

/// What `peers add` was told.
struct NewPeer {
    std::string pubkey;
    std::string ip;
    std::uint16_t port = 0;
    std::string name;
    std::string fcmToken;
};

/// A host name or address has neither blanks nor control characters, whatever else it is.
CLI::Validator addressValidator() {
    const auto check = [](std::string& text) -> std::string {
        const auto isOdd = [](unsigned char c) { return c <= ' ' || c == 0x7F; };
        const bool valid = !text.empty() && std::none_of(text.begin(), text.end(), isOdd);
        return valid ? "" : "'" + text + "' is not an address or a host name";
    };
    return {check, ""};
}

CLI::Validator keyValidator() {
    const auto check = [](std::string& text) -> std::string {
        return platform::PublicKey::fromBase64(text)
                   ? ""
                   : "'" + text + "' is not a public key: want 44 characters, the Base64 of 32 bytes";
    };
    return {check, ""};
}

CLI::Validator nameValidator() {
    const auto check = [](std::string& text) -> std::string {
        return trimmed(text).empty() || !isUtf8(text) ? "may be neither empty nor anything but UTF-8" : "";
    };
    return {check, ""};
}

class PeersCommand final : public Command {
public:
    explicit PeersCommand(CLI::App& program)
        : Command(
              program.add_subcommand("peers", "List the paired phones, record one by hand, rename or forget one.")) {
        addJsonFlag("Print JSON, one object a line; the push token is never printed.");
        parser().require_subcommand(0, 1);
        declareAdd();
        declareRemove();
        declareRename();
    }

    int run(Host& host) override {
        if (add_->parsed()) {
            return add(host);
        }
        if (rename_->parsed()) {
            return rename(host);
        }
        return remove_->parsed() ? remove(host) : list(host);
    }

private:
    void declareAdd() {
        add_ = parser().add_subcommand("add", "Record a phone by hand, in place of what was known of it.");
        add_->fallthrough();
        add_->add_option("--pubkey", peer_.pubkey, "The phone's public key: Base64 of 32 bytes, 44 characters.")
            ->type_name("KEY")
            ->check(keyValidator())
            ->required();
        add_->add_option("--ip", peer_.ip, "The address, or host name, at which it receives.")
            ->type_name("ADDRESS")
            ->check(addressValidator())
            ->required();
        add_->add_option("--port", peer_.port, "The TCP port on which it receives, 1 to 65535.")
            ->type_name("PORT")
            ->check(portFrom(1))
            ->required();
        add_->add_option("--name", peer_.name, "What to call it; selectors match this.")
            ->type_name("NAME")
            ->check(nameValidator())
            ->required();
        add_->add_option("--fcm-token", peer_.fcmToken, "Its push token, for waking it. Default: none.")
            ->type_name("TOKEN");
    }

    void declareRemove() {
        remove_ = parser().add_subcommand("remove", "Forget a phone, and tell it so.");
        remove_->fallthrough();
        remove_
            ->add_option("SELECTOR", selector_,
                         "Its name, the beginning of its name, or the beginning of its key, in any letter case.")
            ->type_name("")
            ->check(notEmpty())
            ->required();
    }

    void declareRename() {
        rename_ = parser().add_subcommand(
            "rename", "Give a phone another name here. If the phone later says a name of its own, that replaces it.");
        rename_->fallthrough();
        rename_
            ->add_option("SELECTOR", selector_,
                         "Its name, the beginning of its name, or the beginning of its key, in any letter case.")
            ->type_name("")
            ->check(notEmpty())
            ->required();
        rename_
            ->add_option("NAME", newName_, "What to call it. No other phone may have a name that looks like this one.")
            ->type_name("")
            ->check(nameValidator())
            ->required();
    }

    int list(Host& host) {
        const PeerBook book = host.peers().loadBook();
        if (book.peers.empty()) {
            host.output.message("No phone is paired yet. `orlinth pair` pairs one.");
            return 0;
        }
        const std::map<PeerKey, host::PhonePresence> presence = presenceOf(host, book);
        for (const PeerRecord& record : book.peers) {
            const host::PhonePresence& phone = presence.at(record.peer_pubkey);
            Json fields = host::publicFields(record);
            fields["state"] = host::textOf(phone.state);
            fields["seen_epoch_ms"] = phone.seen ? toNumber(*phone.seen) : 0;
            fields["can_wake"] = phone.canWake;
            host.output.event("peer", std::move(fields));
        }
        printTable(host, book, presence);
        return 0;
    }

    /// As the service has it; without one, when each phone was last met. Whether it can be woken is looked up here.
    static std::map<PeerKey, host::PhonePresence> presenceOf(Host& host, const PeerBook& book) {
        const std::map<PeerKey, EpochMilliseconds> meetings =
            host::AddressMemory(host.system.files, host.system.clock, host.system.log, host.dataDirectory())
                .lastMeetings();
        std::map<PeerKey, host::PhonePresence> presence;
        for (const PeerRecord& record : book.peers) {
            const auto met = meetings.find(record.peer_pubkey);
            presence[record.peer_pubkey] = {.peerKey = record.peer_pubkey,
                                            .seen = met != meetings.end() ? std::optional(met->second) : std::nullopt};
        }
        if (const auto known = host.tasks.run(host::findPresence(host))) {
            for (const host::PhonePresence& phone : *known) {
                presence[phone.peerKey] = phone;
            }
        }
        const bool hasPushKey = host.system.files.exists(FcmWake::defaultServiceAccountURL(host.system.directories));
        for (const PeerRecord& record : book.peers) {
            presence[record.peer_pubkey].canWake = hasPushKey && !record.peer_fcm_token.empty();
        }
        return presence;
    }

    static std::string seenText(const host::PhonePresence& phone, EpochMilliseconds now) {
        switch (phone.state) {
        case host::PresenceState::here:
            return "now";
        case host::PresenceState::asleep:
            return "asleep";
        case host::PresenceState::away:
        case host::PresenceState::unknown:
            break;
        }
        return phone.seen ? host::humanSince(*phone.seen, now) : "-";
    }

    static void printTable(Host& host, const PeerBook& book, const std::map<PeerKey, host::PhonePresence>& presence) {
        constexpr std::size_t columns = 6;
        using Row = std::array<std::string, columns>;
        std::vector<Row> rows{{"NAME", "ADDRESS", "KEY", "PAIRED", "SEEN", "WAKE"}};
        for (const PeerRecord& record : book.peers) {
            const host::PhonePresence& phone = presence.at(record.peer_pubkey);
            rows.push_back({forDisplay(record.peer_hostname), forDisplay(host::addressOf(record)),
                            host::shortKey(record.peer_pubkey), host::humanTime(record.paired_at_epoch_ms),
                            seenText(phone, host.system.clock.epochMilliseconds()), phone.canWake ? "yes" : "no"});
        }
        std::array<std::size_t, columns> widths{};
        for (const Row& row : rows) {
            for (std::size_t i = 0; i < row.size(); ++i) {
                widths.at(i) = std::max(widths.at(i), columnsOf(row.at(i)));
            }
        }
        for (const Row& row : rows) {
            std::string line;
            for (std::size_t i = 0; i + 1 < columns; ++i) {
                line += host::padded(row.at(i), widths.at(i)) + "  ";
            }
            host.output.result(line + row.back());
        }
    }

    int add(Host& host) {
        const platform::PrivateKey ownKey = host.staticKey();
        PeerRecord record;
        record.peer_pubkey = PeerKey(peer_.pubkey);
        record.peer_ip = peer_.ip;
        record.peer_port = peer_.port;
        record.peer_hostname = peer_.name;
        record.paired_at_epoch_ms = host.system.clock.epochMilliseconds();
        record.self_pubkey = ownKey.publicKey().peerKey();
        record.peer_fcm_token = peer_.fcmToken;
        if (record.peer_pubkey == record.self_pubkey) {
            throw host::HostError("this is the computer's own key",
                                  "The phone's key is what `orlinth id` shows there.");
        }
        recordByHand(host, record);
        return 0;
    }

    int remove(Host& host) {
        const platform::PrivateKey ownKey = host.staticKey();
        const PeerRecord chosen = host::resolvePeer(host, selector_);
        const std::optional<PeerRecord> removed = host::PairedPhones(host).remove(chosen, ownKey.publicKey());
        if (!removed) { // another process was quicker
            throw host::HostError("no paired phone matches '" + selector_ + "'",
                                  "`orlinth peers` lists the paired phones.");
        }
        Json fields;
        fields["peer"] = host::publicFields(*removed);
        host.output.event("removed", std::move(fields));
        host.output.result("forgot " + forDisplay(removed->peer_hostname));
        tellPhone(host, ownKey, *removed);
        return 0;
    }

    int rename(Host& host) {
        const PeerRecord chosen = host::resolvePeer(host, selector_);
        const std::optional<PeerRecord> renamed = host::PairedPhones(host).rename(chosen.peer_pubkey, newName_);
        if (!renamed) { // another process was quicker
            throw host::HostError("no paired phone matches '" + selector_ + "'",
                                  "`orlinth peers` lists the paired phones.");
        }
        Json fields;
        fields["peer"] = host::publicFields(*renamed);
        fields["earlier_name"] = chosen.peer_hostname;
        host.output.event("renamed", std::move(fields));
        host.output.result(forDisplay(chosen.peer_hostname) + " is now called " + forDisplay(renamed->peer_hostname));
        return 0;
    }

    /// Best effort: if it cannot be told now, the service tells it when it comes.
    static void tellPhone(Host& host, const platform::PrivateKey& ownKey, const PeerRecord& record) {
        const std::string name = forDisplay(record.peer_hostname);
        const host::Farewell farewell = host.tasks.run(host::notifyRemoved(host, ownKey, record));
        if (farewell.wasSent) {
            host.output.message(name + " was told.");
        } else {
            host.output.message(name + " could not be told now" +
                                (farewell.problem.empty() ? "" : " (" + farewell.problem + ")") +
                                "; it is told when it connects to `orlinth serve`.");
        }
    }

    CLI::App* add_ = nullptr;
    CLI::App* remove_ = nullptr;
    CLI::App* rename_ = nullptr;
    NewPeer peer_;
    std::string selector_;
    std::string newName_;
};

} // namespace

std::unique_ptr<Command> makePeersCommand(CLI::App& program) {
    return std::make_unique<PeersCommand>(program);
}

} // namespace orlinth::cli
