#include "platform/linux/WaylandSession.h"

#include "fakes/FakeCompositor.h"
#include "fakes/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

namespace orlinth::platform {
namespace {

using fakes::FakeCompositor;
using fakes::wayland::registry;
using Clipboard = WaylandSession::Clipboard;

class WaylandSessionTest : public testing::Test {
protected:
    void compositor(std::string answer) {
        compositor_.reset(); // the socket has to go first
        compositor_ = std::make_unique<FakeCompositor>(folder_ / "wayland-0", std::move(answer));
    }
    [[nodiscard]] Clipboard clipboard() { return session_.clipboard(folder_ / "wayland-0"); }

    fakes::TemporaryFolder folder_;
    std::unique_ptr<FakeCompositor> compositor_;
    WaylandSession session_;
};

TEST_F(WaylandSessionTest, KnowsWhetherProgramsInTheBackgroundMayUseTheClipboard) {
    compositor(registry({"wl_shm", "zwlr_data_control_manager_v1"}));
    EXPECT_EQ(clipboard(), Clipboard::open);
    compositor(registry({"wl_shm", "wl_data_device_manager", "gtk_shell1"}));
    EXPECT_EQ(clipboard(), Clipboard::guarded);
}

TEST_F(WaylandSessionTest, DoesNotCountOnWhatWlClipboardCannotUse) {
    compositor(registry({"wl_shm", "ext_data_control_manager_v1"}));
    EXPECT_EQ(clipboard(), Clipboard::guarded);
}

TEST_F(WaylandSessionTest, AsksACompositorOnceAndItsSuccessorAgain) {
    compositor(registry({"zwlr_data_control_manager_v1"}));
    EXPECT_EQ(clipboard(), Clipboard::open);
    EXPECT_EQ(clipboard(), Clipboard::open);
    EXPECT_EQ(compositor_->asked(), 1);
    compositor(registry({}));
    EXPECT_EQ(clipboard(), Clipboard::guarded);
    EXPECT_EQ(clipboard(), Clipboard::guarded);
    EXPECT_EQ(compositor_->asked(), 1);
}

TEST_F(WaylandSessionTest, HasNoAnswerWithoutACompositor) {
    EXPECT_EQ(clipboard(), Clipboard::noAnswer);
    EXPECT_EQ(session_.clipboard(""), Clipboard::noAnswer);
    EXPECT_EQ(session_.clipboard("/" + std::string(200, 'x')), Clipboard::noAnswer);
    fakes::writeText(folder_ / "wayland-0", "no socket");
    EXPECT_EQ(clipboard(), Clipboard::noAnswer);
}

TEST_F(WaylandSessionTest, HasNoAnswerOfACompositorThatTalksNonsenseAndAsksItAgain) {
    compositor("this is not Wayland, by no means");
    EXPECT_EQ(clipboard(), Clipboard::noAnswer);
    EXPECT_EQ(clipboard(), Clipboard::noAnswer);
    EXPECT_EQ(compositor_->asked(), 2);
}

TEST_F(WaylandSessionTest, WaitsASecondForACompositorThatHangs) {
    compositor("");
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(clipboard(), Clipboard::noAnswer);
    EXPECT_GE(std::chrono::steady_clock::now() - before, WaylandSession::limit);
}

TEST(WaylandSessionPath, IsInTheRuntimeFolderUnlessItIsWhole) {
    EXPECT_EQ(WaylandSession::socketPath("wayland-1", "/run/user/7"), "/run/user/7/wayland-1");
    EXPECT_EQ(WaylandSession::socketPath("/tmp/there", "/run/user/7"), "/tmp/there");
    EXPECT_EQ(WaylandSession::socketPath("/tmp/there", ""), "/tmp/there");
    EXPECT_EQ(WaylandSession::socketPath("wayland-1", ""), "");
    EXPECT_EQ(WaylandSession::socketPath("wayland-1", "run"), "");
    EXPECT_EQ(WaylandSession::socketPath("", "/run/user/7"), "");
}

} // namespace
} // namespace orlinth::platform
