#include "OrlinthHost/Settings/SettingRules.h"

#include "OrlinthCore/Peers/PeerNames.h"
#include "OrlinthHost/SizeText.h"
#include "base/Text.h"

#include <algorithm>
#include <array>
#include <utility>

namespace orlinth::host {

namespace {

constexpr std::array rules{
    SettingRule{.id = SettingId::computerName,
                .name = "name",
                .table = "id",
                .key = "name",
                .otherwise = "",
                .kind = SettingKind::text},
    SettingRule{.id = SettingId::defaultPhone,
                .name = "to",
                .table = "send",
                .key = "to",
                .otherwise = "",
                .kind = SettingKind::text},
    SettingRule{.id = SettingId::downloads,
                .name = "dir",
                .table = "serve",
                .key = "dir",
                .otherwise = "",
                .kind = SettingKind::folder,
                .isForPhones = true},
    SettingRule{.id = SettingId::accept,
                .name = "accept",
                .table = "serve",
                .key = "accept",
                .otherwise = "always",
                .kind = SettingKind::choice,
                .isForPhones = true},
    SettingRule{.id = SettingId::clipboard,
                .name = "clipboard",
                .table = "serve",
                .key = "no-clipboard",
                .otherwise = "false",
                .kind = SettingKind::truth,
                .isReversed = true},
    SettingRule{.id = SettingId::history,
                .name = "history",
                .table = "serve",
                .key = "history",
                .otherwise = "true",
                .kind = SettingKind::truth},
    SettingRule{.id = SettingId::notifications,
                .name = "notifications",
                .table = "serve",
                .key = "notifications",
                .otherwise = "true",
                .kind = SettingKind::truth},
    SettingRule{.id = SettingId::keepFree,
                .name = "keep-free",
                .table = "serve",
                .key = "keep-free",
                .otherwise = "512M",
                .kind = SettingKind::size},
    SettingRule{.id = SettingId::maxFile,
                .name = "max-file",
                .table = "serve",
                .key = "max-file",
                .otherwise = "0",
                .kind = SettingKind::size},
};

constexpr std::string_view phonesPrefix = "phones.";

constexpr std::array<std::pair<const char*, AcceptSetting>, 3> accepts{std::pair{"always", AcceptSetting::always},
                                                                       std::pair{"never", AcceptSetting::never},
                                                                       std::pair{"ask", AcceptSetting::ask}};

[[noreturn]] void refuse(const char* text) {
    throw SettingError(SettingError::Case::invalidValue, text);
}

const std::string& checkedText(const SettingValue& value) {
    const auto* const text = std::get_if<std::string>(&value);
    if (text == nullptr || trimmed(*text).empty()) {
        refuse("must be one text, not empty");
    }
    if (!isUtf8(*text)) {
        refuse("must be in UTF-8");
    }
    return *text;
}

std::string checkedName(const SettingValue& value) {
    std::string name = trimmed(checkedText(value));
    if (!isUsableName(name)) {
        static_assert(maxPeerNameBytes == 255);
        refuse("must be at most 255 bytes, without control characters");
    }
    return name;
}

/// One way to write each folder: those that are written differently count as different.
std::string withoutEndingSlash(std::string path) {
    while (path.size() > 1 && path.ends_with('/')) {
        path.pop_back();
    }
    return path;
}

std::string checkedFolder(const SettingValue& value, const platform::Path& home) {
    const std::string& text = checkedText(value);
    if (text.find('\0') != std::string::npos) {
        refuse("may not contain a null character");
    }
    if (!home.empty() && (text == "~" || text.starts_with("~/"))) {
        return withoutEndingSlash((home / platform::Path(text.substr(1)).relative_path()).string());
    }
    if (!text.starts_with('/')) {
        refuse("must be a path that begins with / or ~/");
    }
    return withoutEndingSlash(text);
}

std::string checkedChoice(const SettingValue& value) {
    const auto* const text = std::get_if<std::string>(&value);
    if (text == nullptr || std::ranges::none_of(accepts, [text](const auto& one) { return *text == one.first; })) {
        refuse("must be always, never or ask");
    }
    return *text;
}

std::int64_t checkedSize(const SettingValue& value) {
    if (const auto* const bytes = std::get_if<std::int64_t>(&value); bytes != nullptr && *bytes >= 0) {
        return *bytes;
    }
    const auto* const text = std::get_if<std::string>(&value);
    const std::optional<std::int64_t> bytes = text != nullptr ? parseSize(*text) : std::nullopt;
    if (!bytes) {
        refuse("must be a size, such as 512M or 1.5G");
    }
    return *bytes;
}

} // namespace

std::span<const SettingRule> settingRules() noexcept {
    return rules;
}

const SettingRule& ruleOf(SettingId id) noexcept {
    static_assert([] {
        for (std::size_t i = 0; i < rules.size(); ++i) {
            if (static_cast<std::size_t>(rules[i].id) != i) { // NOLINT(*-constant-array-index)
                return false;
            }
        }
        return true;
    }());
    return rules.at(static_cast<std::size_t>(id));
}

const SettingRule* findSettingRule(std::string_view name) noexcept {
    const auto* const found = std::ranges::find(rules, name, &SettingRule::name);
    return found != rules.end() ? &*found : nullptr;
}

const SettingRule* findSettingRule(std::string_view table, std::string_view key) noexcept {
    const auto* const found =
        std::ranges::find_if(rules, [&](const SettingRule& rule) { return table == rule.table && key == rule.key; });
    return found != rules.end() ? &*found : nullptr;
}

std::string SettingName::text() const {
    const std::string name = ruleOf(id).name;
    return peerKey.isEmpty() ? name : std::string(phonesPrefix) + peerKey.text() + "." + name;
}

std::optional<SettingName> SettingName::parse(std::string_view text) {
    PeerKey peerKey;
    const std::size_t dot = text.rfind('.');
    const bool isOfPhone = text.starts_with(phonesPrefix) && dot > phonesPrefix.size();
    if (isOfPhone) {
        peerKey = PeerKey(std::string(text.substr(phonesPrefix.size(), dot - phonesPrefix.size())));
        text = text.substr(dot + 1);
    }
    const SettingRule* const rule = findSettingRule(text);
    if (rule == nullptr || (isOfPhone && !rule->isForPhones)) {
        return std::nullopt;
    }
    return SettingName{.id = rule->id, .peerKey = std::move(peerKey)};
}

SettingValue checkedSetting(const SettingRule& rule, SettingValue value, const platform::Path& home) {
    switch (rule.kind) {
    case SettingKind::text:
        return checkedName(value);
    case SettingKind::folder:
        return checkedFolder(value, home);
    case SettingKind::choice:
        return checkedChoice(value);
    case SettingKind::size:
        return checkedSize(value);
    case SettingKind::truth:
        break;
    }
    if (!std::holds_alternative<bool>(value)) {
        refuse("must be true or false");
    }
    return value;
}

SettingValue usualSetting(const SettingRule& rule) {
    switch (rule.kind) {
    case SettingKind::truth:
        return (std::string_view(rule.otherwise) == "true") != rule.isReversed;
    case SettingKind::size:
        return parseSize(rule.otherwise).value_or(0);
    case SettingKind::text:
    case SettingKind::folder:
    case SettingKind::choice:
        break;
    }
    return std::string(rule.otherwise);
}

Json toJson(const SettingValue& value) {
    return std::visit([](const auto& plain) -> Json { return plain; }, value);
}

std::optional<SettingValue> settingValueFrom(const Json& json) {
    if (json.is_string()) {
        return json.get<std::string>();
    }
    if (json.is_boolean()) {
        return json.get<bool>();
    }
    if (!json.is_number_integer() || (json.is_number_unsigned() && json.get<std::int64_t>() < 0)) {
        return std::nullopt;
    }
    return json.get<std::int64_t>();
}

AcceptSetting acceptSettingFrom(const SettingValue& value) {
    const auto* const text = std::get_if<std::string>(&value);
    for (const auto& [name, accept] : accepts) {
        if (text != nullptr && *text == name) {
            return accept;
        }
    }
    return AcceptSetting::never; // of a value that was not checked nothing is taken
}

} // namespace orlinth::host
