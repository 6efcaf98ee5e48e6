#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "fakes/World.h"
#include "platform/Cancelled.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"

#include <asio/cancellation_signal.hpp>

#include <deque>
#include <set>
#include <variant>

namespace orlinth::fakes {

/// A listener whose connections, and failures, a test pushes in. They are taken in that order.
class ScriptedListener : public platform::Listener {
public:
    struct Door {
        explicit Door(const Executor& executor) : changed(executor) {}
        std::deque<std::variant<std::unique_ptr<platform::Stream>, platform::SystemError>> waiting;
        bool closed = false;
        int accepts = 0;
        Event changed;

        void push(std::variant<std::unique_ptr<platform::Stream>, platform::SystemError> next) {
            waiting.push_back(std::move(next));
            changed.notify();
        }
    };

    explicit ScriptedListener(std::shared_ptr<Door> door) : door_(std::move(door)) {}
    ScriptedListener(const ScriptedListener&) = delete;
    ScriptedListener& operator=(const ScriptedListener&) = delete;
    ~ScriptedListener() override { ScriptedListener::close(); }

    [[nodiscard]] Task<std::unique_ptr<platform::Stream>> accept(Executor) override {
        const std::shared_ptr<Door> door = door_;
        ++door->accepts;
        while (door->waiting.empty() && !door->closed) {
            co_await door->changed.wait();
        }
        if (door->closed) {
            throw platform::SystemError("listener cancelled");
        }
        auto next = std::move(door->waiting.front());
        door->waiting.pop_front();
        if (const auto* error = std::get_if<platform::SystemError>(&next)) {
            throw *error;
        }
        co_return std::get<std::unique_ptr<platform::Stream>>(std::move(next));
    }
    [[nodiscard]] std::uint16_t port() const noexcept override { return 7100; }
    void close() noexcept override {
        door_->closed = true;
        door_->changed.notify();
    }

private:
    std::shared_ptr<Door> door_;
};

/// A computer with the receive service on it, and everything that the service has told.
struct ReceiverWorld : World {
    static constexpr std::uint16_t port = 7100;
    inline static const platform::Path folder = "/home/ann/Downloads";
    inline static const platform::Path peerFile = "/home/ann/.local/share/Orlinth/peer.json";

    ReceiverWorld() { files.putFolder(folder); }
    ReceiverWorld(const ReceiverWorld&) = delete;
    ReceiverWorld& operator=(const ReceiverWorld&) = delete;
    ~ReceiverWorld() {
        if (receiver && running) {
            receiver->stop();
            runUntilIdle(context, clock);
            EXPECT_FALSE(running) << "the service does not end";
        }
    }

    platform::PrivateKey tabletKey = platform::PrivateKey::generate();

    /// Makes the service for the phone and the tablet, without running it.
    Receiver& make(std::uint16_t onPort = port) {
        receiver.emplace(system, computerKey,
                         std::vector<platform::PublicKey>{phoneKey.publicKey(), tabletKey.publicKey()}, folder, onPort);
        return *receiver;
    }
    /// Runs it, until it waits for somebody.
    Receiver& start() {
        Receiver& made = receiver ? *receiver : make();
        running = true;
        platform::spawn(context.get_executor(), made.run(callbacks()), stopRun.slot(),
                        [this](std::exception_ptr error) {
                            running = false;
                            ownersAtEnd = ActiveTransfers::shared().ownerCount();
                            ended = std::move(error);
                        });
        settle();
        return made;
    }
    /// Everything that is due now, without letting time pass.
    void settle() {
        context.restart();
        context.poll();
    }
    /// Lets `time` pass.
    void pass(Seconds time) { run(clock.sleep(time)); }
    /// Until what phones have said of themselves is in the peer store.
    void passUntilRecordsAreWritten() { pass(limits::recordInterval + 2s); }
    /// Stops the service and waits for its end.
    void stopAndWait() {
        receiver->stop();
        runUntilIdle(context, clock);
        EXPECT_FALSE(running);
    }

    void putPeers(const std::vector<PeerRecord>& peers) { PeerStore(files, system.directories).writeBook({peers}); }
    [[nodiscard]] PeerRecord onlyPeer() { return PeerStore(files, system.directories).loadBook().peers.at(0); }
    [[nodiscard]] PeerRecord tabletRecord() const {
        PeerRecord record = phoneRecord();
        record.peer_pubkey = tabletKey.publicKey().peerKey();
        record.peer_hostname = "Tablet";
        record.peer_ip = "203.0.113.3";
        return record;
    }

