#pragma once

#include "OrlinthHost/HostError.h"
#include "base/Json.h"
#include "base/StrongText.h"
#include "platform/FileSystem.h"

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace orlinth::host {

/// What can be set while the service runs, all of which takes effect at once. The rest, such as the port, is fixed at
/// its start and stands in config.toml or on the command line alone.
enum class SettingId {
    computerName,  ///< what this computer calls itself when it is paired
    defaultPhone,  ///< selector of the phone that is meant where none is named
    downloads,     ///< the folder for received files
    accept,        ///< whether the files of paired phones are taken
    clipboard,     ///< whether received texts go to the clipboard
    history,       ///< whether it is written what came and went
    notifications, ///< whether the desktop shows what came
    keepFree,      ///< bytes that stay free on the disk
    maxFile        ///< the largest file that is taken, bytes; 0: any
};

enum class AcceptSetting {
    always,
    never,
    ask ///< whoever can be asked
};

/// Text, flag, or bytes: SettingKind says which.
using SettingValue = std::variant<std::string, bool, std::int64_t>;

enum class SettingKind {
    text,   ///< at most maxPeerNameBytes
    folder, ///< an absolute path
    choice, ///< always, never or ask
    truth,
    size ///< bytes
};

/// One line of the table by which config.toml, settings.json, the flags of `serve` and the service's faces know the
/// settings.
struct SettingRule {
    SettingId id;
    const char* name;      ///< in settings.json and for the faces; in a table [phones."…"] too
    const char* table;     ///< in config.toml
    const char* key;       ///< there; in [serve] also the flag's name, without the dashes
    const char* otherwise; ///< what holds if nobody has set it, as config.toml would have it
    SettingKind kind;
    bool isReversed = false;  ///< config.toml and the flag say the opposite: `no-clipboard`
    bool isForPhones = false; ///< each phone may have its own

    /// "serve.no-clipboard".
    [[nodiscard]] std::string fullKey() const { return std::string(table) + "." + key; }
    /// Whether `serve` has a flag for it.
    [[nodiscard]] bool hasFlag() const { return std::string_view(table) == "serve"; }
};

[[nodiscard]] std::span<const SettingRule> settingRules() noexcept;
[[nodiscard]] const SettingRule& ruleOf(SettingId id) noexcept;
/// Null if there is no such setting.
[[nodiscard]] const SettingRule* findSettingRule(std::string_view name) noexcept;
[[nodiscard]] const SettingRule* findSettingRule(std::string_view table, std::string_view key) noexcept;

/// A setting of this computer, or of one phone.
struct SettingName {
    SettingId id{};
    PeerKey peerKey = {}; ///< empty: of this computer

    /// "accept", "phones.hSDw….accept".
    [[nodiscard]] std::string text() const;
    /// Nothing if there is no such setting.
    [[nodiscard]] static std::optional<SettingName> parse(std::string_view text);
    auto operator<=>(const SettingName&) const = default;
};

/// A setting that cannot be so.
class SettingError : public HostError {
public:
    enum class Case {
        unknownSetting,
        invalidValue,
        noSuchPhone,
        fixed, ///< by a flag, by config.toml, or because settings.json is of a later version
        notSaved
    };

    SettingError(Case which, std::string text, std::string hint = {})
        : HostError(std::move(text), std::move(hint)), case_(which) {}
    [[nodiscard]] Case which() const noexcept { return case_; }

private:
    Case case_;
};

/// The value as the service works with it: names without white space around them, "~/" as `home`, a size as bytes.
/// @throws SettingError::invalidValue, whose text goes on behind the setting's name: "must be always, never or ask"
[[nodiscard]] SettingValue checkedSetting(const SettingRule& rule, SettingValue value, const platform::Path& home);

/// What holds if nobody has set it; "" for a folder or a text.
[[nodiscard]] SettingValue usualSetting(const SettingRule& rule);

/// In JSON: a text, true or false, or a whole number. And back; nothing if it is none of these.
[[nodiscard]] Json toJson(const SettingValue& value);
[[nodiscard]] std::optional<SettingValue> settingValueFrom(const Json& json);

/// Of a value of the kind `choice`.
[[nodiscard]] AcceptSetting acceptSettingFrom(const SettingValue& value);

} // namespace orlinth::host
