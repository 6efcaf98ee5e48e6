#pragma once

#include "orlinth/Delivery.h"
#include "orlinth/Host.h"
#include "orlinth/OutboxState.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orlinth::host {

/// Turns what happens to the outbox in the service into events, lines and notifications of the desktop.
/// On the thread of the runner.
class OutboxReporter {
public:
    /// `host` outlives this.
    explicit OutboxReporter(Host& host) : host_(host) {}

    /// One file on its way to one phone.
    struct Transfer {
        std::string batch;
        std::string file;
        std::string to;  ///< the phone's name
        std::string key; ///< the phone's, Base64
    };

    void progress(const Transfer& transfer, std::int64_t bytesSent, std::int64_t totalBytes);
    void sent(const Transfer& transfer, const Delivered& delivered);
    /// A phone has everything of a batch, but for what has failed.
    void through(const OutboxState::Phone& to, const std::vector<std::string>& files);
    void done(const std::string& batch);
    /// An attempt has failed that is made again: for scripts each time; the other two, for people, only as news.
    void waiting(const std::string& batch, const std::string& to, const std::string& message, double retrySeconds);
    void waitingLine(const OutboxState::Phone& to, const std::string& message);
    void waitingNotification(const OutboxState::Phone& to, const std::string& message);
    /// A file is not sent to a phone, whatever happens.
    void failed(const Transfer& transfer, const std::string& message);
    /// Nothing more of a batch is sent to a phone.
    void failed(const std::string& batch, const OutboxState::Phone& to, const std::string& message);
    /// A batch was moved to `where`.
    void setAside(const std::string& batch, const std::string& message, const platform::Path& where);
    /// Something is in the way of a batch that is not of one phone.
    void trouble(const std::string& batch, const std::string& message, const std::string& hint);
    /// Something is in the way of all batches.
    void failure(const std::string& message, const std::string& hint) { host_.output.failure(message, hint); }
    void message(const std::string& text) { host_.output.message(text); }

private:
    /// The event, and a line on standard error where that does not double it.
    void tellFailure(Json fields, const std::string& line, const std::string& hint);
    void notify(const std::string& title, const std::string& body);
    [[nodiscard]] std::string shown(const OutboxState::Phone& phone) const;

    Host& host_;
};

/// The beginning of a batch's id, by which people name it.
[[nodiscard]] std::string shortId(const std::string& id);

/// "1 file", "3 files".
[[nodiscard]] std::string countOfFiles(std::size_t count);

} // namespace orlinth::host
