#include "OrlinthHost/Phones/RemovedPeers.h"

#include "OrlinthHost/HostError.h"
#include "base/Json.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <algorithm>
#include <utility>

namespace orlinth::host {

namespace {

constexpr const char* listKey = "removed";
constexpr std::uint32_t ownerOnly = 0600;

std::vector<platform::PublicKey> decode(const Json& json) {
    std::vector<platform::PublicKey> keys;
    for (const Json& item : requireArray(json, listKey)) {
        auto key = item.is_string() ? platform::PublicKey::fromBase64(item.get<std::string>()) : std::nullopt;
        if (!key) {
            throw JsonError("an entry is not the Base64 of 32 bytes");
        }
        keys.push_back(std::move(*key));
    }
    return keys;
}

Bytes encode(const std::vector<platform::PublicKey>& keys) {
    Json list = Json::array();
    for (const platform::PublicKey& key : keys) {
        list.push_back(key.base64());
    }
    const std::string text = prettyJson({{listKey, std::move(list)}});
    return toBytes(text);
}

HostError cannot(const char* what, const platform::Path& file, const std::exception& error) {
    return HostError(std::string("cannot ") + what + " the list of removed phones: " + describe(error),
                     "It is " + file.string() +
                         ". If it is damaged, move it away: the phones in it are then not told any more that they were "
                         "removed.");
}

} // namespace

RemovedPeers::RemovedPeers(platform::FileSystem& files, platform::Path directory)
    : files_(files), file_(std::move(directory) / fileName) {}

std::vector<platform::PublicKey> RemovedPeers::load() const {
    try {
        if (!files_.status(file_)) {
            return {};
        }
        return decode(parseJson(platform::readWholeFile(files_, file_)));
    } catch (const Error& error) {
        throw cannot("read", file_, error);
    }
}

void RemovedPeers::add(const platform::PublicKey& key) {
    change([&key](std::vector<platform::PublicKey>& keys) {
        std::erase(keys, key);
        keys.push_back(key);
        if (keys.size() > maxKeys) {
            keys.erase(keys.begin(), keys.end() - maxKeys);
        }
        return true;
    });
}

void RemovedPeers::forget(const platform::PublicKey& key) {
    if (load().empty()) {
        return;
    }
    change([&key](std::vector<platform::PublicKey>& keys) { return std::erase(keys, key) > 0; });
}

void RemovedPeers::change(const std::function<bool(std::vector<platform::PublicKey>&)>& change) {
    try {
        files_.createDirectories(file_.parent_path(), 0700);
        const platform::FileLock lock(files_, file_);
        std::vector<platform::PublicKey> keys = load();
        if (change(keys)) {
            platform::writeWholeFile(files_, file_, encode(keys), ownerOnly, platform::Flush::now,
                                     platform::Links::follow);
        }
    } catch (const platform::SystemError& error) {
        throw cannot("change", file_, error);
    }
}

} // namespace orlinth::host
