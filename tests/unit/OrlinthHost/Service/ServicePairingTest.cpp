#include "OrlinthHost/Service/ServicePairing.h"

#include "OrlinthCore/Pairing/PairCrypto.h"
#include "OrlinthCore/Pairing/PairWire.h"
#include "OrlinthCore/Pairing/QRRenderer.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Service/PairingMessage.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "ServiceWorld.h"
#include "platform/Imaging.h"

#include <gmock/gmock.h>

#include <utility>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using State = PairingView::State;

/// Keeps the service's interface for the test.
class OpenFace final : public ServiceFace {
public:
    [[nodiscard]] Task<> start(ServiceApi& apiOf) override {
        api = &apiOf;
        co_return;
    }
    void stop() override {}
    [[nodiscard]] Task<> finish() override {
        api = nullptr;
        co_return;
    }

    ServiceApi* api = nullptr;
};

/// A service that is asked to pair a tablet.
class ServicePairingTest : public ServiceWorldTest {
protected:
    ServicePairingTest() { settings_.faces = {&face_}; }

    void begin(PairingOptions options = {}) {
        start();
        ticket_.emplace(world_.run(face_.api->pair(std::move(options))));
        payload_ = PairingPayload::decode(ticket_->payload().reveal());
        settle();
    }
    [[nodiscard]] PairingView view() const { return face_.api->pairing().value_or(PairingView{.problem = "none"}); }
    [[nodiscard]] std::string introduction() const {
        return compactJson({{"peer_pubkey", tabletKey_.publicKey().base64()},
                            {"peer_ip", "192.168.1.50"},
                            {"peer_port", 7002},
                            {"peer_hostname", "Tablet"}});
    }
    /// The tablet has scanned the code.
    void introduce() {
        const SecretBytes key = PairCrypto::deriveAEADKey(payload_.secret().reveal());
        visit(PairWire::encodeFrame(PairCrypto::sealIntroduction(asBytes(introduction()), key)));
        pass(100ms); // for those who have come late to be turned away
    }
    /// Somebody connects and says this.
    void visit(Bytes data, const char* from = "192.168.1.7:40112") {
        world_.network.sources.emplace_back(from);
        visitors_.push_back(world_.run(world_.network.connect("192.168.1.23", port, world_.context.get_executor())));
        try {
            world_.run(say(*visitors_.back(), std::move(data)));
        } catch (const platform::SystemError&) {
            // turned away
        }
        settle();
    }
    [[nodiscard]] static Task<> say(platform::Stream& stream, const Bytes data) { co_await stream.writeAll(data); }
    [[nodiscard]] std::string refusal(PairingOptions options = {}) {
        return world_.failure<HostError>(beginAndForget(std::move(options))).description();
    }
    [[nodiscard]] Task<> beginAndForget(PairingOptions options) {
        static_cast<void>(co_await face_.api->pair(std::move(options)));
    }
    void expectBackAtWork() {
        settle();
        deliver("back.txt");
        EXPECT_EQ("content of back.txt", received("back.txt"));
    }

    OpenFace face_;
    platform::PrivateKey tabletKey_ = platform::PrivateKey::generate();
    PairingPayload payload_;
    std::optional<ServicePairing::Ticket> ticket_;
    std::vector<std::unique_ptr<platform::Stream>> visitors_;
};

