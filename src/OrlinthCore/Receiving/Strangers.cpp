#include "OrlinthCore/Receiving/Strangers.h"

#include "platform/IpAddress.h"

#include <algorithm>
#include <utility>

namespace orlinth {

std::string sourceOf(const std::string& address) {
    constexpr std::size_t networkBytes = 8;
    const auto parsed = platform::parseIpAddress(address);
    const auto* const v6 = parsed ? std::get_if<platform::Ipv6Address>(&*parsed) : nullptr;
    if (v6 == nullptr) {
        return address;
    }
    if (const auto v4 = platform::unmapped(*v6)) {
        return platform::dottedDecimal(*v4);
    }
    std::string network;
    for (std::size_t i = 0; i < networkBytes; ++i) {
        network += std::to_string(v6->bytes.at(i)) + ".";
    }
    return network + "/64%" + v6->zone;
}

std::vector<Strangers::Identity> Strangers::add(Identity identity, std::string source, Instant now) {
    Line& line = lines_[source];
    line.push_back({.identity = identity, .since = now});
    sources_.emplace(identity, std::move(source));
    std::vector<Identity> gone;
    trim(line, now, gone);
    while (sources_.size() > limits::strangers) {
        gone.push_back(takeOne().value());
    }
    return gone;
}

std::vector<Strangers::Identity> Strangers::takeOverdue(Instant now) {
    std::vector<Identity> gone;
    for (auto& [source, line] : lines_) {
        trim(line, now, gone); // which leaves nobody's line empty
    }
    return gone;
}

void Strangers::trim(Line& line, Instant now, std::vector<Identity>& gone) {
    const Instant before = now - limits::strangerGrace;
    while (line.size() > mostOfOneSource) {
        const std::optional<Identity> next = choose(line, before);
        if (!next) {
            return;
        }
        remove(*next); // never the last one of the line
        gone.push_back(*next);
    }
}

std::optional<Strangers::Identity> Strangers::takeOne() {
    const auto hasFewer = [](const auto& one, const auto& other) { // of equals, who came last
        const auto rank = [](const Line& line) {
            return std::pair(line.size(), -line.front().since.time_since_epoch());
        };
        return rank(one.second) < rank(other.second);
    };
    const auto most = std::ranges::max_element(lines_, hasFewer);
    if (most == lines_.end()) {
        return std::nullopt;
    }
    Line candidates = most->second;
    if (candidates.size() > 1) {
        candidates.pop_back(); // who has just come gets a chance to say something
    }
    const std::optional<Identity> chosen = choose(candidates, std::nullopt);
    remove(*chosen);
    return chosen;
}

std::optional<Strangers::Identity> Strangers::choose(const Line& line, std::optional<Instant> before) const {
    std::optional<Identity> greeted;
    for (const Stranger& stranger : line) {
        if (before && stranger.since > *before) {
            break; // nor is anybody behind it
        }
        if (!hasGreeted_(stranger.identity)) {
            return stranger.identity;
        }
        if (!greeted) {
            greeted = stranger.identity;
        }
    }
    return greeted;
}

void Strangers::remove(Identity identity) {
    const auto known = sources_.find(identity);
    if (known == sources_.end()) {
        return;
    }
    const auto line = lines_.find(known->second);
    std::erase_if(line->second, [identity](const Stranger& stranger) { return stranger.identity == identity; });
    if (line->second.empty()) {
        lines_.erase(line);
    }
    sources_.erase(known);
}

bool Strangers::isCrowded() const {
    return std::ranges::any_of(lines_, [this](const auto& line) { return line.second.size() > mostOfOneSource; });
}

} // namespace orlinth
