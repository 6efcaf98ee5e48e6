#pragma once

#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Service/Service.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "fakes/World.h"
#include "platform/Cancelled.h"
#include "platform/Spawn.h"
#include "unit/OrlinthHost/Outbox/RecordingOutboxEvents.h"

#include <asio/cancellation_signal.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// Keeps what a service tells, as one short text each, in its order.
class RecordingServiceEvents final : public ServiceEvents {
public:
    std::vector<std::string> all;
    std::vector<Receiver::File> files;
    std::vector<Receiver::Clipboard> texts;
    std::vector<Receiver::ProcessOutcome> outcomes;
    std::vector<std::string> failures;
    /// What finish() waits for; nothing: nobody.
    std::function<Task<>()> onFinish;
    std::function<void()> onStopping;

    void portInherited(std::uint16_t port) override { tell("inherited " + std::to_string(port)); }
    void phonesKnown(std::size_t phones) override { tell("known " + std::to_string(phones)); }
    void folderUnusable(const platform::Path& /*folder*/, const std::string& problem) override {
        tell("unusable: " + problem);
    }
    void listening(std::uint16_t port, std::size_t phones) override {
        tell("listening " + std::to_string(port) + ", phones " + std::to_string(phones));
    }
    void stopping() override {
        tell("stopping");
        if (onStopping) {
            onStopping();
        }
    }
    [[nodiscard]] Task<> finish() override {
        tell("finish");
        if (onFinish) {
            co_await onFinish();
        }
    }
    void authenticated(const PeerRecord& phone, std::size_t phones) override {
        tell("authenticated " + phone.peer_hostname + ", phones " + std::to_string(phones));
    }
    void fileReceived(const Receiver::File& file) override {
        files.push_back(file);
        tell("file " + file.file.savedAt.filename().string() + " from " + file.from);
    }
    void textReceived(const Receiver::Clipboard& text) override {
        texts.push_back(text);
        tell("text from " + text.from);
    }
    void settled(const Receiver::ProcessOutcome& outcome) override { outcomes.push_back(outcome); }
    void connectionFailed(const Receiver::Failure& failure) override { failures.push_back(describe(failure.error)); }
    void turnedAway(const std::string& remoteEndpoint) override { tell("turned away " + remoteEndpoint); }
    void phonesUnreadable(const std::exception_ptr& error) override { tell("unreadable: " + describe(error)); }
    void unfinishedDownloads(const PartialsReminder::Reminder& reminder, const platform::Path& folder) override {
        tell("unfinished " + std::to_string(reminder.count) + " in " + folder.string());
    }
    void controlFailed(const std::string& problem) override { tell("no control: " + problem); }
    void portLent() override { tell("lent"); }
    void portReturned() override { tell("returned"); }
    void portMissing(const std::string& problem) override { tell("missing: " + problem); }

    /// How often exactly this was told.
    [[nodiscard]] std::ptrdiff_t count(const std::string& text) const { return std::ranges::count(all, text); }

    /// Of the port: what was told of loans, in its order.
    [[nodiscard]] std::vector<std::string> loans() const {
        std::vector<std::string> loans;
        std::ranges::copy_if(all, std::back_inserter(loans),
                             [](const std::string& text) { return text == "lent" || text == "returned"; });
        return loans;
    }

private:
    void tell(std::string text) { all.push_back(std::move(text)); }
};

/// What a service is to do, and what is set for it on the command line where it is not as usual.
struct WorldSettings : ServiceSettings {
    platform::Path downloads;
    DownloadLimits downloadLimits;
    Accept accept = Accept::always;
    bool keepsHistory = true;

    [[nodiscard]] SettingSources sources(const platform::Path& usualDownloads) const {
        SettingSources sources;
        const auto give = [&sources](SettingId id, SettingValue value) {
            sources.flags[id] = {.value = std::move(value), .where = "`--" + std::string(ruleOf(id).key) + "`"};
        };
        give(SettingId::keepFree, downloadLimits.keepFreeBytes);
        give(SettingId::maxFile, downloadLimits.maxFileBytes);
        if (downloads != usualDownloads) {
            give(SettingId::downloads, downloads.string());
        }
        if (accept != Accept::always) {
            give(SettingId::accept, accept == Accept::ask ? "ask" : "never");
        }
        if (!keepsHistory) {
            give(SettingId::history, false);
        }
        return sources;
    }
};

/// A computer with a whole service on it, in virtual time: its phones, its outbox, and other programs of its user.
class ServiceWorldTest : public testing::Test {
protected:
    using Row = TransportMessage;
    using What = RecordingOutboxEvents::What;
    using ScriptedPeer = fakes::ScriptedPeer;

    static constexpr std::uint16_t port = 7100;
    inline static const platform::Path downloads = "/home/ann/Downloads";
    inline static const platform::Path dataFolder = "/home/ann/.local/share/Orlinth";
    inline static const platform::Path controlPath = dataFolder / "service.sock";
    inline static const platform::Path container = "/home/ann/.local/share/group.com.tarvinex.orlinth";
    inline static const platform::Path outbox = container / "Outbox";
    inline static const std::string batch = "0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";

    ServiceWorldTest() {
        world_.files.putFolder(downloads);
        pair({world_.phoneRecord()});
        settings_.downloads = downloads;
        settings_.port.number = port;
    }
    ~ServiceWorldTest() override { stop(); }

    void pair(const std::vector<PeerRecord>& records) {
        PeerStore(world_.files, world_.system.directories).writeBook({records});
    }
    /// The phones that are paired, by their names.
    [[nodiscard]] std::vector<std::string> paired() {
        std::vector<std::string> names;
        for (const PeerRecord& record : PeerStore(world_.files, world_.system.directories).loadBook().peers) {
            names.push_back(record.peer_hostname);
        }
        return names;
    }

