#include "platform/WholeFile.h"

#include "base/Hex.h"
#include "platform/Crypto.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <array>
#include <utility>

namespace orlinth::platform {
namespace {

/// Removes the temporary file unless it was renamed into place. `Place` is where its name, or its path, means
/// something.
template <typename Place, typename Name>
class TemporaryFile {
public:
    TemporaryFile(Place& place, Name name) : place_(place), name_(std::move(name)) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (!renamed_) {
            try {
                place_.remove(name_);
            } catch (const std::exception&) {
                // Its name is fresh, so what stays behind is in nobody's way; the failure that led here is reported.
            }
        }
    }

    void renameTo(const Name& target) {
        place_.rename(name_, target);
        renamed_ = true;
    }

private:
    Place& place_;
    Name name_;
    bool renamed_ = false;
};

constexpr std::string_view temporaryPrefix = ".orlinth-";
constexpr std::string_view temporarySuffix = ".tmp";
constexpr std::size_t temporaryRandomBytes = 8;

bool isTemporaryName(std::string_view name) {
    constexpr std::string_view hexDigits = "0123456789abcdef";
    if (!name.starts_with(temporaryPrefix) || !name.ends_with(temporarySuffix) ||
        name.size() != temporaryPrefix.size() + 2 * temporaryRandomBytes + temporarySuffix.size()) {
        return false;
    }
    return name.substr(temporaryPrefix.size(), 2 * temporaryRandomBytes).find_first_not_of(hexDigits) ==
           std::string_view::npos;
}

/// Fills a new file, closes it and gives it the name of what it replaces.
template <typename Place, typename Name>
void replaceBy(std::unique_ptr<File> file, ByteView content, Flush flush, TemporaryFile<Place, Name>& temporary,
               const Name& target) {
    file->write(content);
    if (flush != Flush::later) {
        file->flush();
    }
    file.reset();
    temporary.renameTo(target);
}

} // namespace

Bytes readWholeFile(FileSystem& files, const Path& path) {
    const std::unique_ptr<File> file = files.open(path, OpenMode::read);
    // Room for all of it and a byte more, so that one read meets the end. The size is a hint: files of /proc have none.
    constexpr std::int64_t leastStep = 4096;
    constexpr std::int64_t mostStep = 1 << 20;
    const auto step = static_cast<std::size_t>(std::clamp(file->status().size, leastStep - 1, mostStep) + 1);
    Bytes content;
    for (;;) {
        const std::size_t before = content.size();
        content.resize(before + step);
        const std::size_t count = file->read(MutableBytes(content).subspan(before));
        content.resize(before + count);
        if (count < step) {
            return content;
        }
    }
}

void writeWholeFile(FileSystem& files, const Path& path, ByteView content, std::uint32_t permissions, Flush flush,
                    Links links) {
    const Path target = links == Links::follow ? files.resolveLinks(path) : path;
    const Path temporaryPath = target.parent_path() / temporaryName().text();
    std::unique_ptr<File> file = files.open(temporaryPath, OpenMode::createNew, Links::refuse, permissions);
    TemporaryFile temporary(files, temporaryPath);
    replaceBy(std::move(file), content, flush, temporary, target);
    if (flush == Flush::now) {
        files.flushDirectory(target.parent_path());
    }
}

void writeWholeFile(Folder& folder, const FileName& name, ByteView content, std::uint32_t permissions, Flush flush) {
    const FileName fresh = temporaryName();
    std::unique_ptr<File> file = folder.open(fresh, OpenMode::createNew, permissions);
    TemporaryFile temporary(folder, fresh);
    replaceBy(std::move(file), content, flush, temporary, name);
    if (flush == Flush::now) {
        folder.flush();
    }
}

FileName temporaryName() {
    std::array<std::byte, temporaryRandomBytes> random{};
    randomBytes(random);
    std::string name(temporaryPrefix);
    name += hexEncode(random);
    name += temporarySuffix;
    return FileName(std::move(name));
}

void removeTemporaryFiles(Folder& folder, EpochNanoseconds limit) {
    for (const std::string& text : folder.list()) {
        if (!isTemporaryName(text)) {
            continue;
        }
        const FileName name(text);
        try {
            const std::optional<FileStatus> status = folder.status(name);
            if (status && status->kind == FileKind::regular && folder.isOwn(*status) && status->modifiedAt <= limit) {
                folder.remove(name);
            }
        } catch (const SystemError&) {
            continue; // it is in nobody's way
        }
    }
}

namespace {

Path lockOf(const Path& path) {
    return Path(path) += ".lock";
}

std::unique_ptr<File> openLock(FileSystem& files, const Path& lock) {
    return files.open(lock, OpenMode::openOrCreate, Links::refuse, 0600);
}

} // namespace

FileLock::FileLock(FileSystem& files, const Path& path) : file_(openLock(files, lockOf(path))) {
    file_->lock();
}

KeptFileLock::KeptFileLock(FileSystem& files, const Path& path) : files_(files), path_(lockOf(path)) {}

KeptFileLock::Turn KeptFileLock::take() {
    if (file_) {
        const std::optional<FileStatus> named = files_.status(path_);
        if (!named || !isSameFile(*named, opened_)) { // the others lock another file by now
            file_.reset();
        }
    }
    if (!file_) {
        std::unique_ptr<File> file = openLock(files_, path_);
        opened_ = file->status();
        file_ = std::move(file);
    }
    file_->lock();
    return Turn(*file_);
}

} // namespace orlinth::platform
