#include "fakes/CancelMidway.h"
#include "fakes/RunTask.h"
#include "platform/Spawn.h"
#include "platform/SystemError.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxNeighbours.h"
#include "platform/linux/LinuxNetworkNews.h"
#include "platform/linux/LinuxProbe.h"
#include "platform/linux/LinuxRoutes.h"
#include "platform/linux/TcpListener.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <netinet/in.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

/// Neighbours, routes and probes on the real kernel, in two networks of their own:
///
///     this process                                  a child
///     home 10.77.0.1/24, fd77::1/64  ══ veth ══  there 10.77.0.2/24, fd77::2/64
///     192.0.2.0/24, 203.0.113.0/24 by 10.77.0.2     203.0.113.0/24 prohibited, nothing else
namespace orlinth::platform {
namespace {

using SteadyClock = std::chrono::steady_clock;

/// Nothing here takes this long; it only keeps a broken test from hanging.
constexpr auto patience = 60s;

bool run(const std::string& script) {
    return std::system(("set -e\n" + script).c_str()) == 0; // NOLINT(bugprone-command-processor): made of literals
}

/// A network of its own for this process; as root of a user namespace if it is not root. False if that is not allowed.
bool enterOwnNetwork() {
    if (::unshare(CLONE_NEWNET) == 0) {
        return true;
    }
    const std::string user = "0 " + std::to_string(::geteuid()) + " 1\n";
    const std::string group = "0 " + std::to_string(::getegid()) + " 1\n";
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        return false;
    }
    std::ofstream("/proc/self/setgroups") << "deny\n";
    std::ofstream("/proc/self/gid_map") << group;
    std::ofstream("/proc/self/uid_map") << user;
    return ::geteuid() == 0;
}

/// The other computer: a process in a network of its own, for as long as this lives.
class OtherNetwork {
public:
    OtherNetwork() {
        if (::pipe(toChild_.data()) != 0 || ::pipe(fromChild_.data()) != 0) {
            throw SystemError::fromErrno();
        }
        child_ = ::fork();
        if (child_ == 0) {
            ::close(toChild_[1]);
            ::close(fromChild_[0]);
            const bool isApart = ::unshare(CLONE_NEWNET) == 0;
            say(isApart);
            const bool isSetUp = heard(toChild_[0]) && run("ip link set lo up\n"
                                                           "ip address add 10.77.0.2/24 dev there\n"
                                                           "ip address add fd77::2/64 dev there nodad\n"
                                                           "ip link set there up\n"
                                                           "echo 1 > /proc/sys/net/ipv4/ip_forward\n"
                                                           "echo 0 > /proc/sys/net/ipv4/icmp_ratelimit\n"
                                                           "ip route add prohibit 203.0.113.0/24\n");
            say(isSetUp);
            heard(toChild_[0]); // until the test is over
            ::_exit(0);
        }
        ::close(toChild_[0]);
        ::close(fromChild_[1]);
    }
    ~OtherNetwork() {
        ::close(toChild_[1]);
        ::close(fromChild_[0]);
        ::waitpid(child_, nullptr, 0);
    }
    OtherNetwork(const OtherNetwork&) = delete;
    OtherNetwork& operator=(const OtherNetwork&) = delete;

    /// Lays the cable between the two; false if something is missing.
    bool connect() {
        if (!heard(fromChild_[0]) || !run("ip link set lo up\n"
                                          "ip link add home type veth peer name there\n"
                                          "ip link set there netns " +
                                          std::to_string(child_) + "\n")) {
            return false;
        }
        const char go = 1;
        return ::write(toChild_[1], &go, 1) == 1 && heard(fromChild_[0]) &&
               run("ip address add 10.77.0.1/24 dev home\n"
                   "ip address add fd77::1/64 dev home nodad\n"
                   "ip link set home up\n"
                   "ip route add 192.0.2.0/24 via 10.77.0.2\n"
                   "ip route add 203.0.113.0/24 via 10.77.0.2\n"
                   "ip route add unreachable 198.51.100.1\n"
                   "ip route add prohibit 198.51.100.2\n"
                   "ip route add blackhole 198.51.100.3\n"
                   "ip route add unreachable 2001:db8:1::/48\n");
    }

private:
    void say(bool isGood) const {
        const char word = isGood ? 1 : 0;
        static_cast<void>(!::write(fromChild_[1], &word, 1)); // where it fails the test hears nothing, and fails
    }
    static bool heard(int pipe) {
        char word = 0;
        return ::read(pipe, &word, 1) == 1 && word == 1;
    }

