#include "OrlinthHost/Service/LiveSettings.h"

#include "OrlinthCore/Pairing/DeviceInfo.h"
#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Service/DownloadsFolder.h"
#include "base/Text.h"
#include "platform/Blocking.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <set>
#include <utility>

namespace orlinth::host {

namespace {

using Case = SettingError::Case;

std::int64_t bytesFrom(const SettingValue& value) {
    const auto* const bytes = std::get_if<std::int64_t>(&value);
    return bytes != nullptr ? *bytes : 0;
}

Receiver::Reception::Approval approvalFor(AcceptSetting accept) {
    using Approval = Receiver::Reception::Approval;
    switch (accept) {
    case AcceptSetting::always:
        return Approval::given;
    case AcceptSetting::ask:
        return Approval::asked;
    case AcceptSetting::never:
        break;
    }
    return Approval::refused;
}

bool isEmptyText(const SettingValue& value) {
    const auto* const text = std::get_if<std::string>(&value);
    return text != nullptr && text->empty();
}

} // namespace

LiveSettings::LiveSettings(Home& home, SettingSources sources)
    : home_(home),
      settingsFile_(home.system.files, home.system.directories),
      usualFolder_(chooseDownloadsFolder(home, "").path),
      phonesInConfig_(sources.phonesInConfig),
      turns_(home.executor),
      sources_(std::move(sources)) {}

// What holds now

const GivenSettings* LiveSettings::inConfig(const PeerKey& peerKey) const {
    const auto phone = std::ranges::find_if(
        phonesInConfig_, [&](const PhoneInConfig& table) { return keyOf(table) == std::optional(peerKey); });
    return phone != phonesInConfig_.end() ? &phone->settings : nullptr;
}

/// Looked up each time: a phone may get another name.
std::optional<PeerKey> LiveSettings::keyOf(const PhoneInConfig& phone) const {
    try {
        const PeerKey key = resolvePeer(home_, phone.selector).peer_pubkey;
        const MutexLock guard(lock_);
        return meant_[phone.selector] = key;
    } catch (const HostError&) {
        const MutexLock guard(lock_);
        meant_.erase(phone.selector);
        return std::nullopt;
    } catch (const PeerStoreError&) {
        const MutexLock guard(lock_); // those who were paired are still served
        const auto meant = meant_.find(phone.selector);
        return meant != meant_.end() ? std::optional(meant->second) : std::nullopt;
    }
}

EffectiveSetting LiveSettings::effective(const SettingName& name) const {
    const GivenSettings* const ofPhone = name.peerKey.isEmpty() ? nullptr : inConfig(name.peerKey);
    const MutexLock guard(lock_);
    return sources_.effective(name, ofPhone);
}

bool LiveSettings::isOn(SettingId id) const {
    const EffectiveSetting setting = effective({.id = id});
    const auto* const value = std::get_if<bool>(&setting.value);
    return value != nullptr && *value;
}

platform::Path LiveSettings::folderFrom(const SettingValue& value) const {
    const auto* const text = std::get_if<std::string>(&value);
    return text != nullptr && !text->empty() ? platform::Path(*text) : usualFolder_;
}

Receiver::Reception LiveSettings::receptionOf(const PeerKey& peerKey) const {
    const GivenSettings* const ofPhone = inConfig(peerKey);
    const MutexLock guard(lock_);
    const auto value = [&](SettingId id) {
        lock_.assertHeld();
        return sources_.effective({.id = id, .peerKey = peerKey}, ofPhone).value;
    };
    return {.place = {.folder = folderFrom(value(SettingId::downloads)),
                      .limits = {.keepFreeBytes = bytesFrom(value(SettingId::keepFree)),
                                 .maxFileBytes = bytesFrom(value(SettingId::maxFile))}},
            .approval = approvalFor(acceptSettingFrom(value(SettingId::accept)))};
}

platform::Path LiveSettings::downloads() const {
    return folderFrom(effective({.id = SettingId::downloads}).value);
}

std::vector<platform::Path> LiveSettings::folders() const {
    std::vector<platform::Path> folders{downloads()};
    for (const SettingView& setting : all()) {
        const std::optional<SettingName> name = SettingName::parse(setting.name);
        if (name && name->id == SettingId::downloads && !name->peerKey.isEmpty()) {
            platform::Path folder = folderFrom(setting.value);
            if (std::ranges::find(folders, folder) == folders.end()) {
                folders.push_back(std::move(folder));
            }
        }
    }
    return folders;
}

bool LiveSettings::takesFiles() const {
    return std::ranges::any_of(all(), [](const SettingView& setting) {
        const std::optional<SettingName> name = SettingName::parse(setting.name);
        return name && name->id == SettingId::accept && acceptSettingFrom(setting.value) != AcceptSetting::never;
    });
}

std::string LiveSettings::computerName() const {
    const EffectiveSetting name = effective({.id = SettingId::computerName});
    const auto* const text = std::get_if<std::string>(&name.value);
    return text != nullptr && !text->empty() ? *text : DeviceInfo::hostnameString(home_.system.interfaces);
}

std::vector<SettingView> LiveSettings::all() const {
    std::set<SettingName> names;
    for (const SettingRule& rule : settingRules()) {
        names.insert({.id = rule.id});
    }
    for (const PhoneInConfig& phone : phonesInConfig_) {
        if (const std::optional<PeerKey> key = keyOf(phone)) {
            for (const auto& [id, given] : phone.settings) {
                names.insert({.id = id, .peerKey = *key});
            }
        }
    }
    {
        const MutexLock guard(lock_);
        for (const auto& [key, values] : sources_.file.phones) {
            for (const auto& [id, value] : values) {
                names.insert({.id = id, .peerKey = key});
            }
        }
    }
    std::vector<SettingView> views;
    for (const SettingName& name : names) {
        EffectiveSetting setting = effective(name);
        if (name.id == SettingId::downloads) {
            setting.value = std::filesystem::absolute(folderFrom(setting.value)).string();
        } else if (name.id == SettingId::computerName) {
            setting.value = computerName();
        }
        views.push_back(
            {.name = name.text(), .value = std::move(setting.value), .fixedBy = std::move(setting.fixedBy)});
    }
    return views;
}

std::vector<std::string> LiveSettings::warnings() const {
    std::vector<std::string> warnings;
    std::map<PeerKey, std::string> first; // where the phone is named
    for (const PhoneInConfig& phone : phonesInConfig_) {
        try {
            const PeerKey key = resolvePeer(home_, phone.selector).peer_pubkey;
            if (const auto [known, isNew] = first.emplace(key, phone.where); !isNew) {
                warnings.push_back(phone.where + ": '" + phone.selector + "' means the same phone as " + known->second +
                                   "; these settings have no effect");
            }
        } catch (const HostError& error) {
            warnings.push_back(phone.where + ": " + error.description() + "; these settings have no effect");
        } catch (const PeerStoreError&) {
            continue; // that is told in any case
        }
    }
    return warnings;
}

bool LiveSettings::isChangeable() const {
    const MutexLock guard(lock_);
    return !sources_.file.isOfLaterVersion;
}

// Folders that cannot be written just now

bool LiveSettings::canWaitFor(const platform::Path& folder) const {
    bool isChosen = false;
    for (const SettingView& setting : all()) {
        const std::optional<SettingName> name = SettingName::parse(setting.name);
        if (!name || name->id != SettingId::downloads ||
            folderFrom(setting.value) != std::filesystem::absolute(folder)) {
            continue;
        }
        const MutexLock guard(lock_);
        if (!setting.fixedBy.empty() || sources_.file.find(*name) == nullptr) {
            return false;
        }
        isChosen = true;
    }
    return isChosen;
}

void LiveSettings::keepProblem(const platform::Path& folder, std::string problem) {
    const MutexLock guard(lock_);
    problems_[std::filesystem::absolute(folder)] = std::move(problem);
}

void LiveSettings::forgetProblem(const platform::Path& folder) {
    const MutexLock guard(lock_);
    problems_.erase(std::filesystem::absolute(folder));
}

std::string LiveSettings::problem() const {
    {
        const MutexLock guard(lock_);
        if (problems_.empty()) {
            return "";
        }
    }
    const std::vector<platform::Path> used = folders();
    const MutexLock guard(lock_);
    for (const platform::Path& folder : used) {
        if (const auto problem = problems_.find(std::filesystem::absolute(folder)); problem != problems_.end()) {
            return problem->second;
        }
    }
    return "";
}

// Changes

SettingName LiveSettings::requireChangeable(const std::string& text) const {
    const std::optional<SettingName> name = SettingName::parse(text);
    if (!name) {
        throw SettingError(Case::unknownSetting, "there is no setting '" + forDisplay(text) + "'");
    }
    if (const EffectiveSetting setting = effective(*name); !setting.fixedBy.empty()) {
        throw SettingError(Case::fixed, "'" + forDisplay(text) + "' is set by " + setting.fixedBy,
                           "Change it there, and restart the service.");
    }
    return *name;
}

Task<> LiveSettings::set(std::string text, SettingValue value) {
    const SettingName name = requireChangeable(text);
    const platform::AsyncMutex::Guard turn = co_await turns_.lock();
    std::optional<SettingValue> wanted;
    if (!isEmptyText(value)) {
        try {
            wanted = checkedSetting(ruleOf(name.id), std::move(value), home_.system.directories.home);
        } catch (const SettingError& error) {
            throw SettingError(error.which(), "'" + forDisplay(text) + "' " + error.description());
        }
    }
    const auto step = [this, &name, &wanted] { use(save(name, wanted)); };
    co_await platform::blocking(home_.system.queues, step);
    if (name.id == SettingId::downloads && wanted) {
        forgetProblem(folderFrom(*wanted)); // it was found writable just now
    }
    if (onChanged) {
        onChanged();
    }
}

/// Where it may block. What lies there counts, not what was read before: somebody may have written into it.
SettingsFile::Content LiveSettings::save(const SettingName& name, const std::optional<SettingValue>& value) const {
    if (value) {
        requireUsable(name, *value);
    }
    try {
        SettingsFile::Content content = settingsFile_.load();
        if (content.isOfLaterVersion) {
            throw SettingError(Case::fixed,
                               settingsFile_.path().string() + " was written by a later version of Orlinth",
                               "Install that version, or move the file away.");
        }
        if (value) {
            content.set(name, *value);
        } else {
            content.remove(name);
        }
        settingsFile_.save(content);
        return content;
    } catch (const SettingsFileError& error) {
        throw SettingError(Case::notSaved, error.description(), SettingsFileError::hint);
    } catch (const platform::SystemError& error) {
        throw SettingError(Case::notSaved,
                           "cannot write " + settingsFile_.path().string() + ": " + error.description());
    }
}

/// In the same step, so that what is in the file holds, whatever becomes of whoever has asked for it.
void LiveSettings::use(SettingsFile::Content content) {
    std::string computerName;
    std::string defaultPhone;
    {
        const MutexLock guard(lock_);
        sources_.file = std::move(content);
        computerName = sources_.text(SettingId::computerName);
        defaultPhone = sources_.text(SettingId::defaultPhone);
    }
    home_.computerName = std::move(computerName);
    home_.defaultPhone = std::move(defaultPhone);
}

void LiveSettings::requireUsable(const SettingName& name, const SettingValue& value) const {
    const auto* const text = std::get_if<std::string>(&value);
    try {
        if (!name.peerKey.isEmpty() && home_.peers().loadBook().find(name.peerKey) == nullptr) {
            throw SettingError(Case::noSuchPhone,
                               "no phone with the key " + forDisplay(name.peerKey.text()) + " is paired");
        }
        if (name.id == SettingId::defaultPhone && text != nullptr) {
            static_cast<void>(resolvePeer(home_, *text));
        }
    } catch (const SettingError&) {
        throw;
    } catch (const HostError& error) {
        throw SettingError(Case::noSuchPhone, error.description(), error.hint());
    } catch (const PeerStoreError& error) {
        throw SettingError(Case::notSaved, error.description());
    }
    if (name.id != SettingId::downloads || text == nullptr) {
        return;
    }
    if (const std::optional<std::string> reason = objectionToDownloads(home_, *text)) {
        throw SettingError(Case::invalidValue, "received files cannot go to " + forDisplay(*text) + ": " + *reason,
                           "Choose another folder.");
    }
    try {
        requireWritableFolder(home_, *text);
    } catch (const HostError& error) {
        throw SettingError(Case::invalidValue, error.description(), "Choose another folder.");
    }
}

} // namespace orlinth::host
