#include "platform/linux/LinuxMachine.h"

#include "fakes/TemporaryFolder.h"
#include "platform/linux/TcpListener.h"

#include <asio/io_context.hpp>
#include <gmock/gmock.h>

#include <fstream>
#include <unistd.h>

namespace orlinth::platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* heading =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

TEST(ListeningSockets, AreThoseThatListenInTheTable) {
    const std::string table =
        std::string(heading) +
        "   0: 00000000:6F37 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1000        0 "
        "4711 1 0000000000000000 100 0 0 10 0\n"
        "   1: 0100007F:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 "
        "4712 1 0000000000000000 100 0 0 10 0\n"
        "   2: 0100007F:6F37 0100007F:0016 01 00000000:00000000 00:00000000 00000000  1000        0 "
        "4713 1 0000000000000000 100 0 0 10 0\n";
    EXPECT_THAT(listeningSockets(table),
                ElementsAre(ListeningSocket{.port = 28471, .isEverywhere = true, .user = 1000, .inode = 4711},
                            ListeningSocket{.port = 22, .isEverywhere = false, .user = 0, .inode = 4712}));
}

TEST(ListeningSockets, MayBeOfIPv6) {
    const std::string table = std::string(heading) +
                              "   0: 00000000000000000000000000000000:6F37 00000000000000000000000000000000:0000 0A "
                              "00000000:00000000 00:00000000 00000000  1000        0 4711 1\n"
                              "   1: 00000000000000000000000001000000:6F37 00000000000000000000000000000000:0000 0A "
                              "00000000:00000000 00:00000000 00000000  1000        0 4712 1\n";
    EXPECT_THAT(listeningSockets(table),
                ElementsAre(ListeningSocket{.port = 28471, .isEverywhere = true, .user = 1000, .inode = 4711},
                            ListeningSocket{.port = 28471, .isEverywhere = false, .user = 1000, .inode = 4712}));
}

TEST(ListeningSockets, LeaveOutWhatMakesNoSense) {
    for (const char* const line :
         {"", "\n", "0A", "0: 00000000 0 0A 0 0 0 0 0 1", "0: 0:XYZ 0 0A 0 0 0 1 0 1", "0: 0:10000 0 0A 0 0 0 1 0 1",
          "0: 0:16 0 0A 0 0 0 user 0 1", "0: 0:16 0 0A 0 0 0 1 0 99999999999999999999999"}) {
        EXPECT_THAT(listeningSockets(std::string(heading) + line), IsEmpty()) << line;
    }
    EXPECT_THAT(listeningSockets(""), IsEmpty());
}

TEST(LinuxMachine, KnowsWhoHasAPort) {
    asio::io_context context;
    auto listener = std::make_unique<TcpListener>(ListenOptions{}, context.get_executor());
    const std::uint16_t port = listener->port();
    const LinuxMachine machine;
    const std::optional<PortHolder> holder = machine.holderOf(port);
    ASSERT_TRUE(holder.has_value());
    EXPECT_EQ(holder->user, ::geteuid());
    EXPECT_TRUE(holder->isThisUser);
    EXPECT_EQ(holder->program, "LinuxMachineTes") << "as long as the kernel keeps it";
    listener.reset();
    EXPECT_EQ(machine.holderOf(port), std::nullopt);
}

TEST(LinuxMachine, NamesNoProgramOfAnotherUser) {
    const fakes::TemporaryFolder proc;
    std::filesystem::create_directories(proc / "net");
    std::ofstream(proc / "net/tcp") << heading << "0: 00000000:6F37 0:0 0A 0:0 0:0 0 " << ::geteuid() + 1
                                    << " 0 4711 1\n";
    const LinuxMachine machine(proc.path());
    EXPECT_EQ(machine.holderOf(28471), (PortHolder{.user = ::geteuid() + 1, .isThisUser = false, .program = ""}));
    EXPECT_EQ(machine.holderOf(28472), std::nullopt);
}

TEST(LinuxMachine, KnowsNothingWithoutProc) {
    const LinuxMachine machine("/nowhere");
    EXPECT_EQ(machine.holderOf(28471), std::nullopt);
}

TEST(LinuxMachine, WasStartedBeforeNow) {
    const LinuxMachine machine;
    const std::optional<EpochMilliseconds> started = machine.startedAt();
    ASSERT_TRUE(started.has_value());
    EXPECT_LT(*started, std::chrono::system_clock::now());
    EXPECT_TRUE(machine.isClockSynchronised().has_value());
}

} // namespace
} // namespace orlinth::platform