    void make() {
        SettingSources sources = settings_.sources(world_.system.directories.downloads);
        sources.file = SettingsFile(world_.files, world_.system.directories).load();
        live_.emplace(home_, std::move(sources));
        service_.emplace(home_, world_.computerKey, *live_, settings_, events_, outboxEvents_);
    }
    /// Begins to run the service, until it waits for somebody.
    void start() {
        make();
        hasEnded_ = false;
        platform::spawn(world_.context.get_executor(), service_->run(), stop_.slot(), [this](std::exception_ptr error) {
            hasEnded_ = true;
            error_ = std::move(error);
        });
        settle();
    }
    /// What a signal does.
    void cancel() { stop_.emit(asio::cancellation_type::terminal); }
    /// Ends the service, if it runs, and waits for its end.
    void stop() {
        cancel();
        while (!hasEnded_) {
            settle();
            if (!hasEnded_ && !world_.clock.advanceToNextAlarm()) {
                ADD_FAILURE() << "the service does not end";
                return;
            }
        }
        fakes::runUntilIdle(world_.context, world_.clock);
        service_.reset();
    }
    /// What run() has thrown; "" if it runs, and after a cancellation.
    [[nodiscard]] std::string problem() const {
        try {
            if (error_) {
                std::rethrow_exception(error_);
            }
        } catch (const std::exception& error) {
            return platform::isCancellation(error) ? "" : describe(error);
        }
        return "";
    }

    /// Everything that is due now, without letting time pass.
    void settle() {
        world_.context.restart();
        world_.context.poll();
    }
    void pass(Seconds time) { world_.run(world_.clock.sleep(time)); }

    /// A phone in the same network that has shaken hands.
    [[nodiscard]] std::unique_ptr<ScriptedPeer> connectAs(const platform::PrivateKey& key) {
        world_.network.sources.emplace_back("192.168.1.7:40112");
        return world_.run(ScriptedPeer::connect(world_, port, key));
    }
    [[nodiscard]] std::unique_ptr<ScriptedPeer> phone() { return connectAs(world_.phoneKey); }
    /// The whole delivery of a small file.
    void deliver(const std::string& name) {
        const std::unique_ptr<ScriptedPeer> from = phone();
        world_.run(deliverOn(*from, name));
        settle();
    }
    [[nodiscard]] static Task<> deliverOn(ScriptedPeer& from, const std::string name) {
        const std::string content = "content of " + name;
        co_await from.send(Row::fileOffer(name, static_cast<std::int64_t>(content.size()), "text/plain", "ID " + name));
        static_cast<void>(co_await from.expect<Row::Resume>());
        co_await from.sendBinary(toBytes(content));
        co_await from.send(Row::done());
        const bool isOver = co_await from.seesTheEnd();
        EXPECT_TRUE(isOver);
    }
    [[nodiscard]] std::string received(const std::string& name) const {
        return world_.files.content(downloads / name).value_or("(no file)");
    }

    /// A batch of one file, complete, without anybody being told; for the only phone, or for these.
    void share(const std::string& name, std::optional<std::vector<PeerKey>> phones = std::nullopt) {
        world_.files.put(outbox / batch / name, "content of " + name);
        const ShareOutbox::Manifest manifest{.id = batch,
                                             .createdAtMs = fromEpochMilliseconds(1000),
                                             .files = {name},
                                             .targetPubkeys = std::move(phones)};
        world_.files.put(outbox / batch / "manifest.json", compactJson(manifest.toJson()));
    }
    void ring() { ShareOutbox::postPending(world_.busSignals); }
    /// The phone takes one file; its content is in `taken_`.
    [[nodiscard]] Task<> take() {
        const auto at = co_await ScriptedPeer::accept(world_, world_.phoneKey);
        const auto offer = co_await at->expect<Row::FileOffer>();
        co_await at->send(Row::resume(offer.transfer_id, ByteOffset()));
        const Bytes data = co_await at->receiveUntilDone();
        taken_.push_back(toText(data));
        at->close();
    }

    /// Another program of the same user connects to the control socket.
    [[nodiscard]] std::unique_ptr<platform::Stream> connectToControl() {
        return world_.run(world_.unixSockets.connect(controlPath, world_.context.get_executor()));
    }
    /// What a line gets, as it is, without the line end; "" if nothing.
    [[nodiscard]] std::string ask(platform::Stream& stream, const std::string& line) {
        world_.run(write(stream, line));
        return world_.run(readLine(stream));
    }
    [[nodiscard]] std::string ask(const std::string& line) {
        const std::unique_ptr<platform::Stream> stream = connectToControl();
        return ask(*stream, line);
    }
    [[nodiscard]] static Task<> write(platform::Stream& stream, const std::string text) {
        co_await stream.writeAll(asBytes(text));
    }
    [[nodiscard]] static Task<std::string> readLine(platform::Stream& stream) {
        std::string line;
        for (;;) {
            std::byte next{};
            const std::size_t count = co_await stream.readExact(MutableBytes(&next, 1));
            if (count == 0 || next == std::byte{'\n'}) {
                co_return line;
            }
            line += static_cast<char>(next);
        }
    }

    fakes::World world_;
    Home home_{.system = world_.system, .executor = world_.context.get_executor()};
    WorldSettings settings_;
    std::optional<LiveSettings> live_;
    RecordingServiceEvents events_;
    RecordingOutboxEvents outboxEvents_;
    std::optional<Service> service_;
    asio::cancellation_signal stop_;
    bool hasEnded_ = true;
    std::exception_ptr error_;
    std::vector<std::string> taken_; ///< contents that the phone has got
};

} // namespace orlinth::host