    std::array<int, 2> toChild_{};
    std::array<int, 2> fromChild_{};
    pid_t child_ = -1;
};

IpAddress address(const char* literal) {
    return parseIpAddress(literal).value();
}

/// What a failed comparison shows.
std::string shown(const ProbeFailure& failure) {
    std::string text = "errno " + std::to_string(failure.code.value());
    if (failure.icmp) {
        text += ", ICMP " + std::to_string(failure.icmp->type) + "/" + std::to_string(failure.icmp->code) + " from " +
                textOf(failure.icmp->from);
    }
    return text;
}

/// How many sockets of this process are connected to this port, and how many of those keep error reports.
std::pair<int, int> connectedTo(std::uint16_t port) {
    std::pair<int, int> found{};
    constexpr int enough = 1024;
    for (int number = 0; number < enough; ++number) {
        sockaddr_in6 peer{}; // one of IPv4 has its port at the same place
        socklen_t size = sizeof peer;
        if (::getpeername(number, reinterpret_cast<sockaddr*>(&peer), &size) != 0 || peer.sin6_port != htons(port) ||
            (peer.sin6_family != AF_INET && peer.sin6_family != AF_INET6)) {
            continue;
        }
        const bool isV4 = peer.sin6_family == AF_INET;
        int keeps = 0;
        socklen_t keepsSize = sizeof keeps;
        EXPECT_EQ(::getsockopt(number, isV4 ? IPPROTO_IP : IPPROTO_IPV6, isV4 ? IP_RECVERR : IPV6_RECVERR, &keeps,
                               &keepsSize),
                  0);
        ++found.first;
        found.second += keeps;
    }
    return found;
}

class LinuxReachTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        isAllowed = enterOwnNetwork();
        if (isAllowed) {
            other = std::make_unique<OtherNetwork>();
            isThere = other->connect();
        }
    }
    static void TearDownTestSuite() { other.reset(); }

    void SetUp() override {
        if (!isAllowed) {
            GTEST_SKIP() << "NOT TESTED: this needs root or user namespaces, and has neither";
        }
        ASSERT_TRUE(isThere) << "the networks could not be made: iproute2 or the kernel's veth is missing";
    }

    [[nodiscard]] ProbeResult probed(const char* literal, std::uint16_t port, Seconds limit = patience) {
        return fakes::runTask(context, probe.connect(address(literal), port, limit, context.get_executor()));
    }
    /// Nobody listens at port 9.
    [[nodiscard]] std::string failure(const char* literal, std::uint16_t port = 9) {
        ProbeResult result = probed(literal, port);
        const auto* const failed = std::get_if<ProbeFailure>(&result);
        if (failed == nullptr) {
            return result.index() == 0 ? "a connection" : "a timeout";
        }
        return shown(*failed);
    }
    /// The same beside work that does not end.
    [[nodiscard]] ProbeFailure failureWhileWatched(const char* literal) {
        std::optional<ProbeFailure> failed;
        const auto connect = [](LinuxProbe& by, IpAddress to, Executor executor,
                                std::optional<ProbeFailure>& into) -> Task<> {
            ProbeResult result = co_await by.connect(std::move(to), 9, patience, executor);
            into = std::get<ProbeFailure>(result);
        };
        spawn(context.get_executor(), connect(probe, address(literal), context.get_executor(), failed),
              [](const std::exception_ptr& error) { EXPECT_FALSE(error); });
        runUntil([&] { return failed.has_value(); });
        return failed.value_or(ProbeFailure());
    }
    static std::string failureOf(int number, std::optional<IcmpReport> icmp = std::nullopt) {
        return shown({.code = std::error_code(number, std::generic_category()), .icmp = std::move(icmp)});
    }

    [[nodiscard]] std::optional<Neighbour> entryOf(const char* literal) const {
        const std::vector<Neighbour> all = neighbours.list();
        const auto place = std::ranges::find(all, address(literal), &Neighbour::address);
        return place != all.end() ? std::optional(*place) : std::nullopt;
    }

    void runUntil(const std::function<bool()>& isDone) {
        const auto end = SteadyClock::now() + patience;
        while (!isDone()) {
            ASSERT_LT(SteadyClock::now(), end) << "nothing happens any more";
            context.restart();
            context.run_one_for(100ms);
        }
    }

    [[nodiscard]] Route wayTo(const char* literal) const { return std::get<Route>(routes.to(address(literal))); }
    [[nodiscard]] int refusalOf(const char* literal) const {
        return std::get<NoRoute>(routes.to(address(literal))).code.value();
    }

    static bool isAllowed;
    static bool isThere;
    static std::unique_ptr<OtherNetwork> other;

    asio::io_context context;
    LinuxClock clock;
    LinuxNeighbours neighbours;
    LinuxRoutes routes;
    LinuxProbe probe{clock};
};
bool LinuxReachTest::isAllowed = false;
bool LinuxReachTest::isThere = false;
std::unique_ptr<OtherNetwork> LinuxReachTest::other;

