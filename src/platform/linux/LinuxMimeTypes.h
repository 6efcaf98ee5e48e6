#pragma once

#include "platform/FileSystem.h"
#include "platform/MimeTypes.h"

#include <map>
#include <mutex>
#include <set>

namespace orlinth::platform {

/// The shared MIME database's table of file-name patterns, `mime/globs2` in each data folder (freedesktop.org shared
/// MIME-info, lines "weight:type:pattern[:flags]"). Only patterns of the form "*.ext" matter here.
///
/// The highest weight wins, then the more important folder, then the earlier line. "ts" and "wav" are not looked up
/// there. Loaded at the first question; safe from several threads.
class LinuxMimeTypes final : public MimeTypes {
public:
    /// `dataDirectories`: the most important first.
    explicit LinuxMimeTypes(std::vector<Path> dataDirectories) : dataDirectories_(std::move(dataDirectories)) {}
    [[nodiscard]] std::optional<std::string> typeForExtension(std::string_view extension) const override;

private:
    struct Entry {
        int weight = 0;
        std::string type;
    };
    using Table = std::map<std::string, Entry, std::less<>>;

    void load() const;
    void loadTable(std::string_view text) const;
    /// Takes one line in; a type whose patterns in the folders below do not count any more goes to `cleared`.
    void loadLine(std::string_view line, std::set<std::string, std::less<>>& cleared) const;

    std::vector<Path> dataDirectories_;
    mutable std::once_flag loaded_;
    mutable Table exact_;  ///< by extension, for patterns that tell the cases apart
    mutable Table folded_; ///< by lower-case extension
    mutable std::set<std::string, std::less<>> cleared_;
};

} // namespace orlinth::platform
