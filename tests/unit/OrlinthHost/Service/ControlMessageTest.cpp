#include "OrlinthHost/Service/ControlMessage.h"

#include "OrlinthHost/Service/ControlLine.h"
#include "base/Error.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {
namespace {

const std::string batch = "0A1B2C3D-4E5F-4071-8293-A4B5C6D7E8F9";

const std::vector<std::pair<std::string, ControlRequest>> requests{
    {R"({"request":"port"})", PortRequest{}},
    {R"({"request":"lend_port"})", LendPortRequest{}},
    {R"({"port":28471,"request":"lend_port"})", LendPortRequest{28471}},
    {R"({"request":"outbox_retry"})", OutboxRetryRequest{}},
    {R"({"batch":")" + batch + R"(","request":"outbox_retry"})", OutboxRetryRequest{BatchId(batch)}},
    {R"({"batch":")" + batch + R"(","request":"outbox_drop"})", OutboxDropRequest{BatchId(batch)}},
    {R"({"request":"presence"})", PresenceRequest{}},
    {R"({"request":"cancel","transfer":7})", CancelRequest{7}},
    {R"({"offer":3,"request":"accept"})", AnswerOfferRequest{.offer = 3, .isAccepted = true}},
    {R"({"offer":3,"request":"decline"})", AnswerOfferRequest{.offer = 3, .isAccepted = false}},
    {R"({"request":"pair"})", PairRequest{}},
    {R"({"announce":true,"interface":"wlan0","listen_public":true,"request":"pair","timeout_seconds":60})",
     PairRequest{{.interface = "wlan0", .timeout = 60s, .isAnnounced = true, .isPublic = true}}},
    {R"({"request":"status"})", StatusRequest{}},
    {R"({"request":"watch"})", WatchRequest{}},
    {R"({"request":"last_text"})", LastTextRequest{}},
    {R"({"request":"forget_text"})", ForgetTextRequest{}},
    {R"({"request":"restart"})", RestartRequest{}},
    {R"({"name":"Tablet","peer_pubkey":"a=","request":"rename_phone"})",
     PhoneRequest(RenamePhoneRequest{.phone = PeerKey("a="), .name = "Tablet"})},
    {R"({"peer_pubkey":"a=","request":"remove_phone"})", PhoneRequest(RemovePhoneRequest{PeerKey("a=")})},
    {R"({"peer_pubkey":"a=","request":"wake_phone"})", PhoneRequest(WakePhoneRequest{PeerKey("a=")})},
    {R"({"peer_pubkeys":[],"request":"send_text"})", PhoneRequest(SendTextRequest{})},
    {R"({"peer_pubkeys":["a=","b="],"request":"send_text"})",
     PhoneRequest(SendTextRequest{{PeerKey("a="), PeerKey("b=")}})},
    {R"({"before_epoch_ms":0,"count":500,"request":"history"})", PhoneRequest(HistoryRequest{})},
    {R"({"before_epoch_ms":1731686400000,"count":1,"request":"history"})",
     PhoneRequest(HistoryRequest{.before = fromEpochMilliseconds(1'731'686'400'000), .count = 1})},
    {R"({"request":"clear_history"})", PhoneRequest(ClearHistoryRequest{})},
    {R"({"request":"settings"})", SettingsRequest{}},
    {R"({"request":"set","setting":"accept","value":"ask"})", SetRequest{"accept", "ask"}},
    {R"({"request":"set","setting":"history","value":false})", SetRequest{"history", false}},
    {R"({"request":"set","setting":"max-file","value":7})", SetRequest{"max-file", std::int64_t{7}}},
};

const std::vector<std::pair<std::string, ControlReply>> replies{
    {R"({"port":28471})", PortReply{28471}},
    {R"({"downloads":"/home/ada/Downloads","port":28471,"since_epoch_ms":1731686400000})",
     PortReply{28471, "/home/ada/Downloads", fromEpochMilliseconds(1'731'686'400'000)}},
    {R"({"lent":false,"port":28471})", NotLentReply{28471}},
    {R"({"found":true})", FoundReply{true}},
    {R"({"found":false})", FoundReply{false}},
    {R"({"phones":[]})", PresenceReply{}},
    {R"({"phones":[{"can_wake":true,"peer_pubkey":"a=","seen_epoch_ms":1731686400000,"state":"here"},)"
     R"({"can_wake":false,"peer_pubkey":"b=","seen_epoch_ms":0,"state":"asleep"},)"
     R"({"can_wake":false,"peer_pubkey":"c=","seen_epoch_ms":1,"state":"away"},)"
     R"({"can_wake":false,"peer_pubkey":"d=","seen_epoch_ms":0,"state":"unknown"}]})",
     PresenceReply{{{PeerKey("a="), PresenceState::here, fromEpochMilliseconds(1'731'686'400'000), true},
                    {PeerKey("b="), PresenceState::asleep},
                    {PeerKey("c="), PresenceState::away, fromEpochMilliseconds(1)},
                    {PeerKey("d="), PresenceState::unknown}}}},
    {R"({"from":"Pixel \"8\"","received_epoch_ms":1731686400000,"text_bytes":42})",
     TextReply{.from = "Pixel \"8\"", .received = fromEpochMilliseconds(1'731'686'400'000), .bytes = 42}},
    {R"({"entries":3})", HistoryReply{3}},
    {R"({"error":"the port is lent already"})", ErrorReply{"the port is lent already"}},
};

