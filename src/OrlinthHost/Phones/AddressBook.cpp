#include "OrlinthHost/Phones/AddressBook.h"

#include "platform/Crypto.h"
#include "platform/IpAddress.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <tuple>
#include <utility>

namespace orlinth::host {
namespace {

constexpr const char* phonesKey = "phones";
constexpr const char* sweptKey = "swept";
constexpr const char* movedKey = "moved";
constexpr const char* toldIpKey = "told_ip";
constexpr const char* toldPortKey = "told_port";
constexpr const char* addressKey = "address";
constexpr const char* zoneKey = "zone";
constexpr const char* macKey = "mac";
constexpr const char* networkKey = "network";
constexpr const char* cameKey = "came_epoch_ms";
constexpr const char* reachedKey = "reached_epoch_ms";
constexpr const char* failuresKey = "failures";

// What the longest entries take in the file: an address of 39 characters, an interface of 15 that are all escaped,
// moments of 19 digits; the key of a phone, of 44; a network swept; what was told, and the rest.
constexpr std::size_t longestEntry = 336;
constexpr std::size_t longestPhone = 64;
constexpr std::size_t longestSwept = 48;
constexpr std::size_t longestMoved = 80;
constexpr std::size_t longestRest = 256;
static_assert(AddressBook::maxPhones * (AddressBook::maxAddresses * longestEntry + longestPhone) +
                  AddressBook::maxPhones * longestMoved + AddressBook::maxSwept * longestSwept + longestRest <=
              AddressBook::maxFileBytes);

// Twice what a full book has.
constexpr std::size_t valuesOfEntry = 8;
constexpr auto maxValues = static_cast<std::int64_t>(
    2 * (AddressBook::maxPhones * (AddressBook::maxAddresses * valuesOfEntry + 2) + AddressBook::maxSwept + 6));

// --- addresses ---

bool isSingleHost(const platform::Ipv4Address& address) {
    constexpr std::uint8_t thisNetwork = 0;
    constexpr std::uint8_t loopback = 127;
    constexpr std::uint8_t firstOfGroups = 224; // and what is reserved, and broadcast, behind them
    return address[0] != thisNetwork && address[0] != loopback && address[0] < firstOfGroups;
}

bool isSingleHost(const platform::Ipv6Address& address) {
    constexpr std::uint8_t group = 0xFF;
    const auto isZero = [](std::uint8_t byte) { return byte == 0; };
    const bool isUnspecifiedOrLoopback =
        std::all_of(address.bytes.begin(), address.bytes.end() - 1, isZero) && address.bytes.back() <= 1;
    return address.bytes.front() != group && !isUnspecifiedOrLoopback;
}

/// fe80::/10
bool holdsOnOneLink(const platform::Ipv6Address& address) {
    return address.bytes[0] == 0xFE && (address.bytes[1] & 0xC0) == 0x80;
}

/// The groups from `from` on that are zero, without one between them that is not.
std::size_t zerosAt(const std::array<unsigned, 8>& groups, std::size_t from) {
    const auto begin = groups.begin() + static_cast<std::ptrdiff_t>(from);
    return static_cast<std::size_t>(std::find_if(begin, groups.end(), [](unsigned group) { return group != 0; }) -
                                    begin);
}

/// Without leading zeros.
std::string hexOf(unsigned group) {
    constexpr int base = 16;
    std::array<char, 4> digits{};
    char* const end = std::to_chars(digits.begin(), digits.end(), group, base).ptr;
    return {digits.begin(), end};
}

/// In the one spelling of RFC 5952 §4: the first of the longest runs of zeros, if it has two groups or more, is "::".
std::string spelled(const platform::Ipv6Address& address) {
    std::array<unsigned, 8> groups{};
    for (std::size_t i = 0; i < groups.size(); ++i) {
        groups.at(i) = unsigned{address.bytes.at(2 * i)} << 8U | address.bytes.at(2 * i + 1);
    }
    std::size_t gap = groups.size();
    std::size_t gapLength = 1;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        if (const std::size_t zeros = zerosAt(groups, i); zeros > gapLength) {
            gap = i;
            gapLength = zeros;
        }
    }
    std::string text;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        if (i == gap) {
            text += "::";
            i += gapLength - 1;
            continue;
        }
        const bool isFirst = i == 0 || i == gap + gapLength;
        text += (isFirst ? "" : ":") + hexOf(groups.at(i));
    }
    return text;
}

