#pragma once

#include "OrlinthHost/Phones/AddressMemory.h"
#include "fakes/HomeNetwork.h"
#include "fakes/ProvenKey.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::host {

/// This computer at home, 192.168.7.10 behind 192.168.7.1, where the phone was met at .30; its record says so.
class FinderWorldTest : public testing::Test {
protected:
    FinderWorldTest() {
        joinHome(world);
        for (int i = 1; i < 255; ++i) {
            world.routes.putOnLink(ip("192.168.7." + std::to_string(i)));
        }
        world.routes.putOwn(ip("192.168.7.10"));
        record = world.phoneRecord();
        record.peer_ip = "192.168.7.30";
        homeOf.peers().upsert(record);
    }
    ~FinderWorldTest() override { EXPECT_EQ(world.probe.underWay(), 0U); }

    /// Answers the first message of every connection there with a proof of this key, and counts what comes.
    void answer(const std::string& literal, const platform::PrivateKey& key,
                std::uint16_t port = fakes::World::phonePort) {
        world.probe.accept(ip(literal), port, [this, literal, &key](std::unique_ptr<fakes::MemoryStream> stream) {
            world.alongside(fakes::proveKey(std::move(stream), key.clone(), received[literal]));
        });
    }
    /// Takes connections, and says nothing until the other side hangs up.
    void holdOpen(const std::string& literal) {
        world.probe.accept(ip(literal), fakes::World::phonePort, [this](std::unique_ptr<fakes::MemoryStream> stream) {
            world.alongside(sayNothing(std::move(stream)));
        });
    }
    [[nodiscard]] Task<> sayNothing(std::unique_ptr<fakes::MemoryStream> stream) {
        Bytes first(fakes::bytesOfFirstMessage);
        if (co_await stream->readExact(first) < first.size()) {
            co_return;
        }
        mostAsked = std::max(mostAsked, ++asked_);
        Bytes rest(1000);
        static_cast<void>(co_await stream->readExact(rest));
        --asked_;
    }

    /// The phone was met there, with this computer at home.
    void meetAt(const std::string& literal, std::optional<MacAddress> mac = {}) {
        memory.reached(record.peer_pubkey, {.host = host(literal), .mac = mac, .network = homeNetwork});
    }

    fakes::World world;
    Home homeOf{.system = world.system, .executor = world.context.get_executor()};
    AddressMemory memory{world.files, world.clock, world.log, homeOf.dataDirectory()};
    PeerRecord record;
    platform::PrivateKey otherKey = platform::PrivateKey::generate();
    std::map<std::string, std::size_t> received; ///< bytes, by the address that got them
    int mostAsked = 0;                           ///< at once, of those who say nothing

private:
    int asked_ = 0;
};

} // namespace orlinth::host