TEST_F(LinuxReachTest, ProbesAPortThatListens) {
    for (const char* literal : {"127.0.0.1", "::1", "::ffff:127.0.0.1"}) {
        SCOPED_TRACE(literal);
        TcpListener listener(ListenOptions{}, context.get_executor());
        ProbeResult result = probed(literal, listener.port());
        auto& stream = std::get<std::unique_ptr<Stream>>(result);
        EXPECT_EQ(connectedTo(listener.port()), std::pair(1, 0)) << "errors that pass by themselves stay so";
        const std::unique_ptr<Stream> accepted = fakes::runTask(context, listener.accept(context.get_executor()));
        const Bytes sent = toBytes("hello");
        fakes::runTask(context, stream->writeAll(sent));
        Bytes received(sent.size());
        EXPECT_EQ(fakes::runTask(context, accepted->readExact(received)), sent.size());
        EXPECT_EQ(received, sent);
    }
}

TEST_F(LinuxReachTest, ProbesAPortThatRefuses) {
    EXPECT_EQ(failure("127.0.0.1"), failureOf(ECONNREFUSED));
    EXPECT_EQ(failure("10.77.0.2"), failureOf(ECONNREFUSED));
    EXPECT_EQ(failure("fd77::2"), failureOf(ECONNREFUSED));
}

TEST_F(LinuxReachTest, ProbesAnAddressThatNobodyHas) {
    const IpAddress ours = address("10.77.0.1");
    EXPECT_EQ(failure("10.77.0.99"), failureOf(EHOSTUNREACH, IcmpReport{.type = 3, .code = 1, .from = ours}));
    const std::optional<Neighbour> entry = entryOf("10.77.0.99");
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->state, NeighbourState::failed);
    EXPECT_TRUE(entry->hardware.empty());
}

TEST_F(LinuxReachTest, ProbesAnAddressOfIPv6ThatNobodyHas) {
    const IpAddress ours = address("fd77::1");
    EXPECT_EQ(failure("fd77::99"), failureOf(EHOSTUNREACH, IcmpReport{.type = 1, .code = 3, .from = ours}));
}

TEST_F(LinuxReachTest, TellsWhichRouterRefuses) {
    const IpAddress router = address("10.77.0.2");
    EXPECT_EQ(failure("203.0.113.9"), failureOf(EHOSTUNREACH, IcmpReport{.type = 3, .code = 13, .from = router}));
    EXPECT_EQ(failure("192.0.2.9"), failureOf(ENETUNREACH, IcmpReport{.type = 3, .code = 0, .from = router}));
}

