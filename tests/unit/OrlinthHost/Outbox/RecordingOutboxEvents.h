#pragma once

#include "OrlinthHost/Outbox/OutboxEvents.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {

/// Keeps everything that the outbox tells, in its order.
class RecordingOutboxEvents final : public OutboxEvents {
public:
    enum class What {
        progress,
        sent,
        through,
        done,
        waiting,
        waitingLine,
        fileFailed,
        phoneFailed,
        setAside,
        notSetAside,
        noOutbox,
        notSaved,
    };
    /// Members that a kind does not have are as they are here.
    struct Told {
        What what;
        std::string batch = {};
        std::string file = {};
        std::string to = {};
        std::string message = {};
        std::size_t files = 0;
        std::int64_t bytesSent = 0;
        ByteOffset resumedFromOffset = {};
        bool isConfirmed = true;
        Seconds pause{0};
        platform::Path where = {};
    };

    std::vector<Told> all;

    [[nodiscard]] std::vector<Told> of(What what) const {
        std::vector<Told> found;
        std::ranges::copy_if(all, std::back_inserter(found), [what](const Told& told) { return told.what == what; });
        return found;
    }

    void progress(const Transfer& transfer, const Progress& progress) override {
        add(transfer, {.what = What::progress, .bytesSent = progress.done});
    }
    void sent(const Transfer& transfer, const Delivered& delivered) override {
        add(transfer, {.what = What::sent,
                       .bytesSent = delivered.sent.bytesSent,
                       .resumedFromOffset = delivered.sent.resumedFromOffset,
                       .isConfirmed = delivered.isConfirmed});
    }
    void through(const BatchId& batch, const OutboxState::Phone& to, const std::vector<std::string>& files) override {
        all.push_back({.what = What::through, .batch = batch.text(), .to = to.displayName(), .files = files.size()});
    }
    void done(const BatchId& batch) override { all.push_back({.what = What::done, .batch = batch.text()}); }
    void waiting(const BatchId& batch, const std::string& to, const std::string& message, Seconds pause) override {
        all.push_back({.what = What::waiting, .batch = batch.text(), .to = to, .message = message, .pause = pause});
    }
    void waitingLine(const OutboxState::Phone& to, const std::string& message) override {
        all.push_back({.what = What::waitingLine, .to = to.displayName(), .message = message});
    }
    void failed(const Transfer& transfer, const std::string& message) override {
        add(transfer, {.what = What::fileFailed, .message = message});
    }
    void failed(const BatchId& batch, const OutboxState::Phone& to, const std::string& message) override {
        all.push_back({.what = What::phoneFailed, .batch = batch.text(), .to = to.displayName(), .message = message});
    }
    void setAside(const BatchId& batch, const std::string& message, const platform::Path& where) override {
        all.push_back({.what = What::setAside, .batch = batch.text(), .message = message, .where = where});
    }
    void notSetAside(const BatchId& batch, const std::string& message, const std::string& /*problem*/) override {
        all.push_back({.what = What::notSetAside, .batch = batch.text(), .message = message});
    }
    void noOutbox(const std::string& problem) override { all.push_back({.what = What::noOutbox, .message = problem}); }
    void notSaved(const std::string& problem) override { all.push_back({.what = What::notSaved, .message = problem}); }

private:
    void add(const Transfer& transfer, Told told) {
        told.batch = transfer.batch.text();
        told.file = transfer.file;
        told.to = transfer.to;
        all.push_back(std::move(told));
    }
};

} // namespace orlinth::host
