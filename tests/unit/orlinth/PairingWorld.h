#pragma once

#include "unit/orlinth/CommandWorld.h"

namespace orlinth::cli {

/// A computer with no phone yet, on which `pair` and `join` run, and those on the other side of it.
class PairingCommandTest : public CommandWorldTest {
protected:
    PairingCommandTest() {
        pair({});
        using fakes::FakeNetworkInterfaces;
        world.interfaces.addresses.push_back(FakeNetworkInterfaces::hardware("wlan0", Bytes(6, std::byte{2})));
        world.interfaces.addresses.push_back(FakeNetworkInterfaces::ipv4("wlan0", {203, 0, 113, 1}));
    }

    /// Checks a failure: status, its line and hint, and that nobody was recorded.
    void expectNothingRecorded(const Ended& ended, const std::string& failure, const std::string& hint) {
        EXPECT_EQ(ended.status, 1);
        EXPECT_EQ(ended.failure(), "orlinth: " + failure);
        EXPECT_EQ(ended.errors.back(), hint);
        EXPECT_THAT(book().peers, testing::IsEmpty());
        EXPECT_FALSE(world.files.exists("/home/ann/.local/share/group.com.tarvinex.orlinth/peers.json"));
    }

    /// The confirmation code that people read.
    [[nodiscard]] static std::string codeIn(const Ended& ended) {
        const std::string before = "Confirmation code: ";
        const std::size_t at = ended.output.find(before);
        return at == std::string::npos ? "" : ended.output.substr(at + before.size(), 4);
    }

    /// Lets somebody start services, with this outcome; one that runs can be reached then.
    void startServices(platform::ServiceStart outcome, bool canBeReached = true) {
        world.system.directories.home = "/home/ann";
        world.userServices.outcome = std::move(outcome);
        if (world.userServices.outcome.outcome == platform::ServiceStart::Outcome::running && canBeReached) {
            world.userServices.onAsked = [this] {
                service = world.unixSockets.listen(dataFolder / "service.sock", world.context.get_executor());
            };
        }
    }

    std::unique_ptr<platform::Listener> service; ///< that was started

    inline static const std::string startedLine =
        "The Orlinth service is running now, and starts whenever you log in. To switch it off: "
        "`systemctl --user disable --now orlinth`";
    inline static const std::string byHandLine =
        "The Orlinth service is not running. To receive files, and to send what you share, run `orlinth serve`.";

    inline static const std::string notConfirmedHint =
        "If they differed, somebody else may have answered: pair again with `--no-advertise`. If the other side has "
        "recorded this machine, remove it there (`orlinth peers remove`).";
};

} // namespace orlinth::cli