TEST_F(ServicePairingTest, PairsThePhoneThatSomebodyHasConfirmed) {
    begin();
    EXPECT_EQ(State::waiting, view().state);
    EXPECT_EQ(world_.clock.epochMilliseconds() + 2min, view().expires);
    EXPECT_EQ("", view().digits) << "it is not announced";
    EXPECT_THAT(world_.services.services, IsEmpty());
    EXPECT_EQ(ServiceView::State::lent, face_.api->service().state);
    EXPECT_THAT(events_.loans(), ElementsAre("lent"));
    EXPECT_EQ(port, payload_.peer_port);
    EXPECT_EQ("192.168.1.23", payload_.peer_ip);
    introduce();
    EXPECT_EQ(State::confirming, view().state);
    EXPECT_EQ("Tablet", view().phone);
    EXPECT_EQ(PairCrypto::confirmationCode(payload_.secret().reveal(), world_.computerKey.publicKey(),
                                           tabletKey_.publicKey(), asBytes(introduction())),
              view().confirmationCode);
    EXPECT_THAT(paired(), ElementsAre("Pixel-8"));
    EXPECT_EQ(ServiceView::State::listening, face_.api->service().state) << "the port is back";
    EXPECT_THAT(events_.loans(), ElementsAre("lent", "returned"));
    EXPECT_TRUE(ticket_->confirm(true));
    EXPECT_FALSE(ticket_->confirm(false));
    pass(1s);
    EXPECT_EQ(State::done, view().state);
    EXPECT_EQ(std::nullopt, view().expires);
    EXPECT_THAT(paired(), ElementsAre("Pixel-8", "Tablet"));
    EXPECT_EQ(world_.clock.epochMilliseconds() - 1s,
              PeerStore(world_.files, world_.system.directories).loadBook().peers.at(1).paired_at_epoch_ms);
    EXPECT_TRUE(AddressMemory(world_.files, world_.clock, world_.log, home_.dataDirectory()).told());
    expectBackAtWork();
    pass(ServicePairing::endedLifetime);
    EXPECT_EQ(std::nullopt, face_.api->pairing());
}

TEST_F(ServicePairingTest, TheCodeIsAPictureThatPhonesReadAndIsGoneWithTheFirstPhone) {
    begin();
    const SecretBytes picture = ticket_->picture();
    const platform::RasterImage image = platform::decodePng(picture.reveal());
    EXPECT_LT(image.width, 200) << "a pixel a module";
    EXPECT_EQ(payload_.jsonString(), QRRenderer::decode(image));
    introduce();
    EXPECT_THROW(static_cast<void>(ticket_->picture()), HostError);
    EXPECT_THROW(static_cast<void>(ticket_->payload()), HostError);
}

TEST_F(ServicePairingTest, RecordsNobodyForANo) {
    begin();
    introduce();
    EXPECT_TRUE(ticket_->confirm(false));
    settle();
    EXPECT_EQ(State::failed, view().state);
    EXPECT_EQ("the codes were not confirmed; nothing was recorded", view().problem);
    EXPECT_THAT(view().hint, HasSubstr("pair again"));
    EXPECT_THAT(paired(), ElementsAre("Pixel-8"));
}

TEST_F(ServicePairingTest, RecordsNobodyIfNobodyConfirmsInTime) {
    begin();
    introduce();
    pass(ServicePairing::confirmationLimit);
    EXPECT_EQ(State::failed, view().state);
    EXPECT_THAT(view().problem, HasSubstr("nobody has confirmed"));
    EXPECT_FALSE(ticket_->confirm(true));
    pass(1s);
    EXPECT_THAT(paired(), ElementsAre("Pixel-8"));
}

TEST_F(ServicePairingTest, ThereIsNothingToConfirmBeforeAPhoneHasCome) {
    begin();
    EXPECT_FALSE(ticket_->confirm(true));
    introduce();
    pass(1s);
    EXPECT_EQ(State::confirming, view().state);
}

TEST_F(ServicePairingTest, EndsWhenItsTimeIsOver) {
    begin({.timeout = 30s});
    pass(30s + 100ms);
    EXPECT_EQ(State::failed, view().state);
    EXPECT_EQ("pair-mode timeout", view().problem);
    EXPECT_THAT(view().hint, HasSubstr("No phone has answered"));
    expectBackAtWork();
}

TEST_F(ServicePairingTest, IsCancelledAndThenDismissed) {
    begin();
    ticket_->cancel();
    pass(100ms);
    EXPECT_EQ(State::failed, view().state);
    EXPECT_EQ("cancelled", view().problem);
    expectBackAtWork();
    ticket_->cancel();
    EXPECT_EQ(std::nullopt, face_.api->pairing());
}

TEST_F(ServicePairingTest, GoesWithItsTicketWhileItWaitsAndWhileSomebodyIsToConfirm) {
    for (const bool hasPhone : {false, true}) {
        begin();
        if (hasPhone) {
            introduce();
        }
        ticket_.reset();
        pass(100ms);
        EXPECT_EQ(std::nullopt, face_.api->pairing());
        EXPECT_THAT(paired(), ElementsAre("Pixel-8"));
        expectBackAtWork();
        stop();
    }
}

