#include "orlinth/Reporting/OutboxReporter.h"

#include "OrlinthHost/Service/DesktopNotices.h"
#include "fakes/World.h"
#include "orlinth/Program/ServiceDesktop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace orlinth::cli {
namespace {

constexpr const char* batch = "0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";

/// What people and scripts read of the outbox.
class OutboxReporterTest : public testing::Test {
protected:
    /// What is written meanwhile, to standard output and to standard error.
    struct Said {
        std::string output;
        std::string errors;
    };

    [[nodiscard]] static Said said(const std::function<void()>& speak) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        speak();
        return {.output = testing::internal::GetCapturedStdout(), .errors = testing::internal::GetCapturedStderr()};
    }
    [[nodiscard]] static host::OutboxState::Phone pixel() {
        host::OutboxState::Phone phone;
        phone.peerKey = PeerKey("AAAA");
        phone.hostname = "Pixel";
        return phone;
    }
    [[nodiscard]] static host::Delivered delivered(std::int64_t from, bool isConfirmed) {
        host::Delivered delivered{.sent = {}, .isConfirmed = isConfirmed};
        delivered.sent.bytesSent = 2000;
        delivered.sent.durationSeconds = 500ms;
        delivered.sent.resumedFromOffset = ByteOffset(from);
        return delivered;
    }
    /// Titles of the notifications.
    [[nodiscard]] std::vector<std::string> shown() {
        static_cast<void>(notices_.outgoing().look({}, {}));
        std::vector<std::string> texts;
        for (const auto& shown : world_.notifications.shown) {
            texts.push_back(shown.notification.title);
        }
        return texts;
    }

    const host::OutboxEvents::Transfer transfer_{
        .batch = BatchId(batch), .file = "a.txt", .to = "Pixel", .peerKey = PeerKey("AAAA")};
    const host::OutboxEvents::Failure declined_{.why = host::OutboxEvents::Failure::Why::declined,
                                                .message = "declined"};
    const host::OutboxEvents::Failure forgotten_{.why = host::OutboxEvents::Failure::Why::removed,
                                                 .message = "forgotten"};
    fakes::World world_;
    TaskRunner tasks_{world_.context};
    Output output_;
    Host host_{world_.system, tasks_, output_};
    ServiceDesktop desktop_{host_};
    host::DesktopNotices notices_{host::NoticeBoard(host_, nullptr, {}), desktop_, {}};
    OutboxReporter reporter_{host_, notices_.outgoing()};
};

TEST_F(OutboxReporterTest, OneLineAFileThatWasSent) {
    const Said whole = said([this] { reporter_.sent(transfer_, delivered(0, true)); });
    EXPECT_EQ("sent a.txt to Pixel (2.0 kB in 0.5 s)\n", whole.output);
    EXPECT_EQ("", whole.errors);
    const Said rest = said([this] { reporter_.sent(transfer_, delivered(1500, false)); });
    EXPECT_EQ("sent a.txt to Pixel (2.0 kB in 0.5 s, went on from 1.5 kB)\n", rest.output);
    EXPECT_THAT(rest.errors,
                testing::StartsWith("Pixel has received every byte of a.txt but did not confirm the file."));
}