/// What is wrong with the line; "" if nothing is.
template <typename Decode>
std::string troubleWith(const std::string& line, Decode decode) {
    try {
        static_cast<void>(decode(line));
    } catch (const Error& error) {
        return error.description();
    }
    return "";
}

TEST(ControlMessage, EachRequestIsOneLineThatDoesNotChange) {
    for (const auto& [line, request] : requests) {
        EXPECT_EQ(line, encodeControlRequest(request));
        EXPECT_EQ(request, decodeControlRequest(line)) << line;
    }
}

TEST(ControlMessage, ARequestOfAnyKindMayNameTheClientsVersion) {
    for (const auto& [line, request] : requests) {
        EXPECT_EQ("", decodeClientVersion(line));
        EXPECT_EQ(line, encodeControlRequestFrom("", request));
        const std::string named = encodeControlRequestFrom("1.2 \"b\"", request);
        EXPECT_EQ(request, decodeControlRequest(named)) << named;
        EXPECT_EQ("1.2 \"b\"", decodeClientVersion(named)) << named;
    }
    EXPECT_EQ(R"({"request":"port","version":"0.1.0"})", encodeControlRequestFrom("0.1.0", PortRequest{}));
    EXPECT_NE("", troubleWith(R"({"request":"port","version":5})", decodeClientVersion));
}

TEST(ControlMessage, EachReplyIsOneLineThatDoesNotChange) {
    for (const auto& [line, reply] : replies) {
        EXPECT_EQ(line, encodeControlReply(reply));
        EXPECT_EQ(reply, decodeControlReply(line)) << line;
    }
}

TEST(ControlMessage, NoPartOfALineIsAMessage) {
    for (const auto& [line, request] : requests) {
        for (std::size_t end = 0; end < line.size(); ++end) {
            EXPECT_NE("", troubleWith(line.substr(0, end), decodeControlRequest)) << line.substr(0, end);
        }
    }
    for (const auto& [line, reply] : replies) {
        for (std::size_t end = 0; end < line.size(); ++end) {
            EXPECT_NE("", troubleWith(line.substr(0, end), decodeControlReply)) << line.substr(0, end);
        }
    }
}

TEST(ControlMessage, MembersOfALaterVersionAreNobodysBusiness) {
    EXPECT_EQ(ControlRequest(LendPortRequest{1}),
              decodeControlRequest(R"( { "request" : "lend_port", "port" : 1, "batch" : 5, "more" : [] } )"));
    EXPECT_EQ(ControlReply(FoundReply{true}), decodeControlReply(R"({"found":true,"size":[1,2]})"));
    EXPECT_EQ(ControlRequest(OutboxRetryRequest{}), decodeControlRequest(R"({"request":"outbox_retry","batch":null})"));
}

