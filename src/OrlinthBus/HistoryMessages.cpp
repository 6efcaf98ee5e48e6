#include "OrlinthBus/HistoryMessages.h"

#include "OrlinthBus/ObjectPath.h"
#include "base/Text.h"
#include "platform/linux/SystemdLibrary.h"

#include <algorithm>
#include <string>

namespace orlinth::bus {

namespace {

using platform::systemd;

/// The text as D-Bus takes it: UTF-8 without a zero, which would end it.
std::string textOf(const std::string& text) {
    std::string whole = toUtf8(text);
    std::erase(whole, '\0');
    return whole;
}

int appendEntry(sd_bus_message* message, const host::HistoryEntry* entry) {
    if (systemd().sd_bus_message_open_container(message, 'a', "{sv}") < 0) {
        return -1;
    }
    int result = 0;
    if (entry != nullptr) {
        const std::uint64_t size = static_cast<std::uint64_t>(std::max<std::int64_t>(0, entry->size));
        const std::uint64_t time = static_cast<std::uint64_t>(std::max<std::int64_t>(0, toNumber(entry->time)));
        result = systemd().sd_bus_message_append(message, "{sv}{sv}{sv}{sv}{sv}{sv}{sv}{sv}{sv}",   //
                                                 "Time", "t", time,                                 //
                                                 "Direction", "s", host::textOf(entry->direction),  //
                                                 "Phone", "o", pathOfPhone(entry->peerKey).c_str(), //
                                                 "PhoneName", "s", textOf(entry->phone).c_str(),    //
                                                 "Name", "s", textOf(entry->file).c_str(),          //
                                                 "State", "s", host::textOf(entry->outcome),        //
                                                 "BytesTotal", "t", size,                           //
                                                 "Problem", "s", textOf(entry->problem).c_str(),    //
                                                 "Path", "s", textOf(entry->path).c_str());
    }
    return result < 0 ? result : systemd().sd_bus_message_close_container(message);
}

/// A signal that gets lost is no failure: a connection that is broken is opened anew.
void tellAdded(sd_bus* bus, const host::HistoryEntry* entry) {
    sd_bus_message* made = nullptr;
    if (systemd().sd_bus_message_new_signal(bus, &made, rootPath, "com.tarvinex.orlinth1.Service", "HistoryAdded") <
        0) {
        return;
    }
    const platform::BusMessageRef signal(made);
    if (appendEntry(signal.get(), entry) >= 0) {
        static_cast<void>(systemd().sd_bus_send(bus, signal.get(), nullptr));
    }
}

} // namespace

int appendHistory(sd_bus_message* message, const std::vector<host::HistoryEntry>& entries) {
    int result = systemd().sd_bus_message_open_container(message, 'a', "a{sv}");
    for (const host::HistoryEntry& entry : entries) {
        if (result < 0) {
            return result;
        }
        result = appendEntry(message, &entry);
    }
    return result < 0 ? result : systemd().sd_bus_message_close_container(message);
}

HistorySignals::Told HistorySignals::tell(platform::BusLoop& loop, const host::HistoryKeeper& history) {
    if (loop.get() == nullptr || history.version() == seen_) {
        seen_ = history.version();
        return {};
    }
    const host::HistoryKeeper::News news = history.since(seen_);
    Told told{.signals = 1};
    if (!news.isWhole || news.added.size() > maxWaiting) {
        tellAdded(loop.get(), nullptr);
        seen_ = news.version;
    } else {
        told.signals = std::min(signalsAtOnce, news.added.size());
        for (std::size_t i = 0; i < told.signals; ++i) {
            tellAdded(loop.get(), &news.added[i]);
        }
        seen_ += told.signals;
        told.isEverything = seen_ == news.version;
    }
    loop.wake();
    return told;
}

} // namespace orlinth::bus