/// Whether it can be the zone of a literal.
bool canNameAnInterface(const std::string& name) {
    return platform::parseIpAddress("fe80::1%" + name).has_value();
}

// --- ranks ---

EpochMilliseconds lastMet(const KnownAddress& address) {
    return std::max(address.came.value_or(EpochMilliseconds()), address.reached.value_or(EpochMilliseconds()));
}

/// Smaller is better. A moment is positive, so it has a negative. The text only makes an order of it.
auto rankOf(const KnownAddress& address, EpochMilliseconds now) {
    const EpochMilliseconds met = address.reached ? *address.reached : lastMet(address);
    return std::tuple(address.failures >= AddressBook::maxFailures, !address.reached, met > now, -toNumber(met),
                      address.host.text());
}

auto betterAt(EpochMilliseconds now) {
    return [now](const KnownAddress& one, const KnownAddress& other) { return rankOf(one, now) < rankOf(other, now); };
}

bool isTooOld(const KnownAddress& address, EpochMilliseconds now) {
    const std::chrono::days limit = address.host.isIpv6() ? AddressBook::maxIpv6Age : AddressBook::maxAge;
    const EpochMilliseconds met = lastMet(address);
    return met <= now && now - met > limit;
}

std::size_t ipv6CountOf(const std::vector<KnownAddress>& addresses) {
    return static_cast<std::size_t>(
        std::ranges::count_if(addresses, [](const KnownAddress& address) { return address.host.isIpv6(); }));
}

bool isAt(const KnownAddress& address, const HostAddress& host, const std::optional<NetworkId>& network) {
    return address.host.isSameAs(host) && address.network == network;
}

/// Of both kinds of addresses no more than there may be. The first stays.
void keepBest(std::vector<KnownAddress>& addresses, EpochMilliseconds now) {
    std::sort(addresses.begin() + 1, addresses.end(), betterAt(now));
    std::size_t ipv6Left = AddressBook::maxIpv6Addresses;
    std::erase_if(addresses, [&ipv6Left](const KnownAddress& address) {
        if (!address.host.isIpv6()) {
            return false;
        }
        const bool isOneTooMany = ipv6Left == 0;
        ipv6Left -= isOneTooMany ? 0 : 1;
        return isOneTooMany;
    });
    if (addresses.size() > AddressBook::maxAddresses) {
        addresses.erase(addresses.begin() + AddressBook::maxAddresses, addresses.end());
    }
}

// --- JSON ---

std::string textIn(const Json& object, const char* key) {
    const auto member = object.find(key);
    return member != object.end() && member->is_string() ? member->get<std::string>() : std::string();
}

/// 0 for what is no whole number of 64 bits.
std::int64_t numberOf(const Json& value) {
    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    const bool fits =
        value.is_number_integer() && (!value.is_number_unsigned() || value.get<std::uint64_t>() <= largest);
    return fits ? value.get<std::int64_t>() : 0;
}

std::int64_t numberIn(const Json& object, const char* key) {
    const auto member = object.find(key);
    return member != object.end() ? numberOf(*member) : 0;
}

/// Nothing for what is not behind the epoch.
std::optional<EpochMilliseconds> momentOf(std::int64_t number) {
    return number > 0 ? std::optional(fromEpochMilliseconds(number)) : std::nullopt;
}

std::int64_t numberOf(const std::optional<EpochMilliseconds>& moment) {
    return moment ? toNumber(*moment) : 0;
}

std::optional<KnownAddress> addressFrom(const Json& json) {
    if (!json.is_object()) {
        return std::nullopt;
    }
    std::optional<HostAddress> host = HostAddress::parse(textIn(json, addressKey), textIn(json, zoneKey));
    if (!host) {
        return std::nullopt;
    }
    const std::int64_t failures = std::clamp<std::int64_t>(numberIn(json, failuresKey), 0, AddressBook::maxFailures);
    KnownAddress address{.host = *std::move(host),
                         .mac = MacAddress::parse(textIn(json, macKey)),
                         .network = NetworkId::parse(textIn(json, networkKey)),
                         .came = momentOf(numberIn(json, cameKey)),
                         .reached = momentOf(numberIn(json, reachedKey)),
                         .failures = static_cast<int>(failures)};
    const bool wasMet = address.came || address.reached;
    return wasMet ? std::optional(std::move(address)) : std::nullopt;
}

