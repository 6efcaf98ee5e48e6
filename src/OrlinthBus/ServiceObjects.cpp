#include "OrlinthBus/ServiceObjects.h"

#include "OrlinthBus/ObjectPath.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "OrlinthHost/Service/ServiceNews.h"
#include "base/Overloaded.h"
#include "base/Text.h"

#include <algorithm>
#include <limits>

namespace orlinth::bus {

namespace {

constexpr const char* serviceInterface = "com.tarvinex.orlinth1.Service";
constexpr const char* phoneInterface = "com.tarvinex.orlinth1.Phone";
constexpr const char* batchInterface = "com.tarvinex.orlinth1.Batch";
constexpr const char* transferInterface = "com.tarvinex.orlinth1.Transfer";

std::uint64_t countOf(std::int64_t number) {
    return static_cast<std::uint64_t>(std::max<std::int64_t>(0, number));
}

std::uint32_t shortCountOf(std::size_t number) {
    return static_cast<std::uint32_t>(std::min<std::size_t>(number, std::numeric_limits<std::uint32_t>::max()));
}

std::uint64_t momentOf(EpochMilliseconds moment) {
    return countOf(toNumber(moment));
}

std::uint64_t momentOf(const std::optional<EpochMilliseconds>& moment) {
    return moment ? momentOf(*moment) : 0;
}

/// The text as D-Bus takes it: UTF-8, which a path need not be, without a zero, which would end it.
std::string textOf(const std::string& text) {
    std::string whole = toUtf8(text);
    std::erase(whole, '\0');
    return whole;
}

BusDictionary dictionaryOf(const std::vector<host::SettingView>& settings) {
    BusDictionary dictionary;
    for (const host::SettingView& setting : settings) {
        BusDictionary::mapped_type value = false;
        std::visit(Overloaded{[&value](const std::string& text) { value = textOf(text); },
                              [&value](bool flag) { value = flag; },
                              [&value](std::int64_t number) { value = countOf(number); }},
                   setting.value);
        dictionary.emplace(textOf(setting.name), std::move(value));
    }
    return dictionary;
}

std::vector<std::string> fixedAmong(const std::vector<host::SettingView>& settings) {
    std::vector<std::string> fixed;
    for (const host::SettingView& setting : settings) {
        if (!setting.fixedBy.empty()) {
            fixed.push_back(textOf(setting.name));
        }
    }
    return fixed;
}

BusObject objectOf(const host::ServiceView& service, const ServiceIdentity& identity,
                   const std::vector<host::SettingView>& settings) {
    return {.interface = serviceInterface,
            .properties = {{"Version", identity.version},
                           {"DataDirectory", textOf(identity.dataDirectory)},
                           {"PublicKey", identity.publicKey},
                           {"State", std::string(host::textOf(service.state))},
                           {"Port", service.port},
                           {"Problem", textOf(service.problem)},
                           {"Name", textOf(service.name)},
                           {"Settings", dictionaryOf(settings)},
                           {"FixedSettings", fixedAmong(settings)}}};
}

BusObject objectOf(const host::PhoneView& phone, std::size_t waitingFiles) {
    return {.interface = phoneInterface,
            .properties = {{"Name", textOf(phone.name)},
                           {"PublicKey", textOf(phone.presence.peerKey.text())},
                           {"PairedAt", momentOf(phone.pairedAt)},
                           {"LastSeen", momentOf(phone.presence.seen)},
                           {"Presence", std::string(host::textOf(phone.presence.state))},
                           {"CanWake", phone.presence.canWake},
                           {"Address", textOf(phone.address)},
                           {"WaitingFiles", shortCountOf(waitingFiles)}}};
}

BusObject objectOf(const host::TransferView& transfer) {
    return {.interface = transferInterface,
            .properties = {{"Phone", ObjectPath{pathOfPhone(transfer.peerKey)}},
                           {"Direction", std::string(host::textOf(transfer.direction))},
                           {"Name", textOf(transfer.name)},
                           {"Batch", textOf(transfer.batch.text())},
                           {"State", std::string(host::textOf(transfer.state))},
                           {"BytesTotal", countOf(transfer.bytes.total)},
                           {"BytesDone", countOf(transfer.bytes.done)},
                           {"BytesPerSecond", countOf(transfer.bytesPerSecond)},
                           {"Problem", ProblemText{.text = textOf(transfer.problem), .hint = {}}},
                           {"Path", textOf(transfer.path.string())}}};
}

BusObject objectOf(const host::OutboxView& batch) {
    return {.interface = batchInterface,
            .properties = {{"Phone", ObjectPath{pathOfPhone(batch.peerKey)}},
                           {"CreatedAt", momentOf(batch.createdAt)},
                           {"FilesTotal", shortCountOf(batch.files)},
                           {"FilesDone", shortCountOf(batch.filesDone)},
                           {"State", std::string(host::textOf(batch.state))},
                           {"NextAttempt", momentOf(batch.nextAttempt)},
                           {"Problem", ProblemText{.text = textOf(batch.problem), .hint = {}}}}};
}

bool isShown(const host::TransferView& transfer, platform::Clock::Instant now) {
    using State = host::TransferView::State;
    const bool hasEndedBadly = transfer.state == State::failed || transfer.state == State::cancelled;
    return hasEndedBadly || transfer.endedAt.value_or(now) - transfer.beganAt >= tellingAge;
}

} // namespace

std::vector<BusInterface> serviceInterfaces() {
    return {
        {.name = serviceInterface,
         .methods = {{.name = "Pair", .in = {{"options", "a{sv}"}}, .out = {{"pairing", "o"}}},
                     {.name = "SendFiles",
                      .in = {{"uris", "as"}, {"phones", "ao"}, {"options", "a{sv}"}},
                      .out = {{"batch", "s"}}},
                     {.name = "SendText", .in = {{"text", "h"}, {"phones", "ao"}, {"options", "a{sv}"}}},
                     {.name = "GetLastText", .out = {{"text", "h"}}},
                     {.name = "GetHistory", .in = {{"before", "t"}, {"count", "u"}}, .out = {{"entries", "aa{sv}"}}},
                     {.name = "ClearHistory"},
                     {.name = "SetSetting", .in = {{"name", "s"}, {"value", "v"}}},
                     {.name = "Restart"}},
         .properties = {{"Version", "s", true},
                        {"DataDirectory", "s", true},
                        {"PublicKey", "s", true},
                        {"State", "s"},
                        {"Port", "q"},
                        {"Problem", "s"},
                        {"Name", "s"},
                        {"Settings", "a{sv}"},
                        {"FixedSettings", "as"}},
         .signals = {{.name = "HistoryAdded", .arguments = {{"entry", "a{sv}"}}}}},
        {.name = phoneInterface,
         .methods = {{.name = "Rename", .in = {{"name", "s"}}}, {.name = "Remove"}, {.name = "Wake"}},
         .properties = {{"Name", "s"},
                        {"PublicKey", "s"},
                        {"PairedAt", "t"},
                        {"LastSeen", "t"},
                        {"Presence", "s"},
                        {"CanWake", "b"},
                        {"Address", "s"},
                        {"WaitingFiles", "u"}}},
        {.name = batchInterface,
         .methods = {{.name = "Cancel"}, {.name = "RetryNow"}},
         .properties = {{"Phone", "o"},
                        {"CreatedAt", "t"},
                        {"FilesTotal", "u"},
                        {"FilesDone", "u"},
                        {"State", "s"},
                        {"NextAttempt", "t"},
                        {"Problem", "(ss)"}}},
        {.name = transferInterface,
         .methods = {{.name = "Cancel"}},
         .properties = {{"Phone", "o"},
                        {"Direction", "s"},
                        {"Name", "s"},
                        {"Batch", "s"},
                        {"State", "s"},
                        {"BytesTotal", "t"},
                        {"BytesDone", "t"},
                        {"BytesPerSecond", "t"},
                        {"Problem", "(ss)"},
                        {"Path", "s"}}}};
}

BusObjects objectsOf(const host::ServiceView& service, const ServiceIdentity& identity,
                     const std::vector<host::SettingView>& settings, const std::vector<host::PhoneView>& phones,
                     const std::vector<host::TransferView>& transfers, const std::vector<host::OutboxView>& batches,
                     platform::Clock::Instant now) {
    BusObjects objects;
    objects[rootPath] = objectOf(service, identity, settings);
    std::map<PeerKey, std::size_t> waitingFiles;
    for (const host::OutboxView& batch : batches) {
        if (batch.state != host::OutboxView::State::failed) {
            waitingFiles[batch.peerKey] += batch.files - std::min(batch.filesDone, batch.files);
        }
        objects[pathOfBatch(batch.batch, batch.peerKey)] = objectOf(batch);
    }
    for (const host::PhoneView& phone : phones) {
        objects[pathOfPhone(phone.presence.peerKey)] = objectOf(phone, waitingFiles[phone.presence.peerKey]);
    }
    for (const host::TransferView& transfer : transfers) {
        if (isShown(transfer, now)) {
            objects[pathOfTransfer(transfer.number)] = objectOf(transfer);
        }
    }
    return objects;
}

} // namespace orlinth::bus
