#pragma once

#include "OrlinthHost/Outbox/OutboxEvents.h"
#include "OrlinthHost/Service/OutgoingNotices.h"
#include "orlinth/Program/Host.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orlinth::cli {

/// Turns what happens to the outbox in the service into events and lines, and tells the notifications of the desktop.
/// On the thread of the runner.
class OutboxReporter final : public host::OutboxEvents {
public:
    /// Both outlive this.
    OutboxReporter(Host& host, host::OutgoingNotices& notices) : host_(host), notices_(notices) {}

    void progress(const Transfer& transfer, const Progress& progress) override;
    void sent(const Transfer& transfer, const host::Delivered& delivered) override;
    void through(const BatchId& batch, const host::OutboxState::Phone& to,
                 const std::vector<std::string>& files) override;
    void done(const BatchId& batch) override;
    void waiting(const BatchId& batch, const std::string& to, const std::string& message, Seconds pause) override;
    void waitingLine(const host::OutboxState::Phone& to, const std::string& message) override;
    void failed(const Transfer& transfer, const std::string& message) override;
    void failed(const BatchId& batch, const host::OutboxState::Phone& to, const std::string& message) override;
    void setAside(const BatchId& batch, const std::string& message, const platform::Path& where) override;
    void notSetAside(const BatchId& batch, const std::string& message, const std::string& problem) override;
    void noOutbox(const std::string& problem) override;
    void notSaved(const std::string& problem) override;

private:
    /// The event, and a line on standard error where that does not double it.
    void tellFailure(Json fields, const std::string& line, const std::string& hint);
    [[nodiscard]] std::string shown(const host::OutboxState::Phone& phone) const;

    Host& host_;
    host::OutgoingNotices& notices_;
};

/// The beginning of a batch's id, by which people name it.
[[nodiscard]] std::string shortId(const BatchId& id);

} // namespace orlinth::cli