Json toJson(const KnownAddress& address) {
    return {{addressKey, address.host.text()},
            {zoneKey, address.host.interface()},
            {macKey, address.mac ? address.mac->text() : ""},
            {networkKey, address.network ? address.network->text() : ""},
            {cameKey, numberOf(address.came)},
            {reachedKey, numberOf(address.reached)},
            {failuresKey, address.failures}};
}

/// The first of each place, as many as there may be.
std::vector<KnownAddress> addressesFrom(const Json& list) {
    std::vector<KnownAddress> addresses;
    for (const Json& item : list) {
        std::optional<KnownAddress> address = addressFrom(item);
        if (!address || addresses.size() == AddressBook::maxAddresses) {
            continue;
        }
        const bool isKnown = std::ranges::any_of(
            addresses, [&](const KnownAddress& earlier) { return isAt(earlier, address->host, address->network); });
        const bool isOneTooMany = address->host.isIpv6() && ipv6CountOf(addresses) == AddressBook::maxIpv6Addresses;
        if (!isKnown && !isOneTooMany) {
            addresses.push_back(*std::move(address));
        }
    }
    return addresses;
}

/// As the file has it: an interface only where the address means nothing without.
std::optional<ToldAddress> toldAddress(const HostAddress& host, std::int64_t port) {
    std::optional<HostAddress> bare = HostAddress::parse(host.literal());
    if (!bare || port <= 0 || !std::in_range<std::uint16_t>(port)) {
        return std::nullopt;
    }
    return ToldAddress{.host = *std::move(bare), .port = static_cast<std::uint16_t>(port)};
}

bool isPhoneKey(const PeerKey& phone) {
    const std::optional<platform::PublicKey> key = platform::PublicKey::fromBase64(phone.text());
    return key && key->peerKey() == phone;
}

} // namespace

// --- HostAddress ---

std::optional<HostAddress> HostAddress::parse(const std::string& literal, const std::string& interface) {
    const auto parsed = platform::parseIpAddress(literal);
    if (!parsed || (!interface.empty() && !canNameAnInterface(interface))) {
        return std::nullopt;
    }
    HostAddress host;
    host.interface_ = interface;
    std::optional<platform::Ipv4Address> v4;
    if (const auto* const v6 = std::get_if<platform::Ipv6Address>(&*parsed)) {
        if (!v6->zone.empty()) {
            host.interface_ = v6->zone;
        }
        v4 = platform::unmapped(*v6);
        host.text_ = spelled(*v6);
        host.isLinkLocalIpv6_ = holdsOnOneLink(*v6);
        if (!v4 && !isSingleHost(*v6)) {
            return std::nullopt;
        }
    } else {
        v4 = std::get<platform::Ipv4Address>(*parsed);
    }
    if (v4) {
        if (!isSingleHost(*v4)) {
            return std::nullopt;
        }
        host.text_ = platform::dottedDecimal(*v4);
    }
    const bool meansNothing = host.isLinkLocalIpv6_ && host.interface_.empty();
    return meansNothing ? std::nullopt : std::optional(std::move(host));
}

std::string HostAddress::literal() const {
    return isLinkLocalIpv6_ ? text_ + "%" + interface_ : text_;
}

bool HostAddress::isSameAs(const HostAddress& other) const noexcept {
    return text_ == other.text_ && (!isLinkLocalIpv6_ || interface_ == other.interface_);
}

// --- AddressBook: the file ---

AddressBook AddressBook::decode(ByteView text) {
    if (text.size() > maxFileBytes) {
        throw JsonError("the file is too large");
    }
    const Json file = parseJson(text, maxValues);
    if (!file.is_object()) {
        throw JsonError("expected an object");
    }
    AddressBook book;
    if (const auto phones = file.find(phonesKey); phones != file.end() && phones->is_object()) {
        book.readPhones(*phones);
    }
    if (const auto swept = file.find(sweptKey); swept != file.end() && swept->is_object()) {
        book.readSwept(*swept);
    }
    if (const auto moved = file.find(movedKey); moved != file.end() && moved->is_object()) {
        book.readMoved(*moved);
    }
    book.readTold(file);
    return book;
}

void AddressBook::readPhones(const Json& phones) {
    for (const auto& [text, list] : phones.items()) {
        if (phones_.size() == maxPhones) {
            return;
        }
        const PeerKey phone(text);
        if (!list.is_array() || !isPhoneKey(phone)) {
            continue;
        }
        if (Addresses addresses = addressesFrom(list); !addresses.empty()) {
            phones_.emplace(phone, std::move(addresses));
        }
    }
}