TEST_F(LinuxReachTest, FailsAtOnceWithoutAWay) {
    EXPECT_EQ(failure("198.18.0.1"), failureOf(ENETUNREACH));
    EXPECT_EQ(failure("198.51.100.1"), failureOf(EHOSTUNREACH));
    EXPECT_EQ(failure("198.51.100.2"), failureOf(EACCES));
    EXPECT_EQ(failure("fe80::1"), failureOf(EINVAL));
    EXPECT_EQ(failure("fe80::1%absent"), failureOf(ENODEV));
}

TEST_F(LinuxReachTest, GivesAProbeUpAtItsLimit) {
    const ProbeResult result = probed("10.77.0.98", 9, 50ms); // the kernel asks for three seconds
    EXPECT_TRUE(std::holds_alternative<ProbeTimeout>(result));
}

TEST_F(LinuxReachTest, EndsAProbeThatIsCancelled) {
    const auto connect = [](LinuxProbe& by, Executor executor) -> Task<> {
        ProbeResult result = co_await by.connect(parseIpAddress("10.77.0.97").value(), 9, patience, executor);
        ADD_FAILURE() << "it has ended by itself: " << result.index();
    };
    EXPECT_TRUE(fakes::isCancelled(fakes::cancelMidway(context, connect(probe, context.get_executor()))));
}

TEST_F(LinuxReachTest, SendsADatagramUnlessAFilterForbidsIt) {
    for (const char* literal :
         {"10.77.0.2", "fd77::2", "::ffff:10.77.0.2", "198.18.0.1", "198.51.100.2", "fe80::1", "fe80::1%absent"}) {
        EXPECT_TRUE(probe.maySendDatagram(address(literal))) << literal;
    }
    if (!run("command -v nft > /dev/null")) {
        GTEST_SKIP() << "NOT TESTED: a filter, as nft is not installed";
    }
    ASSERT_TRUE(run("nft 'add table inet stop; add chain inet stop out { type filter hook output priority 0; };\n"
                    "add rule inet stop out ip daddr 10.77.0.2 drop; add rule inet stop out ip6 daddr fd77::2 drop'"));
    EXPECT_FALSE(probe.maySendDatagram(address("10.77.0.2")));
    EXPECT_FALSE(probe.maySendDatagram(address("::ffff:10.77.0.2")));
    EXPECT_FALSE(probe.maySendDatagram(address("fd77::2")));
    EXPECT_TRUE(run("nft delete table inet stop"));
    EXPECT_TRUE(probe.maySendDatagram(address("10.77.0.2")));
}

TEST_F(LinuxReachTest, ListsANeighbourThatAnswers) {
    EXPECT_EQ(failure("10.77.0.2"), failureOf(ECONNREFUSED));
    const std::optional<Neighbour> entry = entryOf("10.77.0.2");
    ASSERT_TRUE(entry.has_value());
    EXPECT_EQ(entry->interface, "home");
    EXPECT_NE(entry->interfaceIndex, 0u);
    EXPECT_EQ(entry->hardware.size(), 6u);
    EXPECT_THAT(entry->state, testing::AnyOf(NeighbourState::reachable, NeighbourState::stale, NeighbourState::delay,
                                             NeighbourState::probe));
    ASSERT_TRUE(entry->confirmedAge.has_value());
    EXPECT_GE(*entry->confirmedAge, 0s);
    EXPECT_LT(*entry->confirmedAge, patience);
}

