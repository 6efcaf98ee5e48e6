#pragma once

#include "OrlinthHost/Settings/SettingRules.h"
#include "base/Error.h"
#include "base/Json.h"
#include "platform/Directories.h"

#include <cstddef>
#include <map>
#include <string>

namespace orlinth::host {

/// settings.json is there and cannot be used; the text says which file, and why.
class SettingsFileError : public Error {
public:
    explicit SettingsFileError(std::string text) : Error(std::move(text)) {}
    /// What a person can do about it.
    static constexpr const char* hint = "Correct the file, or move it away to return to the usual settings.";
};

/// The settings that the service owns: a file beside the peer store, "settings.json", for the owner alone (0600),
/// replaced whole. What nobody has set is not in it.
///
///     {
///       "accept" : "ask",
///       "dir" : "/home/ann/Incoming",
///       "format" : 1,
///       "phones" : {
///         "hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=" : {
///           "accept" : "always"
///         }
///       }
///     }
///
/// Members that are not known are kept. A file of a later format is read for what is known of it, and never written;
/// nor is one that makes no sense.
///
/// Threading: any thread. Calls block on the disk. One writer, the service; any number of readers.
class SettingsFile {
public:
    static constexpr const char* fileName = "settings.json";
    static constexpr std::int64_t format = 1;
    /// A larger file is none of ours.
    static constexpr std::size_t maxBytes = std::size_t{256} << 10;

    using Values = std::map<SettingId, SettingValue>;
    struct Content {
        Values values = {};
        std::map<PeerKey, Values> phones = {};
        Json whole = Json::object();   ///< as it was read
        bool isOfLaterVersion = false; ///< and so may not be written

        /// Null if it is not set there.
        [[nodiscard]] const SettingValue* find(const SettingName& name) const;
        void set(const SettingName& name, SettingValue value);
        void remove(const SettingName& name);
    };

    /// `files` outlives this. Touches no file.
    SettingsFile(platform::FileSystem& files, const platform::UserDirectories& directories);

    [[nodiscard]] const platform::Path& path() const noexcept { return path_; }
    /// No file: nothing is set. @throws SettingsFileError; platform::SystemError
    [[nodiscard]] Content load() const;
    /// Survives a power cut unless the disk fails at the last step, which is no error here.
    /// @throws platform::SystemError, and then the file is as before; SettingsFileError if it would be too large
    void save(const Content& content) const;

    /// `home` is what "~/" stands for. @throws SettingsFileError, whose text goes on behind the file's name
    [[nodiscard]] static Content decode(ByteView text, const platform::Path& home);
    [[nodiscard]] static std::string encode(const Content& content);

private:
    platform::FileSystem& files_;
    platform::Path path_;
    platform::Path home_;
};

} // namespace orlinth::host