void AddressBook::readSwept(const Json& swept) {
    for (const auto& [text, value] : swept.items()) {
        const std::optional<NetworkId> network = NetworkId::parse(text);
        const std::optional<EpochMilliseconds> moment = momentOf(numberOf(value));
        if (network && moment && swept_.size() < maxSwept) {
            swept_.emplace(*network, *moment);
        }
    }
}

void AddressBook::readMoved(const Json& moved) {
    for (const auto& [text, value] : moved.items()) {
        const PeerKey phone(text);
        const std::optional<EpochMilliseconds> moment = momentOf(numberOf(value));
        if (isPhoneKey(phone) && moment && moved_.size() < maxPhones) {
            moved_.emplace(phone, *moment);
        }
    }
}

void AddressBook::readTold(const Json& file) {
    if (const std::optional<HostAddress> host = HostAddress::parse(textIn(file, toldIpKey))) {
        told_ = toldAddress(*host, numberIn(file, toldPortKey));
    }
}

std::string AddressBook::encode() const {
    Json phones = Json::object();
    for (const auto& [phone, addresses] : phones_) {
        Json& list = phones[phone.text()] = Json::array();
        for (const KnownAddress& address : addresses) {
            list.push_back(toJson(address));
        }
    }
    Json swept = Json::object();
    for (const auto& [network, moment] : swept_) {
        swept[network.text()] = toNumber(moment);
    }
    Json file{{phonesKey, std::move(phones)}, {sweptKey, std::move(swept)}};
    for (const auto& [phone, moment] : moved_) {
        file[movedKey][phone.text()] = toNumber(moment);
    }
    if (told_) {
        file[toldIpKey] = told_->host.literal();
        file[toldPortKey] = told_->port;
    }
    return prettyJson(file);
}

// --- AddressBook: learning ---

bool AddressBook::reached(const PeerKey& phone, const Meeting& meeting, EpochMilliseconds now) {
    return learn(phone, meeting, now, &KnownAddress::reached);
}

bool AddressBook::came(const PeerKey& phone, const Meeting& meeting, EpochMilliseconds now) {
    return learn(phone, meeting, now, &KnownAddress::came);
}

bool AddressBook::learn(const PeerKey& phone, const Meeting& meeting, EpochMilliseconds now, When when) {
    if (!isPhoneKey(phone) || now <= EpochMilliseconds()) {
        return false; // by a clock that was never set nothing can be said of when
    }
    KnownAddress address{
        .host = meeting.host, .mac = meeting.mac, .network = meeting.network, .came = {}, .reached = {}};
    const auto list = phones_.find(phone);
    if (list != phones_.end()) {
        const auto known = std::ranges::find_if(
            list->second, [&](const KnownAddress& one) { return isAt(one, meeting.host, meeting.network); });
        if (known != list->second.end()) {
            address = *known;
            address.host = meeting.host.interface().empty() ? known->host : meeting.host;
            address.mac = meeting.mac ? meeting.mac : known->mac;
            address.failures = when == &KnownAddress::reached ? 0 : known->failures;
            const std::optional<EpochMilliseconds> before = (*known).*when;
            if (before && *before <= now && now - *before < resolution && address == *known) {
                return false;
            }
            list->second.erase(known);
        }
    }
    address.*when = now;
    Addresses& addresses = phones_[phone];
    std::erase_if(addresses, [now](const KnownAddress& one) { return isTooOld(one, now); });
    addresses.insert(addresses.begin(), std::move(address));
    keepBest(addresses, now);
    makeRoomBeside(phone, now);
    return true;
}

/// The phone that was met longest ago goes, and before it one whose moments lie ahead.
void AddressBook::makeRoomBeside(const PeerKey& phone, EpochMilliseconds now) {
    const auto standing = [&](const std::pair<const PeerKey, Addresses>& one) {
        EpochMilliseconds met{};
        for (const KnownAddress& address : one.second) {
            met = std::max(met, lastMet(address));
        }
        return std::tuple(one.first == phone, met <= now, met);
    };
    while (phones_.size() > maxPhones) {
        phones_.erase(std::ranges::min_element(phones_, {}, standing));
    }
}

