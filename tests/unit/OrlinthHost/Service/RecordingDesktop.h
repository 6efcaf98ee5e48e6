#pragma once

#include "OrlinthHost/Service/DesktopActions.h"
#include "OrlinthHost/Service/NoticeRequests.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {

/// A desktop that writes down what it is asked for, one short text each.
class RecordingDesktop final : public DesktopActions {
public:
    std::vector<std::string> all;
    std::vector<std::function<void(bool)>> copying; ///< of copy(), in its order

    void show(std::vector<platform::Path> files, std::string token) override {
        std::string text = "show";
        for (const platform::Path& file : files) {
            text += " " + file.string();
        }
        tell(std::move(text), token);
    }
    void open(platform::Path file, std::string token) override { tell("open " + file.string(), token); }
    void openLink(std::string address, std::string token) override { tell("link " + address, token); }
    void raiseWindow(std::string token) override { tell("raise", token); }
    void copy(std::string text, std::function<void(bool)> onDone) override {
        copying.push_back(std::move(onDone));
        tell("copy " + text, "");
    }
    [[nodiscard]] Task<> finish() override { co_return; }

    [[nodiscard]] std::vector<std::string> take() { return std::exchange(all, {}); }

private:
    void tell(std::string text, const std::string& token) {
        all.push_back(std::move(text) + (token.empty() ? "" : " with " + token));
    }
};

/// Likewise of a service.
class RecordingRequests final : public NoticeRequests {
public:
    std::vector<std::string> all;

    void cancelTransfer(TransferNumber number) override {
        all.push_back("cancel " + std::to_string(static_cast<std::uint64_t>(number)));
    }
    void retryBatch(const BatchId& batch, const PeerKey& peerKey) override {
        all.push_back("retry " + batch.text() + " for " + peerKey.text());
    }
    void dropBatch(const BatchId& batch, const PeerKey& peerKey) override {
        all.push_back("drop " + batch.text() + " for " + peerKey.text());
    }
};

} // namespace orlinth::host
