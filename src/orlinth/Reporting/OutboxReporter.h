#pragma once

#include "OrlinthHost/Outbox/OutboxEvents.h"
#include "orlinth/Program/Host.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orlinth::cli {

/// Turns what happens to the outbox in the service into events, lines and notifications of the desktop.
/// On the thread of the runner.
class OutboxReporter final : public host::OutboxEvents {
public:
    /// `host` outlives this.
    explicit OutboxReporter(Host& host) : host_(host) {}

    void progress(const Transfer& transfer, const Progress& progress) override;
    void sent(const Transfer& transfer, const host::Delivered& delivered) override;
    void through(const host::OutboxState::Phone& to, const std::vector<std::string>& files) override;
    void done(const BatchId& batch) override;
    void waiting(const BatchId& batch, const std::string& to, const std::string& message, Seconds pause) override;
    void waitingLine(const host::OutboxState::Phone& to, const std::string& message) override;
    void waitingNotification(const host::OutboxState::Phone& to, const std::string& message) override;
    void failed(const Transfer& transfer, const std::string& message) override;
    void failed(const BatchId& batch, const host::OutboxState::Phone& to, const std::string& message) override;
    void setAside(const BatchId& batch, const std::string& message, const platform::Path& where) override;
    void notSetAside(const BatchId& batch, const std::string& message, const std::string& problem) override;
    void noOutbox(const std::string& problem) override;
    void notSaved(const std::string& problem) override;

private:
    /// The event, and a line on standard error where that does not double it.
    void tellFailure(Json fields, const std::string& line, const std::string& hint);
    void notify(const std::string& title, const std::string& body);
    [[nodiscard]] std::string shown(const host::OutboxState::Phone& phone) const;

    Host& host_;
};

/// The beginning of a batch's id, by which people name it.
[[nodiscard]] std::string shortId(const BatchId& id);

} // namespace orlinth::cli