TEST_F(ServicePairingTest, IsOneAtATimeAlsoWithThoseWhoBorrowThePort) {
    begin();
    EXPECT_EQ("another pairing is under way", refusal());
    const auto refused = [this] {
        return world_.failure<HostError>(BorrowedPort::borrow(home_, std::nullopt)).description();
    };
    EXPECT_THAT(refused(), HasSubstr("the port is lent already"));
    introduce();
    EXPECT_THAT(refused(), HasSubstr("another pairing is under way"));
    ticket_->cancel();
    pass(100ms);
    std::optional<BorrowedPort> borrowed = world_.run(BorrowedPort::borrow(home_, std::nullopt));
    ASSERT_TRUE(borrowed);
    EXPECT_EQ("another pairing is under way", refusal());
    borrowed.reset();
    pass(100ms);
    ticket_.emplace(world_.run(face_.api->pair({})));
    EXPECT_EQ(State::waiting, view().state) << "the failed one is shown no more";
}

TEST_F(ServicePairingTest, AnOldTicketHasNothingToDoWithTheNextPairing) {
    begin();
    ticket_->cancel();
    pass(100ms);
    std::optional<ServicePairing::Ticket> old = std::exchange(ticket_, std::nullopt);
    ticket_.emplace(world_.run(face_.api->pair({})));
    EXPECT_THROW(static_cast<void>(old->payload()), HostError);
    old->cancel();
    old.reset();
    settle();
    EXPECT_EQ(State::waiting, view().state);
}

TEST_F(ServicePairingTest, AnnouncesTheDigitsIfThatIsWanted) {
    begin({.isAnnounced = true});
    EXPECT_EQ(4U, view().digits.size());
    ASSERT_EQ(1U, world_.services.services.size());
    introduce();
    EXPECT_THAT(world_.services.services, IsEmpty());
    EXPECT_EQ("", view().digits);
}

TEST_F(ServicePairingTest, LetsInNobodyFromElsewhereUnlessThatIsWanted) {
    begin();
    visit({}, "8.8.8.8:1000");
    EXPECT_EQ(1, events_.count("turned away 8.8.8.8:1000"));
    introduce();
    EXPECT_EQ(State::confirming, view().state);
}

TEST_F(ServicePairingTest, ThePortIsBackIfItCannotBegin) {
    start();
    EXPECT_THAT(refusal({.interface = "nowhere0"}), HasSubstr("there is no interface 'nowhere0'"));
    EXPECT_EQ(std::nullopt, face_.api->pairing());
    expectBackAtWork();
    EXPECT_THAT(events_.loans(), ElementsAre("lent", "returned"));
    world_.network.listenErrno = EMFILE;
    EXPECT_THROW(world_.run(beginAndForget({})), platform::SystemError);
    pass(2s);
    world_.network.listenErrno.reset();
    pass(2s);
    EXPECT_EQ(2U, events_.loans().size()) << "nobody has had it";
    expectBackAtWork();
    world_.files.put(dataFolder / "peer.json", "{nonsense");
    EXPECT_THROW(world_.run(beginAndForget({})), PeerStoreError);
}

TEST_F(ServicePairingTest, HintsNameNoFlagsOfACommand) {
    const DeviceInfoError noInterface = DeviceInfoError::noActiveInterface();
    EXPECT_EQ("Is this computer connected?", hintForPairing(noInterface));
    EXPECT_EQ("Pair on another interface.", hintForPairing(DeviceInfoError::macNotFound("enp3s0")));
    EXPECT_EQ("Another program may be using the port. Try again later.",
              hintForPairing(PairListener::Error::listenerStartFailed("Address already in use")));
    settings_.port.places = {"enp3s0"};
    start();
    const HostError elsewhere = world_.failure<HostError>(beginAndForget({.interface = "wlan0"}));
    EXPECT_THAT(elsewhere.hint(), HasSubstr("Pair without choosing an interface"));
}

TEST_F(ServicePairingTest, EndsWithTheService) {
    for (const bool hasPhone : {false, true}) {
        begin();
        if (hasPhone) {
            introduce();
        }
        stop();
        ticket_->cancel(); // of something that is gone
        EXPECT_FALSE(ticket_->confirm(true));
        ticket_.reset();
    }
}