TEST(ControlMessage, AStateOfALaterVersionIsUnknown) {
    const ControlReply reply =
        decodeControlReply(R"({"phones":[{"peer_pubkey":"a=","seen_epoch_ms":-5,"state":"dancing","more":1}]})");
    EXPECT_EQ(reply, ControlReply(PresenceReply{{{PeerKey("a="), PresenceState::unknown}}}));
    for (const char* line : {R"({"phones":5})", R"({"phones":[5]})", R"({"phones":[{}]})",
                             R"({"phones":[{"peer_pubkey":"a=","seen_epoch_ms":"1","state":"here"}]})",
                             R"({"phones":[{"peer_pubkey":5,"seen_epoch_ms":1,"state":"here"}]})",
                             R"({"phones":[{"peer_pubkey":"a=","seen_epoch_ms":1}]})"}) {
        EXPECT_NE("", troubleWith(line, decodeControlReply)) << line;
    }
}

TEST(ControlMessage, AsManyPhonesAsTheServiceTellsOfAreALine) {
    PresenceReply reply;
    const PeerKey longest(std::string(44, 'A'));
    reply.phones.assign(PresenceReply::maxPhones, {longest, PresenceState::unknown, EpochMilliseconds::max()});
    const std::string line = encodeControlReply(reply);
    EXPECT_LE(line.size(), maxControlLine);
    EXPECT_EQ(ControlReply(reply), decodeControlReply(line));
}

TEST(ControlMessage, APortIsBetween1And65535) {
    for (const char* port : {"0", "-1", "65536", "70000", "4294967297"}) {
        const std::string number = std::string("\"port\":") + port;
        EXPECT_EQ("a port that is none",
                  troubleWith(R"({"request":"lend_port",)" + number + "}", decodeControlRequest));
        EXPECT_EQ("a port that is none", troubleWith("{" + number + "}", decodeControlReply));
    }
    for (const char* port : {"1", "65535"}) {
        EXPECT_EQ("", troubleWith(std::string("{\"port\":") + port + "}", decodeControlReply));
    }
    for (const char* port : {"\"x\"", "null", "1.5", "true", "[1]"}) {
        const std::string number = std::string("\"port\":") + port;
        EXPECT_NE("", troubleWith(R"({"request":"lend_port",)" + number + "}", decodeControlRequest));
        EXPECT_NE("", troubleWith(R"({"request":"port",)" + number + "}", decodeControlRequest));
        EXPECT_NE("", troubleWith("{" + number + "}", decodeControlReply));
    }
}

TEST(ControlMessage, WhatIsNoRequestIsSaidToBeNone) {
    for (const char* line : {R"({"request":"lend_money"})", R"({"request":""})", R"({"request":"outbox_drop"})",
                             R"({"request":"outbox_drop","batch":null})"}) {
        EXPECT_EQ("unknown request", troubleWith(line, decodeControlRequest)) << line;
    }
    for (const char* line : {"", "{", "[]", "5", "null", "{}", R"({"request":5})", R"({"request":null})", "\xff\xfe",
                             R"({"request":"outbox_retry","batch":5})", R"({"request":"port"} x)"}) {
        EXPECT_NE("", troubleWith(line, decodeControlRequest)) << line;
    }
    EXPECT_NE("", troubleWith(std::string(4000, '['), decodeControlRequest));
}

TEST(ControlMessage, WhatIsNoReplyIsSaidToMakeNoSense) {
    for (const char* line : {"{}", R"({"lent":false})", R"({"error":null})"}) {
        EXPECT_EQ("its answer makes no sense", troubleWith(line, decodeControlReply)) << line;
    }
    for (const char* line : {"", "{", "[]", "null", R"({"error":5})", R"({"error":["a"]})"}) {
        EXPECT_NE("", troubleWith(line, decodeControlReply)) << line;
    }
}

TEST(ControlMessage, AnErrorComesBeforeEverythingElse) {
    EXPECT_EQ(ControlReply(ErrorReply{"no"}), decodeControlReply(R"({"error":"no","found":true,"port":1})"));
}

} // namespace
} // namespace orlinth::host