bool AddressBook::failed(const PeerKey& phone, const HostAddress& host, const std::optional<NetworkId>& network) {
    const auto list = phones_.find(phone);
    if (list == phones_.end()) {
        return false;
    }
    const auto known =
        std::ranges::find_if(list->second, [&](const KnownAddress& one) { return isAt(one, host, network); });
    if (known == list->second.end() || known->failures >= maxFailures) {
        return false;
    }
    ++known->failures;
    return true;
}

bool AddressBook::forget(const PeerKey& phone) {
    const bool wasKnown = phones_.erase(phone) > 0;
    return moved_.erase(phone) > 0 || wasKnown;
}

bool AddressBook::keepOnly(const std::vector<PeerKey>& phones) {
    const auto isOther = [&phones](const auto& one) { return std::ranges::find(phones, one.first) == phones.end(); };
    const bool hasForgotten = std::erase_if(phones_, isOther) > 0;
    return std::erase_if(moved_, isOther) > 0 || hasForgotten;
}

std::map<MacAddress, std::vector<PeerKey>> AddressBook::phonesByHardware(EpochMilliseconds now) const {
    std::map<MacAddress, std::vector<PeerKey>> found;
    for (const auto& [phone, addresses] : phones_) {
        for (const KnownAddress& address : addresses) {
            if (!address.mac || isTooOld(address, now)) {
                continue;
            }
            std::vector<PeerKey>& phones = found[*address.mac];
            if (std::ranges::find(phones, phone) == phones.end()) {
                phones.push_back(phone);
            }
        }
    }
    return found;
}

std::map<PeerKey, EpochMilliseconds> AddressBook::lastMeetings() const {
    std::map<PeerKey, EpochMilliseconds> meetings;
    for (const auto& [phone, addresses] : phones_) {
        for (const KnownAddress& address : addresses) {
            EpochMilliseconds& last = meetings[phone];
            last = std::max(last, lastMet(address));
        }
    }
    return meetings;
}

std::vector<KnownAddress> AddressBook::addressesOf(const PeerKey& phone, EpochMilliseconds now) const {
    const auto list = phones_.find(phone);
    if (list == phones_.end()) {
        return {};
    }
    Addresses addresses = list->second;
    std::erase_if(addresses, [now](const KnownAddress& address) { return isTooOld(address, now); });
    std::ranges::sort(addresses, betterAt(now));
    return addresses;
}

std::vector<KnownAddress> AddressBook::candidates(const PeerKey& phone, const Surroundings& here,
                                                  EpochMilliseconds now) const {
    Addresses addresses = addressesOf(phone, now);
    std::erase_if(addresses, [&here](const KnownAddress& address) {
        const bool isFromHere =
            address.network && std::ranges::find(here.networks, *address.network) != here.networks.end();
        const bool wasReachedFromHere = address.reached && isFromHere && !address.host.isLinkLocalIpv6();
        return !wasReachedFromHere && !here.isOnLink(address.host);
    });
    if (addresses.size() > maxCandidates) {
        addresses.erase(addresses.begin() + maxCandidates, addresses.end());
    }
    return addresses;
}

bool AddressBook::tell(const ToldAddress& told) {
    std::optional<ToldAddress> asKept = toldAddress(told.host, told.port);
    if (!asKept || told_ == asKept) {
        return false;
    }
    told_ = std::move(asKept);
    return true;
}

bool AddressBook::claimSweep(const NetworkId& network, EpochMilliseconds now) {
    if (now <= EpochMilliseconds()) {
        return false;
    }
    std::erase_if(swept_, [now](const auto& one) { return one.second > now || now - one.second >= sweepInterval; });
    if (swept_.contains(network) || swept_.size() == maxSwept) {
        return false;
    }
    swept_.emplace(network, now);
    return true;
}

bool AddressBook::noteSweep(const NetworkId& network, EpochMilliseconds now) {
    swept_.erase(network);
    return claimSweep(network, now);
}

bool AddressBook::mayMove(const PeerKey& phone, EpochMilliseconds now) const {
    AddressBook afterwards = *this;
    return afterwards.moved(phone, now);
}

bool AddressBook::moved(const PeerKey& phone, EpochMilliseconds now) {
    if (now <= EpochMilliseconds() || !isPhoneKey(phone)) {
        return false;
    }
    std::erase_if(moved_, [now](const auto& one) { return one.second > now || now - one.second >= moveInterval; });
    return moved_.size() < maxPhones && moved_.emplace(phone, now).second;
}

} // namespace orlinth::host