TEST_F(ServicePairingTest, TheSecretIsInNoLine) {
    begin({.isAnnounced = true});
    introduce();
    EXPECT_TRUE(ticket_->confirm(true));
    pass(1s);
    EXPECT_THAT(world_.log.messages(), testing::Contains(HasSubstr("paired with Tablet")));
    EXPECT_THAT(world_.log.messages(), testing::Each(Not(HasSubstr(payload_.pairing_secret))));
}

// At the control socket

/// The pairing of a program that has connected to the socket.
class SocketPairingTest : public ServicePairingTest {
protected:
    void beginAtTheSocket(const std::string& request = "{\"request\":\"pair\"}\n") {
        start();
        owner_ = connectToControl();
        first_ = decodePairing(ask(*owner_, request));
        const SecretBytes code = world_.run(world_.unixSockets.receiveSecret(*owner_, 4096));
        payload_ = PairingPayload::decode(code.reveal());
        settle();
    }
    void beginAtTheSocketAgain() {
        owner_.reset();
        pass(1s);
        stop();
        beginAtTheSocket();
    }
    [[nodiscard]] PairingView next() { return decodePairing(world_.run(readLine(*owner_))); }

    std::unique_ptr<platform::Stream> owner_;
    PairingView first_;
};

TEST_F(SocketPairingTest, PairsThePhoneThatTheProgramHasConfirmed) {
    beginAtTheSocket();
    EXPECT_EQ(State::waiting, first_.state);
    introduce();
    const PairingView confirming = next();
    EXPECT_EQ(State::confirming, confirming.state);
    EXPECT_EQ("Tablet", confirming.phone);
    EXPECT_EQ(4U, confirming.confirmationCode.size());
    world_.run(write(*owner_, encodeConfirmation(true) + "\n"));
    EXPECT_EQ(State::done, next().state);
    EXPECT_EQ("", world_.run(readLine(*owner_))) << "it is over, and so is the connection";
    EXPECT_THAT(paired(), ElementsAre("Pixel-8", "Tablet"));
    EXPECT_EQ(std::nullopt, face_.api->pairing());
}

TEST_F(SocketPairingTest, EndsWithTheConnection) {
    beginAtTheSocket();
    EXPECT_EQ(State::waiting, view().state);
    owner_.reset();
    pass(100ms);
    EXPECT_EQ(std::nullopt, face_.api->pairing());
    beginAtTheSocketAgain();
    introduce();
    EXPECT_EQ(State::confirming, next().state);
    owner_.reset();
    pass(100ms);
    EXPECT_EQ(std::nullopt, face_.api->pairing());
    EXPECT_THAT(paired(), ElementsAre("Pixel-8"));
    expectBackAtWork();
}

TEST_F(SocketPairingTest, SaysWhyItFails) {
    beginAtTheSocket("{\"request\":\"pair\",\"timeout_seconds\":7}\n");
    EXPECT_EQ(world_.clock.epochMilliseconds() + 7s, first_.expires);
    const PairingView failed = next();
    EXPECT_EQ(State::failed, failed.state);
    EXPECT_EQ("pair-mode timeout", failed.problem);
    EXPECT_EQ("{\"error\":\"there is no interface 'nowhere0' that is up and has an IPv4 address\"}",
              ask("{\"interface\":\"nowhere0\",\"request\":\"pair\"}\n"));
    EXPECT_EQ("{\"error\":\"a pairing waits 1 to 3600 seconds for its phone\"}",
              ask("{\"request\":\"pair\",\"timeout_seconds\":0}\n"));
}

TEST_F(SocketPairingTest, IsOneAtATime) {
    beginAtTheSocket();
    EXPECT_EQ("{\"error\":\"another pairing is under way\"}", ask("{\"request\":\"pair\"}\n"));
}

TEST_F(SocketPairingTest, ANoAndNonsenseRecordNobody) {
    beginAtTheSocket();
    introduce();
    EXPECT_EQ(State::confirming, next().state);
    world_.run(write(*owner_, encodeConfirmation(false) + "\n"));
    EXPECT_EQ(State::failed, next().state);
    beginAtTheSocketAgain();
    introduce();
    EXPECT_EQ(State::confirming, next().state);
    world_.run(write(*owner_, "{\"confirm\":1}\n"));
    pass(100ms);
    EXPECT_EQ(std::nullopt, face_.api->pairing());
    EXPECT_THAT(paired(), ElementsAre("Pixel-8"));
}

} // namespace
} // namespace orlinth::host
