#pragma once

#include "platform/FileSystem.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orlinth::share {

/// One request to share: what another program hands over, and how that ended. Ends once.
class ShareRequest {
public:
    static constexpr const char* errorDomain = "com.tarvinex.orlinth.share";
    enum class ErrorCode { failed = 1, cancelled = 2 };
    struct Error {
        ErrorCode code = ErrorCode::failed;
        std::string description; ///< for the user
        bool operator==(const Error&) const = default;
    };

    /// `items` are paths, relative ones below `folder`, and URIs, in the order in which they were given.
    ShareRequest(std::vector<std::string> items, platform::Path folder)
        : items_(std::move(items)), folder_(std::move(folder)) {}

    struct FileItems {
        std::vector<platform::Path> paths; ///< in the order of the items
        std::size_t unreadable = 0;        ///< how many file: URIs name no file of this computer
    };
    /// The items that name a file, or at least can; texts and URIs of other schemes are left out. What is there is not
    /// looked at, but to tell the relative name of a file from a text. Any thread.
    [[nodiscard]] FileItems fileItems(const platform::FileSystem& files) const;

    /// `notice` is what the user should know all the same; "" for nothing.
    void completeRequest(std::string notice = {});
    void cancelRequest(Error error);

    /// Called when the request has ended, while its window may still say why.
    std::function<void()> onEnd;

    [[nodiscard]] bool hasEnded() const noexcept { return hasEnded_; }
    /// Why it ended, if it was not completed.
    [[nodiscard]] const std::optional<Error>& error() const noexcept { return error_; }
    /// What the user should know of a request that was completed; "" for nothing.
    [[nodiscard]] const std::string& notice() const noexcept { return notice_; }
    /// What the program ends with: 0 if the request was completed, else 1.
    [[nodiscard]] int exitStatus() const noexcept { return hasEnded_ && !error_ ? 0 : 1; }

private:
    void end(std::optional<Error> error);

    std::vector<std::string> items_;
    platform::Path folder_;
    bool hasEnded_ = false;
    std::optional<Error> error_;
    std::string notice_;
};

/// The path of a "file:" URI (RFC 8089): no host or "localhost", percent-encoding undone. Nothing for everything else,
/// a broken encoding, an encoded slash or NUL, and a path that is not absolute.
[[nodiscard]] std::optional<platform::Path> pathOfFileUri(std::string_view uri);

} // namespace orlinth::share
