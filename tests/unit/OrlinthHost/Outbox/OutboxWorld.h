#pragma once

#include "OrlinthHost/Outbox/OutboxSender.h"
#include "RecordingOutboxEvents.h"
#include "fakes/World.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <variant>

namespace orlinth::host {

inline const platform::Path container = "/home/ann/.local/share/group.com.tarvinex.orlinth";
inline const platform::Path outbox = container / "Outbox";
inline const platform::Path memory = "/home/ann/.local/share/Orlinth/outbox";
inline constexpr const char* first = "0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";
inline constexpr const char* second = "1A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";

/// A computer whose service sends what is in its outbox, in virtual time.
class OutboxWorldTest : public testing::Test {
protected:
    using ScriptedPeer = fakes::ScriptedPeer;
    using Row = TransportMessage;

    using What = RecordingOutboxEvents::What;
    using Told = RecordingOutboxEvents::Told;

    OutboxWorldTest() { pair({world_.phoneRecord()}); }
    ~OutboxWorldTest() override { stop(); }

    void pair(const std::vector<PeerRecord>& records) {
        PeerStore(world_.files, world_.system.directories).writeBook({records});
    }
    [[nodiscard]] PeerRecord tabletRecord() const {
        PeerRecord record = world_.phoneRecord();
        record.peer_pubkey = tabletKey_.publicKey().peerKey();
        record.peer_hostname = "Tablet";
        record.peer_port = tabletPort;
        return record;
    }

    /// A complete batch, without anybody being told.
    void put(const std::string& id, const std::vector<std::string>& files, std::int64_t createdAtMs = 1000,
             std::optional<std::vector<PeerKey>> phones = std::nullopt) {
        for (const std::string& name : files) {
            world_.files.put(outbox / id / name, "content of " + name);
        }
        const ShareOutbox::Manifest manifest{.id = id,
                                             .createdAtMs = fromEpochMilliseconds(createdAtMs),
                                             .files = files,
                                             .targetPubkeys = std::move(phones)};
        world_.files.put(outbox / id / "manifest.json", compactJson(manifest.toJson()));
    }
    void ring() { ShareOutbox::postPending(world_.busSignals); }

    /// `prepare` sets what is to be set before.
    void start(const std::function<void(OutboxSender&)>& prepare = {}) {
        sender_.emplace(home_, world_.computerKey, events_);
        if (prepare) {
            prepare(*sender_);
        }
        sender_->start();
    }
    void stop() {
        if (sender_) {
            world_.run(sender_->finish());
            sender_.reset();
        }
        fakes::runUntilIdle(world_.context, world_.clock);
    }
    void pass(Seconds time) { world_.run(world_.clock.sleep(time)); }

