#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Settings/SettingSources.h"
#include "OrlinthHost/Settings/SettingView.h"
#include "base/Mutex.h"
#include "platform/AsyncMutex.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// The settings of a running service: whoever needs one asks for it each time, so that a change takes effect with the
/// next file, text or offer. Only this writes settings.json.
///
/// Threading: set() and onChanged on the home's executor; everything else on any thread. Some calls read the peer
/// store.
class LiveSettings {
public:
    /// `home` outlives this. Looks at the user's folders.
    LiveSettings(Home& home, SettingSources sources);
    LiveSettings(const LiveSettings&) = delete;
    LiveSettings& operator=(const LiveSettings&) = delete;

    // ---- what holds now

    /// Where the files of this phone go, what is let in, and who is asked.
    [[nodiscard]] Receiver::Reception receptionOf(const PeerKey& peerKey) const;
    /// The folder for files of phones that have none of their own.
    [[nodiscard]] platform::Path downloads() const;
    /// That, and those of single phones, each once.
    [[nodiscard]] std::vector<platform::Path> folders() const;
    /// Whether any phone's files might be taken.
    [[nodiscard]] bool takesFiles() const;
    [[nodiscard]] bool writesClipboard() const { return isOn(SettingId::clipboard); }
    [[nodiscard]] bool keepsHistory() const { return isOn(SettingId::history); }
    [[nodiscard]] bool showsNotifications() const { return isOn(SettingId::notifications); }
    /// What this computer calls itself: its host name, unless somebody has set another one.
    [[nodiscard]] std::string computerName() const;
    /// Every setting of this computer, and of single phones those that somebody has set.
    [[nodiscard]] std::vector<SettingView> all() const;
    /// What of config.toml has no effect, as sentences: tables of phones that are not paired, and all but the first of
    /// those that mean the same phone.
    [[nodiscard]] std::vector<std::string> warnings() const;
    /// Whether settings.json can be written by this version.
    [[nodiscard]] bool isChangeable() const;

    // ---- folders that cannot be written just now

    /// Whether the service does its work although this folder cannot be written: somebody who could choose another one
    /// while it runs has chosen this. True of those in settings.json alone.
    [[nodiscard]] bool canWaitFor(const platform::Path& folder) const;
    /// It cannot be written, for this reason; until forgetProblem(), or until no setting names it any more.
    void keepProblem(const platform::Path& folder, std::string problem);
    void forgetProblem(const platform::Path& folder);
    /// "" if there is none.
    [[nodiscard]] std::string problem() const;

    // ---- changes

    /// Told when a setting has changed. May be empty.
    std::function<void()> onChanged;

    /// From now on, and after a restart. An empty text: as usual again. If it cannot be saved, nothing has changed.
    /// Several calls take their turns.
    /// @throws SettingError; platform::Cancelled
    [[nodiscard]] Task<> set(std::string name, SettingValue value);

private:
    [[nodiscard]] bool isOn(SettingId id) const;
    [[nodiscard]] EffectiveSetting effective(const SettingName& name) const;
    [[nodiscard]] platform::Path folderFrom(const SettingValue& value) const;
    [[nodiscard]] const GivenSettings* inConfig(const PeerKey& peerKey) const;
    [[nodiscard]] std::optional<PeerKey> keyOf(const PhoneInConfig& phone) const;
    // by set()
    [[nodiscard]] SettingName requireChangeable(const std::string& name) const;
    [[nodiscard]] SettingsFile::Content save(const SettingName& name, const std::optional<SettingValue>& value) const;
    void use(SettingsFile::Content content);
    void requireUsable(const SettingName& name, const SettingValue& value) const;

    Home& home_;
    const SettingsFile settingsFile_;
    const platform::Path usualFolder_;
    const std::vector<PhoneInConfig> phonesInConfig_;
    platform::AsyncMutex turns_;
    mutable Mutex lock_;
    SettingSources sources_ ORLINTH_GUARDED_BY(lock_);
    /// Which phones the tables of config.toml meant when the peer store could last be read.
    mutable std::map<std::string, PeerKey> meant_ ORLINTH_GUARDED_BY(lock_);
    std::map<platform::Path, std::string> problems_ ORLINTH_GUARDED_BY(lock_); ///< by folder, absolute
};

} // namespace orlinth::host
