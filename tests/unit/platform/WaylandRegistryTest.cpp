#include "platform/linux/WaylandRegistry.h"

#include "fakes/FakeCompositor.h"

#include <gmock/gmock.h>

#include <bit>

namespace orlinth::platform {
namespace {

using fakes::wayland::appendWord;
using fakes::wayland::done;
using fakes::wayland::global;
using fakes::wayland::globalRemove;
using fakes::wayland::message;
using fakes::wayland::registry;
using testing::ElementsAre;
using testing::IsEmpty;
using State = WaylandRegistry::State;

const std::vector<std::string> interfaces{"wl_compositor", "wl_shm", "zwlr_data_control_manager_v1"};

/// A registry that has taken these bytes at once.
WaylandRegistry taken(const std::string& bytes) {
    WaylandRegistry list;
    list.take(asBytes(bytes));
    return list;
}

/// wl_registry.global with a text of this stated size and these bytes.
std::string oddGlobal(std::uint32_t size, const std::string& text) {
    std::string body;
    appendWord(body, 1);
    appendWord(body, size);
    return message(2, 0, body + text);
}

TEST(WaylandRegistry, AsksForTheListAndItsEnd) {
    static_assert(std::endian::native == std::endian::little, "the bytes below are those of such a machine");
    EXPECT_EQ(toText(WaylandRegistry::request()), std::string("\1\0\0\0\1\0\14\0\2\0\0\0"
                                                              "\1\0\0\0\0\0\14\0\3\0\0\0",
                                                              24));
}

TEST(WaylandRegistry, ListsWhatTheCompositorOffers) {
    const WaylandRegistry list = taken(registry(interfaces));
    EXPECT_EQ(list.state(), State::complete);
    EXPECT_THAT(list.interfaces(), ElementsAre("wl_compositor", "wl_shm", "zwlr_data_control_manager_v1"));
    EXPECT_EQ(taken(done()).state(), State::complete);
    EXPECT_THAT(taken(done()).interfaces(), IsEmpty());
}

TEST(WaylandRegistry, ListsTheSameHoweverTheBytesAreCut) {
    const std::string bytes = registry(interfaces);
    for (std::size_t piece = 1; piece < bytes.size(); ++piece) {
        WaylandRegistry list;
        for (std::size_t start = 0; start < bytes.size(); start += piece) {
            list.take(asBytes(bytes.substr(start, piece)));
        }
        EXPECT_EQ(list.state(), State::complete) << piece;
        EXPECT_EQ(list.interfaces().size(), interfaces.size()) << piece;
    }
}

TEST(WaylandRegistry, WaitsForWhatIsCutOff) {
    const std::string bytes = registry(interfaces);
    const std::size_t end = bytes.size() - 12; // what follows the end of the list does not matter
    for (std::size_t size = 0; size < end; ++size) {
        EXPECT_EQ(taken(bytes.substr(0, size)).state(), State::listing) << size;
    }
    EXPECT_EQ(taken(bytes.substr(0, end)).state(), State::complete);
}

TEST(WaylandRegistry, LeavesOutWhatIsTakenBack) {
    EXPECT_THAT(taken(global(1, "wl_output") + global(2, "wl_shm") + globalRemove(1) + done()).interfaces(),
                ElementsAre("wl_shm"));
    EXPECT_EQ(taken(globalRemove(9) + done()).state(), State::complete);
}

TEST(WaylandRegistry, PassesOverEventsThatAreNoneOfItsBusiness) {
    EXPECT_EQ(taken(message(1, 1, std::string(4, '\0')) + message(9, 7, "") + done()).state(), State::complete);
}

TEST(WaylandRegistry, FailsAtAnErrorOfTheCompositor) {
    EXPECT_EQ(taken(message(1, 0, std::string(16, '\0')) + done()).state(), State::failed);
}

TEST(WaylandRegistry, FailsAtSizesThatCannotBe) {
    for (const std::uint32_t size : {0U, 4U, 7U, 9U, 10U, 4100U, 0xFFFCU}) {
        std::string bytes;
        appendWord(bytes, 2);
        appendWord(bytes, size << 16U);
        EXPECT_EQ(taken(bytes + done()).state(), State::failed) << size;
    }
}

TEST(WaylandRegistry, FailsAtTextsThatLeadOutOfTheirMessage) {
    const std::string version(4, '\0');
    EXPECT_EQ(taken(oddGlobal(4, std::string("abc\0", 4) + version) + done()).state(), State::complete);
    EXPECT_EQ(taken(oddGlobal(0, version) + done()).state(), State::failed);
    EXPECT_EQ(taken(oddGlobal(9, std::string("abc\0", 4) + version)).state(), State::failed);
    EXPECT_EQ(taken(oddGlobal(0xFFFF'FFFF, std::string("abc\0", 4) + version)).state(), State::failed);
    EXPECT_EQ(taken(oddGlobal(0xFFFF'FFFD, std::string("abc\0", 4) + version)).state(), State::failed);
    EXPECT_EQ(taken(oddGlobal(4, "abcd" + version)).state(), State::failed) << "without the zero byte at the end";
    EXPECT_EQ(taken(oddGlobal(4, std::string("a\0c\0", 4) + version)).state(), State::failed);
    EXPECT_EQ(taken(oddGlobal(4, std::string("abc\0", 4))).state(), State::failed) << "without a version";
    EXPECT_EQ(taken(message(2, 0, "")).state(), State::failed);
    EXPECT_EQ(taken(message(2, 1, "")).state(), State::failed);
    EXPECT_EQ(taken(message(3, 0, "")).state(), State::failed);
}

TEST(WaylandRegistry, FailsAtANumberThatIsGivenTwice) {
    EXPECT_EQ(taken(global(1, "wl_shm") + global(1, "wl_seat")).state(), State::failed);
}

TEST(WaylandRegistry, FailsWhenThereIsTooMuch) {
    std::string many;
    for (std::size_t i = 0; i <= WaylandRegistry::maxInterfaces; ++i) {
        many += global(static_cast<std::uint32_t>(i), "a");
    }
    EXPECT_EQ(taken(many + done()).state(), State::failed);
    EXPECT_EQ(taken(many.substr(many.size() / (WaylandRegistry::maxInterfaces + 1)) + done()).state(), State::complete);

    const std::string small = message(9, 0, "");
    std::string messages;
    for (std::size_t i = 0; i < WaylandRegistry::maxMessages; ++i) {
        messages += small;
    }
    EXPECT_EQ(taken(messages + done()).state(), State::failed);
    EXPECT_EQ(taken(messages.substr(small.size()) + done()).state(), State::complete);

    const std::string large = message(9, 0, std::string(WaylandRegistry::maxMessageBytes - 8, 'x'));
    std::string bytes;
    while (bytes.size() < WaylandRegistry::maxBytes) {
        bytes += large;
    }
    EXPECT_EQ(taken(bytes).state(), State::listing);
    EXPECT_EQ(taken(bytes + done()).state(), State::failed);
}

TEST(WaylandRegistry, LooksAtNothingBehindTheEnd) {
    WaylandRegistry list = taken(registry(interfaces) + std::string(100, 'x'));
    EXPECT_EQ(list.state(), State::complete);
    EXPECT_EQ(list.take(asBytes(global(99, "wl_late"))), State::complete);
    EXPECT_EQ(list.interfaces().size(), interfaces.size());
    WaylandRegistry failed = taken(message(1, 0, ""));
    EXPECT_EQ(failed.take(asBytes(done())), State::failed);
}

} // namespace
} // namespace orlinth::platform