    /// Takes what comes in `count` connections, one after the other.
    [[nodiscard]] Task<> take(int count) {
        for (int i = 0; i < count; ++i) {
            const auto phone = co_await ScriptedPeer::accept(world_, world_.phoneKey);
            const auto offer = co_await phone->expect<Row::FileOffer>();
            co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
            const Bytes data = co_await phone->receiveUntilDone();
            taken_.push_back(offer.name);
            EXPECT_EQ("content of " + offer.name, std::string(asText(data)));
            phone->close();
        }
    }
    /// Takes files in rounds: in each, so many connections are there and have made their offers before any is answered.
    [[nodiscard]] Task<> takeTogether(std::vector<int> rounds) {
        const std::unique_ptr<platform::Listener> listener = world_.network.listen(
            {.port = fakes::World::phonePort, .keepAlive = std::nullopt}, world_.context.get_executor());
        for (const int count : rounds) {
            std::vector<std::pair<std::unique_ptr<ScriptedPeer>, Row::FileOffer>> phones;
            for (int i = 0; i < count; ++i) {
                std::unique_ptr<platform::Stream> stream = co_await listener->accept(world_.context.get_executor());
                auto phone = co_await greet(std::move(stream));
                auto offer = co_await phone->expect<Row::FileOffer>();
                phones.emplace_back(std::move(phone), std::move(offer));
            }
            for (const auto& [phone, offer] : phones) {
                co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
                const Bytes data = co_await phone->receiveUntilDone();
                taken_.push_back(offer.name);
                EXPECT_EQ("content of " + offer.name, std::string(asText(data)));
                phone->close();
            }
        }
    }
    /// Answers the offers of `count` connections in this way.
    [[nodiscard]] Task<> answer(Row message, int count) {
        for (int i = 0; i < count; ++i) {
            const auto phone = co_await ScriptedPeer::accept(world_, world_.phoneKey);
            const auto offer = co_await phone->expect<Row::FileOffer>();
            co_await phone->send(message);
            const bool ended = co_await phone->seesTheEnd();
            EXPECT_TRUE(ended);
        }
    }
    /// Hears an offer and says nothing to it.
    [[nodiscard]] Task<> keepSilent() {
        const auto phone = co_await ScriptedPeer::accept(world_, world_.phoneKey);
        const auto offer = co_await phone->expect<Row::FileOffer>();
        const bool ended = co_await phone->seesTheEnd();
        EXPECT_TRUE(ended);
    }
    /// Takes no leave of the first file, for as long as this; then takes one.
    [[nodiscard]] Task<> beginOneAndTakeOne(Seconds time) {
        {
            const auto phone = co_await ScriptedPeer::accept(world_, world_.phoneKey);
            const auto offer = co_await phone->expect<Row::FileOffer>();
            co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
            const Bytes data = co_await phone->receiveUntilDone();
            co_await world_.clock.sleep(time);
        }
        co_await take(1);
    }
    [[nodiscard]] Task<> takeOneAndKeepSilent() {
        co_await take(1);
        co_await keepSilent();
    }
    /// Takes `count` files, and resets each connection after the end.
    [[nodiscard]] Task<> breakOffAtTheEnd(int count) {
        for (int i = 0; i < count; ++i) {
            const auto phone = co_await acceptForReset();
            const auto offer = co_await phone->expect<Row::FileOffer>();
            ids_.push_back(offer.transfer_id);
            co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
            const Bytes data = co_await phone->receiveUntilDone();
            reset_->abort();
        }
    }
    /// Takes `count` files, and says nothing at their ends; what has come last is not acknowledged.
    [[nodiscard]] Task<> vanishAtTheEnd(int count) {
        for (int i = 0; i < count; ++i) {
            std::unique_ptr<ScriptedPeer> phone = co_await acceptForReset();
            const auto offer = co_await phone->expect<Row::FileOffer>();
            ids_.push_back(offer.transfer_id);
            co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
            const Bytes data = co_await phone->receiveUntilDone();
            reset_->cutWire();
            kept_.push_back(std::move(phone));
        }
    }
    /// Takes one file, and closes so many seconds after its end.
    [[nodiscard]] Task<> closeLate(Seconds time) {
        const auto phone = co_await ScriptedPeer::accept(world_, world_.phoneKey);
        const auto offer = co_await phone->expect<Row::FileOffer>();
        ids_.push_back(offer.transfer_id);
        co_await phone->send(Row::resume(offer.transfer_id, ByteOffset()));
        const Bytes data = co_await phone->receiveUntilDone();
        co_await world_.clock.sleep(time);
        phone->close();
    }
    /// Takes a piece in each of as many connections as there are offsets, at which it goes on, and resets them.
    [[nodiscard]] Task<> takePieces(std::vector<std::int64_t> offsets) {
        for (const std::int64_t offset : offsets) {
            const auto phone = co_await acceptForReset();
            const auto offer = co_await phone->expect<Row::FileOffer>();
            co_await phone->send(Row::resume(offer.transfer_id, ByteOffset(offset)));
            const DecodedFrame piece = co_await phone->receive();
            EXPECT_TRUE(std::holds_alternative<Bytes>(piece));
            reset_->abort();
        }
    }
    [[nodiscard]] Task<std::unique_ptr<ScriptedPeer>> acceptForReset() {
        const std::unique_ptr<platform::Listener> listener = world_.network.listen(
            {.port = fakes::World::phonePort, .keepAlive = std::nullopt}, world_.context.get_executor());
        std::unique_ptr<platform::Stream> stream = co_await listener->accept(world_.context.get_executor());
        reset_ = dynamic_cast<fakes::MemoryStream*>(stream.get());
        co_return co_await greet(std::move(stream));
    }
    /// The phone's part of the handshake.
    [[nodiscard]] Task<std::unique_ptr<ScriptedPeer>> greet(std::unique_ptr<platform::Stream> stream) {
        auto wire = std::make_unique<WireConnection>(std::move(stream), world_.clock);
        NoiseHandshake handshake(NoiseRole::responder, world_.phoneKey.clone(), asBytes(kOrlinthPrologue));
        co_await exchangeAsResponder(*wire, handshake);
        co_return std::make_unique<ScriptedPeer>(std::move(wire), std::move(handshake).finalize());
    }
    [[nodiscard]] static std::string_view asText(const Bytes& data) {
        return {reinterpret_cast<const char*>(data.data()), data.size()};
    }

