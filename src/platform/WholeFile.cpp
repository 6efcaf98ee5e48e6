#include "platform/WholeFile.h"

#include "base/Hex.h"
#include "platform/Crypto.h"

#include <algorithm>
#include <array>

namespace orlinth::platform {
namespace {

/// Removes the temporary file unless it was renamed into place.
class TemporaryFile {
public:
    TemporaryFile(FileSystem& files, Path path) : files_(files), path_(std::move(path)) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (!renamed_) {
            try {
                files_.remove(path_);
            } catch (const std::exception&) {
                // Its name is fresh, so what stays behind is in nobody's way; the failure that led here is reported.
            }
        }
    }

    [[nodiscard]] const Path& path() const noexcept { return path_; }
    void renameTo(const Path& target) {
        files_.rename(path_, target);
        renamed_ = true;
    }

private:
    FileSystem& files_;
    Path path_;
    bool renamed_ = false;
};

Path freshNameBeside(const Path& path) {
    std::array<std::byte, 8> random{};
    randomBytes(random);
    return path.parent_path() / ("." + hexEncode(random) + ".tmp");
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

void writeWholeFile(FileSystem& files, const Path& path, ByteView content, std::uint32_t permissions, Flush flush) {
    const Path target = files.resolveLinks(path);
    const Path temporaryPath = freshNameBeside(target);
    std::unique_ptr<File> file = files.open(temporaryPath, OpenMode::createNew, Links::refuse, permissions);
    TemporaryFile temporary(files, temporaryPath);
    file->write(content);
    if (flush != Flush::later) {
        file->flush();
    }
    file.reset();
    temporary.renameTo(target);
    if (flush == Flush::now) {
        files.flushDirectory(target.parent_path());
    }
}

FileLock::FileLock(FileSystem& files, const Path& path)
    : file_(files.open(Path(path) += ".lock", OpenMode::openOrCreate, Links::refuse, 0600)) {
    file_->lock();
}

} // namespace orlinth::platform
