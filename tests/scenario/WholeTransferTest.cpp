#include "OrlinthCore/Receiving/ReceiveTransfer.h"
#include "OrlinthCore/Sending/SendTransfer.h"
#include "fakes/World.h"

#include <gtest/gtest.h>

#include <random>

namespace orlinth {
namespace {

using fakes::World;

/// Two computers, each with its own disk, on one network.
class WholeTransfer : public testing::Test {
protected:
    WholeTransfer() {
        content.resize(3 * 1'048'576 + 12'345);
        std::mt19937 random(7);
        for (char& character : content) {
            character = static_cast<char>(random());
        }
        sender.files.put("/photos/trip.jpg", content);
    }

    SendRequest sendRequest() {
        PeerRecord peer = sender.phoneRecord();
        return {.fileURL = "/photos/trip.jpg",
                .journal = journal,
                .terms = {.peer = peer,
                          .staticKey = sender.computerKey,
                          .warmConnectTimeout = 5s,
                          .postWakeConnectTimeout = 0s,
                          .postWakeAttemptTimeout = 0s,
                          .postWakeRetryInterval = 0s}};
    }

    /// The receiving computer plays the phone's part of the sender's world, with a disk of its own.
    platform::System receivingSystem() { return sender.systemOn(receiverFiles); }

    /// Whether the receiver has exactly the sender's bytes there (comparing texts would print megabytes on failure).
    bool arrivedAt(const platform::Path& path) const { return receiverFiles.content(path) == content; }

    struct Outcome {
        std::optional<SentFile> sent;
        std::optional<ReceivedFile> received;
    };

    /// One attempt, both sides; a side that fails leaves its result empty.
    Outcome attempt() {
        Outcome outcome;
        platform::System receiving = receivingSystem();
        ReceiveRequest request{.staticKey = sender.phoneKey,
                               .expectedPeerPubkey = sender.computerKey.publicKey(),
                               .downloadsDir = "/inbox",
                               .port = World::phonePort};
        sender.alongside([](platform::System& system, ReceiveRequest what, Outcome& to) -> Task<> {
            try {
                to.received = co_await receiveOneTransfer(system, std::move(what));
            } catch (const Error&) {
            }
        }(receiving, std::move(request), outcome));
        try {
            outcome.sent = sender.run(sendOneFile(sender.system, sendRequest()));
        } catch (const Error&) {
        }
        fakes::runUntilIdle(sender.context, sender.clock);
        return outcome;
    }

    /// What lies in the inbox.
    [[nodiscard]] std::vector<std::string> filesInInbox() const {
        std::vector<std::string> names = receiverFiles.allFiles();
        std::erase_if(names, [](const std::string& name) { return !name.starts_with("/inbox/"); });
        return names;
    }

    void expectNothingHalfUnderAFinalName(const Outcome& outcome, int round) {
        for (const std::string& file : filesInInbox()) {
            const bool isOurs = file.ends_with(".partial") || file.ends_with(".partial.meta.json");
            EXPECT_TRUE(isOurs || (outcome.received && arrivedAt(file))) << file << " in round " << round;
        }
    }

    /// Empties the inbox. A partial may only be left where the sender had said its last word before the receiver
    /// noticed the damage: Done is not answered, so the sender had already forgotten the transfer's id.
    void clearInbox(bool mustHoldNoPartial) {
        for (const std::string& file : filesInInbox()) {
            EXPECT_FALSE(mustHoldNoPartial && file.find(".partial") != std::string::npos) << file;
            receiverFiles.remove(file);
        }
    }

    World sender;
    fakes::MemoryFileSystem receiverFiles;
    std::string content;
    InFlightJournal journal{sender.files, "/state/inflight.json"};
};

TEST_F(WholeTransfer, ArrivesByteForByte) {
    const Outcome outcome = attempt();
    ASSERT_TRUE(outcome.sent && outcome.received);
    EXPECT_TRUE(arrivedAt("/inbox/trip.jpg"));
    EXPECT_EQ(outcome.received->mime, "image/jpeg");
}

TEST_F(WholeTransfer, CutAnywhereItResumesAndArrivesByteForByte) {
    std::mt19937 random(20261121);
    int resumed = 0;
    for (int round = 0; round < 40; ++round) {
        const std::size_t cut = random() % (content.size() + 600);
        const fakes::WireFaults fault =
            round % 2 == 0 ? fakes::WireFaults{.resetAfter = cut} : fakes::WireFaults{.endAfter = cut};
        const fakes::WireFaults answerFault{.resetAfter = random() % 300};
        const bool inTheData = round % 4 != 3;
        sender.network.faults.push_back(inTheData ? std::pair(fault, fakes::WireFaults{})
                                                  : std::pair(fakes::WireFaults{}, answerFault));
        const Outcome first = attempt();
        sender.network.faults.clear();
        expectNothingHalfUnderAFinalName(first, round);
        const Outcome second = attempt();
        ASSERT_TRUE(second.sent && second.received) << "round " << round << ", cut at " << cut;
        EXPECT_TRUE(arrivedAt(second.received->savedAt)) << "round " << round << ", cut at " << cut;
        EXPECT_TRUE(journal.snapshotEntries().empty());
        resumed += second.sent->resumedFromOffset > ByteOffset() ? 1 : 0;
        clearInbox(!first.sent || first.received);
    }
    EXPECT_GT(resumed, 10) << "too few rounds were cut in the middle";
}

TEST_F(WholeTransfer, OneDamagedByteAnywhereNeverReachesAFinalName) {
    std::mt19937 random(4711);
    for (int round = 0; round < 40; ++round) {
        // Handshake, offer and their prefixes lie in the first few hundred bytes: half of the rounds aim there.
        const std::size_t at = round % 2 == 0 ? random() % 500 : random() % content.size();
        sender.network.faults.push_back({{.flipBitAt = at}, {}});
        const Outcome damaged = attempt();
        EXPECT_FALSE(damaged.received) << "byte " << at;
        expectNothingHalfUnderAFinalName(damaged, round);
        const Outcome repaired = attempt();
        ASSERT_TRUE(repaired.sent && repaired.received) << "byte " << at;
        EXPECT_TRUE(arrivedAt(repaired.received->savedAt)) << "byte " << at;
        clearInbox(!damaged.sent);
    }
}

} // namespace
} // namespace orlinth