    /// A phone that has shaken hands.
    [[nodiscard]] std::unique_ptr<ScriptedPeer> phone() { return connectAs(phoneKey); }
    [[nodiscard]] std::unique_ptr<ScriptedPeer> connectAs(const platform::PrivateKey& key) {
        return run(ScriptedPeer::connect(*this, port, key));
    }
    /// A connection that says nothing.
    [[nodiscard]] std::unique_ptr<platform::Stream> silentStranger() {
        return run(network.connect("203.0.113.1", port, context.get_executor()));
    }
    /// Makes an offer and returns the answer's offset.
    std::int64_t offer(ScriptedPeer& who, const std::string& name, std::int64_t size = 10,
                       const std::string& id = "ID-1") {
        run(who.send(TransportMessage::fileOffer(name, size, "text/plain", id)));
        return run(who.expect<TransportMessage::Resume>()).accepted_offset.bytesBefore();
    }
    void send(ScriptedPeer& who, TransportMessage message) {
        run(who.send(std::move(message)));
        settle();
    }
    void sendData(ScriptedPeer& who, const std::string& data) {
        run(who.sendBinary(toBytes(data)));
        settle();
    }
    /// Whether the service has closed this connection, without a further frame.
    [[nodiscard]] bool seesTheEnd(ScriptedPeer& who) { return run(who.seesTheEnd()); }

    [[nodiscard]] std::vector<std::string> failureTexts() const {
        std::vector<std::string> texts;
        for (const Receiver::Failure& failure : failures) {
            texts.push_back(describe(failure.error));
        }
        return texts;
    }
    /// Everything told of connections that have ended.
    [[nodiscard]] std::size_t ends() const { return transfers.size() + clips.size() + syncs.size() + failures.size(); }
    [[nodiscard]] std::string text(const platform::Path& path) const {
        return files.content(path).value_or("(no file)");
    }

    [[nodiscard]] Receiver::Callbacks callbacks() {
        return {.onListening = [this](std::uint16_t number) { ports.push_back(number); },
                .onTransfer = [this](const Receiver::File& file) { transfers.push_back(file); },
                .onClipboard = [this](const Receiver::Clipboard& clip) { clips.push_back(clip); },
                .onSync = [this](const Receiver::ProcessOutcome& outcome) { syncs.push_back(outcome); },
                .onError = [this](const Receiver::Failure& failure) { failures.push_back(failure); },
                .onAuthenticated = [this](const Receiver::Arrival& arrival) { authenticated.push_back(arrival); },
                .onLeft =
                    [this](const Receiver::Departure& departure) {
                        left.emplace_back(departure.peerKey, ends());
                        heardAt = departure.heardAt;
                    },
                .onTransferStarted = [this](const Receiver::Transfer& transfer) { started.push_back(transfer); },
                .onTransferProgress =
                    [this](const Receiver::TransferProgress& progress) { progresses.push_back(progress); },
                .onTransferEnded =
                    [this](const Receiver::TransferEnd& end) {
                        endsBeforeTransferEnd = ends();
                        transferEnds.push_back(end);
                    }};
    }

    std::optional<Receiver> receiver;
    asio::cancellation_signal stopRun; ///< cancels run()
    bool running = false;
    std::exception_ptr ended;               ///< what run() threw
    std::optional<std::size_t> ownersAtEnd; ///< transfers that were still open when run() returned
    std::vector<std::uint16_t> ports;
    std::vector<Receiver::File> transfers;
    std::vector<Receiver::Clipboard> clips;
    std::vector<Receiver::ProcessOutcome> syncs;
    std::vector<Receiver::Failure> failures;
    std::vector<Receiver::Arrival> authenticated;
    std::vector<Receiver::Transfer> started;
    std::vector<Receiver::TransferProgress> progresses;
    std::vector<Receiver::TransferEnd> transferEnds;
    std::size_t endsBeforeTransferEnd = 0;             ///< of connections, when the last of those was told
    std::vector<std::pair<PeerKey, std::size_t>> left; ///< with how many ends had been told by then
    platform::Clock::Instant heardAt{};                ///< of the phone that left last
};

} // namespace orlinth::fakes