TEST_F(LinuxReachTest, ListsTheStatesThatIpShows) {
    ASSERT_TRUE(run("for state in reachable stale delay probe permanent noarp failed incomplete; do\n"
                    "number=$((number + 1))\n"
                    "[ $state = failed ] || [ $state = incomplete ] ||\n"
                    "ip neigh replace 10.77.0.$((100 + number)) lladdr 02:00:00:00:00:0$number dev home nud $state\n"
                    "done\n"
                    "ip neigh replace fe80::77 lladdr 02:00:00:00:00:77 dev home nud stale\n"));
    const auto stateOf = [this](const char* literal) {
        const std::optional<Neighbour> entry = entryOf(literal);
        return entry ? std::optional(entry->state) : std::nullopt;
    };
    EXPECT_EQ(stateOf("10.77.0.101"), NeighbourState::reachable);
    EXPECT_EQ(stateOf("10.77.0.102"), NeighbourState::stale);
    // Their timers run from here on; nobody answers the probes.
    EXPECT_THAT(stateOf("10.77.0.103"), testing::AnyOf(NeighbourState::delay, NeighbourState::probe));
    EXPECT_THAT(stateOf("10.77.0.104"), testing::AnyOf(NeighbourState::probe, NeighbourState::failed));
    EXPECT_EQ(stateOf("10.77.0.105"), NeighbourState::permanent);
    EXPECT_EQ(stateOf("10.77.0.106"), NeighbourState::noArp);
    EXPECT_EQ(entryOf("10.77.0.102")->hardware, (Bytes{std::byte{2}, {}, {}, {}, {}, std::byte{2}}));
    EXPECT_EQ(stateOf("fe80::77"), std::nullopt) << "it is that of an interface";
    EXPECT_EQ(stateOf("fe80::77%home"), NeighbourState::stale);
}

TEST_F(LinuxReachTest, TellsOfNeighboursThatComeChangeAndGo) {
    std::vector<NeighbourEvent> events;
    const auto watch =
        neighbours.watch(context.get_executor(), [&](const NeighbourEvent& event) { events.push_back(event); });
    const auto isTold = [&](NeighbourState state) {
        return std::ranges::any_of(events, [&](const NeighbourEvent& event) {
            const auto* const changed = std::get_if<NeighbourChanged>(&event);
            return changed != nullptr && changed->now.address == address("10.77.0.50") && changed->now.state == state &&
                   changed->now.interface == "home";
        });
    };
    ASSERT_TRUE(run("ip neigh replace 10.77.0.50 lladdr 02:00:00:00:00:50 dev home nud stale"));
    runUntil([&] { return isTold(NeighbourState::stale); });
    ASSERT_TRUE(run("ip neigh replace 10.77.0.50 lladdr 02:00:00:00:00:50 dev home nud reachable"));
    runUntil([&] { return isTold(NeighbourState::reachable); });
    ASSERT_TRUE(run("ip neigh del 10.77.0.50 dev home"));
    runUntil([&] {
        return std::ranges::any_of(events, [&](const NeighbourEvent& event) {
            const auto* const gone = std::get_if<NeighbourGone>(&event);
            return gone != nullptr && gone->last.address == address("10.77.0.50");
        });
    });
    EXPECT_TRUE(std::ranges::none_of(
        events, [](const NeighbourEvent& event) { return std::holds_alternative<NeighboursAnew>(event); }));
}

TEST_F(LinuxReachTest, TellsThatAProbedNeighbourDoesNotAnswer) {
    bool hasFailed = false;
    const auto watch = neighbours.watch(context.get_executor(), [&](const NeighbourEvent& event) {
        const auto* const changed = std::get_if<NeighbourChanged>(&event);
        hasFailed = hasFailed || (changed != nullptr && changed->now.address == address("10.77.0.96") &&
                                  changed->now.state == NeighbourState::failed);
    });
    EXPECT_EQ(failureWhileWatched("10.77.0.96").code.value(), EHOSTUNREACH);
    runUntil([&] { return hasFailed; });
}

TEST_F(LinuxReachTest, ListsTheTableAnewAfterMoreChangesThanTheKernelKeeps) {
    std::vector<NeighbourEvent> events;
    const auto watch =
        neighbours.watch(context.get_executor(), [&](const NeighbourEvent& event) { events.push_back(event); });
    ASSERT_TRUE(
        run("for round in $(seq 100); do for number in $(seq 150 199); do\n"
            "echo neigh replace 10.77.0.$number lladdr 02:00:00:00:$((round % 90 + 10)):01 dev home nud permanent\n"
            "done; done | ip -batch -"));
    const auto anew = [&]() -> const NeighboursAnew* {
        for (const NeighbourEvent& event : events) {
            if (const auto* const found = std::get_if<NeighboursAnew>(&event)) {
                return found;
            }
        }
        return nullptr;
    };
    runUntil([&] { return anew() != nullptr; });
    ASSERT_NE(anew(), nullptr);
    const auto count = std::ranges::count_if(anew()->now, [](const Neighbour& entry) {
        const auto* const v4 = std::get_if<Ipv4Address>(&entry.address);
        return v4 != nullptr && v4->at(3) >= 150 && v4->at(3) < 200 && entry.state == NeighbourState::permanent;
    });
    EXPECT_EQ(count, 50);
    // And it goes on telling.
    events.clear();
    ASSERT_TRUE(run("ip neigh del 10.77.0.150 dev home"));
    runUntil([&] { return !events.empty(); });
    EXPECT_TRUE(std::holds_alternative<NeighbourChanged>(events.front()) ||
                std::holds_alternative<NeighbourGone>(events.front()));
}

