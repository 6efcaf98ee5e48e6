#include "OrlinthHost/Settings/SettingsFile.h"

#include "OrlinthCore/SecureChannel/KeyVault.h"
#include "base/Text.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <optional>
#include <utility>

namespace orlinth::host {

namespace {

constexpr const char* formatKey = "format";
constexpr const char* phonesKey = "phones";
constexpr std::uint32_t ownerOnly = 0600;
constexpr std::uint32_t ownerOnlyFolder = 0700;

/// Of a file of a later version what is not understood does not count.
SettingsFile::Values valuesIn(const Json& object, const std::string& prefix, bool isLenient,
                              const platform::Path& home) {
    SettingsFile::Values values;
    for (const SettingRule& rule : settingRules()) {
        const auto member = object.find(rule.name);
        if (member == object.end() || (!prefix.empty() && !rule.isForPhones)) {
            continue;
        }
        try {
            const std::optional<SettingValue> value = settingValueFrom(*member);
            if (!value) {
                throw SettingError(SettingError::Case::invalidValue, "must be a text, true, false, or a whole number");
            }
            values[rule.id] = checkedSetting(rule, *value, home);
        } catch (const SettingError& error) {
            if (!isLenient) {
                throw SettingsFileError(": '" + prefix + rule.name + "' " + error.description());
            }
        }
    }
    return values;
}

/// So that the object says this, and what else it said.
void putValues(Json& object, const SettingsFile::Values& values) {
    for (const SettingRule& rule : settingRules()) {
        const auto value = values.find(rule.id);
        if (value != values.end()) {
            object[rule.name] = toJson(value->second);
        } else {
            object.erase(rule.name);
        }
    }
}

} // namespace

const SettingValue* SettingsFile::Content::find(const SettingName& name) const {
    const Values* of = &values;
    if (!name.peerKey.isEmpty()) {
        const auto phone = phones.find(name.peerKey);
        if (phone == phones.end()) {
            return nullptr;
        }
        of = &phone->second;
    }
    const auto value = of->find(name.id);
    return value != of->end() ? &value->second : nullptr;
}

void SettingsFile::Content::set(const SettingName& name, SettingValue value) {
    Values& of = name.peerKey.isEmpty() ? values : phones[name.peerKey];
    of[name.id] = std::move(value);
}

void SettingsFile::Content::remove(const SettingName& name) {
    if (name.peerKey.isEmpty()) {
        values.erase(name.id);
    } else if (const auto phone = phones.find(name.peerKey); phone != phones.end()) {
        phone->second.erase(name.id);
        if (phone->second.empty()) {
            phones.erase(phone);
        }
    }
}

SettingsFile::SettingsFile(platform::FileSystem& files, const platform::UserDirectories& directories)
    : files_(files), path_(directories.data / KeyVault::defaultDirectoryName / fileName), home_(directories.home) {}

SettingsFile::Content SettingsFile::load() const {
    const std::string which = "settings file " + path_.string();
    const std::optional<platform::FileStatus> status = files_.status(path_);
    if (!status) {
        return {};
    }
    if (status->kind != platform::FileKind::regular) {
        throw SettingsFileError(which + ": it is no regular file"); // a pipe might never end
    }
    Bytes text(maxBytes + 1);
    text.resize(files_.open(path_, platform::OpenMode::read)->read(text));
    try {
        return decode(text, home_);
    } catch (const SettingsFileError& error) {
        throw SettingsFileError(which + error.description());
    }
}

void SettingsFile::save(const Content& content) const {
    const std::string text = encode(content);
    if (text.size() > maxBytes) {
        throw SettingsFileError("settings file " + path_.string() + ": it would be larger than " +
                                std::to_string(maxBytes >> 10) + " KiB");
    }
    files_.createDirectories(path_.parent_path(), ownerOnlyFolder);
    const platform::Path target = files_.resolveLinks(path_);
    platform::writeWholeFile(files_, target, asBytes(text), ownerOnly, platform::Flush::content);
    try {
        files_.flushDirectory(target.parent_path());
    } catch (const platform::SystemError&) {
        // the new file is there all the same: whoever was told otherwise would go on with what it no longer says
    }
}

SettingsFile::Content SettingsFile::decode(ByteView text, const platform::Path& home) {
    if (text.size() > maxBytes) {
        throw SettingsFileError(": larger than " + std::to_string(maxBytes >> 10) + " KiB");
    }
    Content content;
    try {
        content.whole = parseJson(text);
        const std::int64_t written = requireInt64(content.whole, formatKey);
        if (written < 1) {
            throw SettingsFileError(": there is no format " + std::to_string(written));
        }
        content.isOfLaterVersion = written > format;
    } catch (const JsonError& error) {
        throw SettingsFileError(": " + forDisplay(error.description()));
    }
    content.values = valuesIn(content.whole, "", content.isOfLaterVersion, home);
    const auto phones = content.whole.find(phonesKey);
    if (phones == content.whole.end()) {
        return content;
    }
    if (!phones->is_object()) {
        if (content.isOfLaterVersion) {
            return content;
        }
        throw SettingsFileError(": 'phones' must be an object");
    }
    for (const auto& [key, object] : phones->items()) {
        if (!object.is_object()) {
            if (content.isOfLaterVersion) {
                continue;
            }
            throw SettingsFileError(": 'phones." + forDisplay(key) + "' must be an object");
        }
        Values values = valuesIn(object, "phones." + forDisplay(key) + ".", content.isOfLaterVersion, home);
        if (!values.empty()) {
            content.phones.emplace(PeerKey(key), std::move(values));
        }
    }
    return content;
}

std::string SettingsFile::encode(const Content& content) {
    Json whole = content.whole;
    whole[formatKey] = format;
    putValues(whole, content.values);
    Json phones = whole.contains(phonesKey) ? whole[phonesKey] : Json::object();
    for (const auto& [key, object] : phones.items()) {
        if (!content.phones.contains(PeerKey(key))) {
            putValues(object, {});
        }
    }
    for (const auto& [key, values] : content.phones) {
        Json& object = phones[key.text()];
        if (object.is_null()) { // it is new
            object = Json::object();
        }
        putValues(object, values);
    }
    for (auto phone = phones.begin(); phone != phones.end();) {
        phone = phone->empty() ? phones.erase(phone) : std::next(phone);
    }
    if (phones.empty()) {
        whole.erase(phonesKey);
    } else {
        whole[phonesKey] = std::move(phones);
    }
    return prettyJson(whole);
}

} // namespace orlinth::host