TEST_F(OutboxReporterTest, OneObjectAHappeningForScripts) {
    output_.useJson();
    const std::string lines = said([this] {
                                  reporter_.progress(transfer_, {.done = 5, .total = 10});
                                  reporter_.sent(transfer_, delivered(0, true));
                                  reporter_.waiting(BatchId(batch), "Pixel", "why", 15s);
                                  reporter_.failed(transfer_, declined_);
                                  reporter_.failed(BatchId(batch), pixel(), {"a.txt", "b.txt"}, forgotten_);
                                  reporter_.setAside(BatchId(batch), "no sense", "/away");
                                  reporter_.done(BatchId(batch));
                              }).output;
    const std::string id = std::string("\"batch\":\"") + batch + "\",";
    EXPECT_EQ("{" + id + "\"bytes_sent\":5,\"event\":\"outbox_progress\",\"file\":\"a.txt\",\"to\":\"Pixel\"," +
                  "\"total_bytes\":10}\n" +                                                                  //
                  "{" + id + "\"bytes_sent\":2000,\"duration_seconds\":0.5,\"event\":\"outbox_sent\"," +     //
                  "\"file\":\"a.txt\",\"resumed_from_offset\":0,\"to\":\"Pixel\"}\n" +                       //
                  "{" + id + "\"event\":\"outbox_waiting\",\"message\":\"why\",\"retry_in_seconds\":15.0," + //
                  "\"to\":\"Pixel\"}\n" +                                                                    //
                  "{" + id + "\"event\":\"outbox_failed\",\"file\":\"a.txt\",\"message\":\"declined\"," +    //
                  "\"to\":\"Pixel\"}\n" +                                                                    //
                  "{" + id + "\"event\":\"outbox_failed\",\"message\":\"forgotten\",\"to\":\"Pixel\"}\n" +   //
                  "{" + id + "\"event\":\"outbox_failed\",\"message\":\"no sense\"}\n" +                     //
                  "{\"batch\":\"" + batch + "\",\"event\":\"outbox_done\"}\n",
              lines);
}

TEST_F(OutboxReporterTest, ANoticeForAPhoneAndNotForAFile) {
    reporter_.through(BatchId(batch), pixel(), {"a.txt", "b.txt", "c.txt"});
    reporter_.through(BatchId(batch), pixel(), {});
    EXPECT_THAT(shown(), testing::ElementsAre("Sent 3 files to Pixel"));
    EXPECT_EQ("waiting for Pixel: away\n", said([this] { reporter_.waitingLine(pixel(), "away"); }).errors);
}

TEST_F(OutboxReporterTest, WhatIsNotSentIsSaidWithWhatToDo) {
    EXPECT_EQ("orlinth: declined\na.txt is not sent to Pixel.\n",
              said([this] { reporter_.failed(transfer_, declined_); }).errors);
    EXPECT_EQ("orlinth: forgotten\nNothing more of batch 0A1B2C3D is sent to Pixel.\n",
              said([this] { reporter_.failed(BatchId(batch), pixel(), {"a.txt", "b.txt"}, forgotten_); }).errors);
    EXPECT_THAT(shown(), testing::ElementsAre("Could not send 2 files to Pixel"));
    EXPECT_EQ("orlinth: batch 0A1B2C3D was set aside: why\nIt is in /away/" + std::string(batch) +
                  "; `orlinth outbox retry 0A1B2C3D` tries it again.\n",
              said([this] { reporter_.setAside(BatchId(batch), "why", platform::Path("/away") / batch); }).errors);
    EXPECT_EQ("orlinth: batch 0A1B2C3D was set aside: why\n"
              "It is in /away/other 2; one of its name lies there already, so it is left to you.\n",
              said([this] { reporter_.setAside(BatchId(batch), "why", "/away/other 2"); }).errors);
    EXPECT_EQ("orlinth: batch 0A1B2C3D: why\nIt could not be set aside (full), and is left where it is.\n",
              said([this] { reporter_.notSetAside(BatchId(batch), "why", "full"); }).errors);
}

TEST_F(OutboxReporterTest, TroubleWithItsOwnFilesIsSaid) {
    EXPECT_EQ("orlinth: no outbox\nWhat is shared cannot be sent until that is mended.\n",
              said([this] { reporter_.noOutbox("no outbox"); }).errors);
    EXPECT_EQ("cannot note what was sent from the outbox: full; after a restart some of it may be sent again, or taken "
              "for sent\n",
              said([this] { reporter_.notSaved("full"); }).errors);
}

} // namespace
} // namespace orlinth::cli