TEST_F(LinuxReachTest, EndsAWatchInItsOwnCall) {
    int calls = 0;
    std::unique_ptr<NeighbourWatch> watch = neighbours.watch(context.get_executor(), [&](const NeighbourEvent&) {
        ++calls;
        watch.reset();
    });
    ASSERT_TRUE(run("ip neigh replace 10.77.0.60 lladdr 02:00:00:00:00:60 dev home nud stale\n"
                    "ip neigh replace 10.77.0.61 lladdr 02:00:00:00:00:61 dev home nud stale"));
    runUntil([&] { return calls > 0; });
    context.restart();
    context.run_for(patience);
    EXPECT_TRUE(context.stopped()) << "the watch left something running";
    EXPECT_EQ(calls, 1);
}

TEST_F(LinuxReachTest, ReportsThatThereAreNoDescriptorsLeft) {
    EXPECT_EQ(failure("127.0.0.1"), failureOf(ECONNREFUSED)); // Asio has what it needs for itself
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto codeOf = [](const std::function<void()>& action) {
        try {
            action();
        } catch (const SystemError& error) {
            return error.code().value();
        }
        return 0;
    };
    const std::vector<int> codes{
        codeOf([&] { static_cast<void>(neighbours.list()); }),
        codeOf([&] { static_cast<void>(neighbours.watch(context.get_executor(), {})); }),
        codeOf([&] { static_cast<void>(routes.to(address("10.77.0.2"))); }),
        codeOf([&] { static_cast<void>(probed("10.77.0.2", 9)); }),
    };
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_THAT(codes, testing::Each(EMFILE));
}

TEST_F(LinuxReachTest, FindsTheWayOnALink) {
    const Route way = wayTo("10.77.0.2");
    EXPECT_TRUE(way.isOnLink());
    EXPECT_EQ(way.gateway, std::nullopt);
    EXPECT_EQ(way.interface, "home");
    EXPECT_NE(way.interfaceIndex, 0u);
    EXPECT_EQ(way.source, address("10.77.0.1"));
    EXPECT_TRUE(wayTo("fd77::2").isOnLink());
    EXPECT_EQ(wayTo("fd77::2").source, address("fd77::1"));
}

TEST_F(LinuxReachTest, FindsTheWayByARouter) {
    const Route way = wayTo("192.0.2.7");
    EXPECT_FALSE(way.isOnLink());
    EXPECT_EQ(way.gateway, address("10.77.0.2"));
    EXPECT_EQ(way.interface, "home");
}

TEST_F(LinuxReachTest, FindsTheWayToThisComputer) {
    for (const char* literal : {"127.0.0.1", "10.77.0.1", "::1", "fd77::1"}) {
        EXPECT_TRUE(wayTo(literal).isThisComputer) << literal;
        EXPECT_FALSE(wayTo(literal).isOnLink()) << literal;
        EXPECT_EQ(wayTo(literal).interface, "lo") << literal;
    }
}

TEST_F(LinuxReachTest, FindsTheWayToAnAddressOfOneLink) {
    const Route way = wayTo("fe80::1%home");
    EXPECT_TRUE(way.isOnLink());
    EXPECT_EQ(way.interface, "home");
    EXPECT_EQ(refusalOf("fe80::1%absent"), ENODEV);
}