    [[nodiscard]] std::vector<Told> told(What what) const { return events_.of(what); }
    /// What is not sent whatever happens: files, batches for a phone, whole batches.
    [[nodiscard]] std::vector<Told> failures() const {
        std::vector<Told> found;
        std::ranges::copy_if(events_.all, std::back_inserter(found), [](const Told& told) {
            return told.what == What::fileFailed || told.what == What::phoneFailed || told.what == What::setAside ||
                   told.what == What::notSetAside;
        });
        return found;
    }
    /// What people get to see of batches that are on their way.
    [[nodiscard]] std::vector<std::string> notices() const {
        std::vector<std::string> notices;
        for (const Told& told : events_.all) {
            if (told.what == What::waitingLine) {
                notices.push_back("waiting for " + told.to);
            } else if (told.what == What::through && told.files > 0) {
                notices.push_back("sent " + std::to_string(told.files) + " to " + told.to);
            }
        }
        return notices;
    }
    [[nodiscard]] std::size_t attempts() const { return world_.network.attempts.size(); }
    /// Lets time pass up to this instant, or the next at which something happens; seconds from each attempt to connect
    /// to the next, up to this instant.
    [[nodiscard]] std::vector<double> gapsUntil(double end, const std::function<void()>& onAttempt = [] {}) {
        std::vector<double> gaps;
        std::optional<double> last;
        while (world_.clock.elapsed() < end) {
            const std::size_t before = attempts();
            EXPECT_TRUE(world_.clock.advanceToNextAlarm());
            world_.context.restart();
            world_.context.poll();
            const double now = world_.clock.elapsed();
            if (attempts() > before && now <= end) {
                if (last) {
                    gaps.push_back(std::round((now - *last) * 1000) / 1000);
                }
                last = now;
                onAttempt();
            }
        }
        return gaps;
    }
    /// The folder of the first batch goes to another place, and a link to there takes its name.
    void moveBehindALink() {
        world_.files.putFolder("/mnt");
        world_.files.rename(outbox / first, "/mnt/moved");
        world_.files.putLink(outbox / first, "/mnt/moved");
    }
    [[nodiscard]] bool isThere(const platform::Path& path) const { return world_.files.exists(path); }

    static constexpr std::uint16_t tabletPort = 7002;
    fakes::World world_;
    platform::PrivateKey tabletKey_ = platform::PrivateKey::generate();
    Home home_{.system = world_.system, .executor = world_.context.get_executor()};
    RecordingOutboxEvents events_;
    std::optional<OutboxSender> sender_;
    std::vector<std::string> taken_;
    std::vector<std::string> ids_;
    std::vector<std::unique_ptr<ScriptedPeer>> kept_; ///< connections that stay open
    fakes::MemoryStream* reset_ = nullptr;            ///< of the connection that is to be reset
};

} // namespace orlinth::host