TEST_F(LinuxReachTest, TellsOfAddressesLinksAndRoutesThatChange) {
    LinuxNetworkNews news;
    int told = 0;
    auto watch = news.watch(context.get_executor(), [&told] { ++told; });
    const auto tellsOf = [&](const std::string& change) {
        SCOPED_TRACE(change);
        const int before = told;
        ASSERT_TRUE(run(change));
        runUntil([&] { return told > before; });
        context.poll(); // what else belongs to it
    };
    ASSERT_TRUE(run("ip link add news type veth peer name end\nip link set end up\n"));
    runUntil([&] { return told > 0; });
    context.poll();
    tellsOf("ip link set news up");
    tellsOf("ip address add 10.79.0.1/24 dev news");
    tellsOf("ip address add fd79::1/64 dev news nodad");
    tellsOf("ip route add 10.80.0.0/24 via 10.79.0.9 dev news");
    tellsOf("ip route delete 10.80.0.0/24");
    tellsOf("ip address delete 10.79.0.1/24 dev news");
    tellsOf("ip link set end down");
    tellsOf("ip link delete news");
    const int before = told;
    ASSERT_TRUE(run("ip address add 10.77.0.9/24 dev home")); // is in the socket by now
    watch.reset();
    ASSERT_TRUE(run("ip address delete 10.77.0.9/24 dev home"));
    context.restart();
    context.run(); // ends, since nothing is left to wait for
    EXPECT_EQ(told, before);
}

TEST_F(LinuxReachTest, TellsOfANetworkWhoseNewsAreLost) {
    LinuxNetworkNews news;
    int told = 0;
    const auto watch = news.watch(context.get_executor(), [&told] { ++told; });
    ASSERT_TRUE(run("for number in $(seq 2000); do\n"
                    "echo route replace 10.81.$((number % 250)).0/24 via 10.77.0.2\n"
                    "done | ip -batch -"));
    runUntil([&] { return told > 0; });
    ASSERT_TRUE(run("for number in $(seq 0 249); do echo route delete 10.81.$number.0/24; done | ip -batch -"));
    context.poll();
    const int before = told;
    ASSERT_TRUE(run("ip route add 10.80.0.0/24 via 10.77.0.2\nip route delete 10.80.0.0/24"));
    runUntil([&] { return told > before; });
}

TEST_F(LinuxReachTest, FindsTheRouterOfAnInterfaceAlsoBesideAnotherOne) {
    const LinuxRoutes routes;
    EXPECT_EQ(routes.gatewayBy("lo"), std::nullopt);
    EXPECT_EQ(routes.gatewayBy("nosuch0"), std::nullopt);
    ASSERT_TRUE(run("ip link add other type veth peer name end\n"
                    "ip link set end up\n"
                    "ip address add 10.78.0.1/24 dev other\n"
                    "ip link set other up\n"
                    "ip route add default via 10.78.0.9 dev other\n"));
    EXPECT_EQ(routes.gatewayBy("other"), address("10.78.0.9"));
    ASSERT_TRUE(run("ip route add default via 10.77.0.2 dev home metric 100\n"));
    EXPECT_EQ(routes.gatewayBy("home"), address("10.77.0.2"));
    EXPECT_EQ(routes.gatewayBy("other"), address("10.78.0.9"));
    ASSERT_TRUE(run("ip link delete other\n"
                    "ip route delete default\n"));
    EXPECT_EQ(routes.gatewayBy("other"), std::nullopt);
}

TEST_F(LinuxReachTest, FindsThatThereIsNoWay) {
    EXPECT_EQ(refusalOf("198.18.0.1"), ENETUNREACH);
    EXPECT_EQ(refusalOf("198.51.100.1"), EHOSTUNREACH);
    EXPECT_EQ(refusalOf("198.51.100.2"), EACCES);
    EXPECT_EQ(refusalOf("198.51.100.3"), EINVAL);
    EXPECT_EQ(refusalOf("2001:db8:2::1"), ENETUNREACH);
    EXPECT_EQ(refusalOf("2001:db8:1::1"), EHOSTUNREACH);
}

} // namespace
} // namespace orlinth::platform
