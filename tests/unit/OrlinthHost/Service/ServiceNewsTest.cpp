#include "OrlinthHost/Service/ServiceNews.h"

#include "OrlinthHost/HostError.h"
#include "base/Json.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace orlinth::host {
namespace {

const EpochMilliseconds moment = fromEpochMilliseconds(1'731'686'400'000);

const std::vector<std::pair<std::string, ServiceNews>> news{
    {R"({"downloads":"/home/ann/Downloads","event":"service","port":28471,"state":"listening"})",
     ServiceView{.state = ServiceView::State::listening, .port = 28471, .downloads = "/home/ann/Downloads"}},
    {R"({"downloads":"/d","event":"service","message":"Address in use","port":28471,"state":"not-listening"})",
     ServiceView{
         .state = ServiceView::State::notListening, .port = 28471, .problem = "Address in use", .downloads = "/d"}},
    {R"({"downloads":"/d","event":"service","name":"ann-laptop","port":0,"state":"starting"})",
     ServiceView{.name = "ann-laptop", .downloads = "/d"}},
    {R"({"event":"setting_gone","name":"phones.key.dir"})", SettingGoneLine{.name = "phones.key.dir"}},
    {R"({"event":"setting","name":"history","value":true})", SettingView{.name = "history", .value = true}},
    {R"({"event":"setting","fixed_by":"config.toml, line 3","name":"accept","value":"ask"})",
     SettingView{.name = "accept", .value = "ask", .fixedBy = "config.toml, line 3"}},
    {R"({"downloads":"/d","event":"service","port":0,"state":"starting"})", ServiceView{.downloads = "/d"}},
    {R"({"downloads":"/d","event":"service","port":1,"state":"lent"})",
     ServiceView{.state = ServiceView::State::lent, .port = 1, .downloads = "/d"}},
    {R"({"downloads":"/d","event":"service","port":1,"state":"stopping"})",
     ServiceView{.state = ServiceView::State::stopping, .port = 1, .downloads = "/d"}},
    {R"({"address":"192.168.1.7","can_wake":true,"event":"phone","name":"Pixel 8","paired_at_epoch_ms":1731686400000,)"
     R"("peer_pubkey":"a=","seen_epoch_ms":1731686400000,"state":"here"})",
     PhoneView{.name = "Pixel 8",
               .presence = {.peerKey = PeerKey("a="), .state = PresenceState::here, .seen = moment, .canWake = true},
               .pairedAt = moment,
               .address = "192.168.1.7"}},
    {R"({"address":"","can_wake":false,"event":"phone","name":"Tablet","paired_at_epoch_ms":0,"peer_pubkey":"b=",)"
     R"("seen_epoch_ms":0,"state":"unknown"})",
     PhoneView{.name = "Tablet", .presence = {.peerKey = PeerKey("b=")}}},
    {R"({"bytes_done":41,"bytes_per_second":20,"direction":"in","event":"transfer","name":"film.mov",)"
     R"("peer_pubkey":"a=","phone":"Pixel 8","state":"active","total_bytes":100,"transfer":7})",
     TransferView{.number = TransferNumber{7},
                  .peerKey = PeerKey("a="),
                  .phone = "Pixel 8",
                  .name = "film.mov",
                  .bytes = {.done = 41, .total = 100},
                  .bytesPerSecond = 20}},
    {R"({"batch":"B","bytes_done":1,"bytes_per_second":0,"direction":"out","event":"transfer","message":"declined",)"
     R"("name":"a","path":"/p","peer_pubkey":"a=","phone":"P","state":"failed","total_bytes":2,"transfer":8})",
     TransferView{.number = TransferNumber{8},
                  .direction = TransferView::Direction::out,
                  .peerKey = PeerKey("a="),
                  .phone = "P",
                  .name = "a",
                  .batch = BatchId("B"),
                  .state = TransferView::State::failed,
                  .bytes = {.done = 1, .total = 2},
                  .problem = "declined",
                  .path = "/p"}},
    {R"({"direction":"in","event":"history_added","file":"a.jpg","outcome":"done","path":"/d/a.jpg",)"
     R"("peer_pubkey":"a=","phone":"Pixel 8","size":41,"time":1731686400000})",
     HistoryLine{HistoryEntry{.time = moment,
                              .direction = HistoryEntry::Direction::in,
                              .phone = "Pixel 8",
                              .peerKey = PeerKey("a="),
                              .file = "a.jpg",
                              .size = 41,
                              .path = "/d/a.jpg"}}},
    {R"({"event":"history_added"})", HistoryLine{}},
    {R"({"batch":"B","created_at_epoch_ms":1731686400000,"event":"batch","files":400,"files_done":38,)"
     R"("message":"no answer","next_attempt_epoch_ms":1731686400000,"peer_pubkey":"a=","phone":"P","state":"paused"})",
     OutboxView{.batch = BatchId("B"),
                .peerKey = PeerKey("a="),
                .phone = "P",
                .createdAt = moment,
                .files = 400,
                .filesDone = 38,
                .state = OutboxView::State::paused,
                .nextAttempt = moment,
                .problem = "no answer"}},
    {R"({"event":"offer","expires_epoch_ms":1731686400000,"name":"film.mov","offer":3,"peer_pubkey":"a=",)"
     R"("phone":"Pixel 8","size":4100000})",
     OfferView{.number = OfferNumber{3},
               .peerKey = PeerKey("a="),
               .phone = "Pixel 8",
               .name = "film.mov",
               .size = 4'100'000,
               .expires = moment}},
    {R"({"event":"offer","name":"a","offer":4,"peer_pubkey":"a=","phone":"P","size":0})",
     OfferView{.number = OfferNumber{4}, .peerKey = PeerKey("a="), .phone = "P", .name = "a"}},
    {R"({"event":"offer_gone","offer":3})", OfferGoneLine{OfferNumber{3}}},
    {R"({"event":"transfer_gone","transfer":7})", TransferGoneLine{TransferNumber{7}}},
    {R"({"batch":"B","event":"batch_gone","peer_pubkey":"a="})",
     BatchGoneLine{.batch = BatchId("B"), .peerKey = PeerKey("a=")}},
    {R"({"event":"phone_gone","peer_pubkey":"a="})", PhoneGoneLine{PeerKey("a=")}},
    {R"({"event":"current"})", CurrentLine{}},
};

/// What is wrong with the line; "" if nothing is.
std::string troubleWith(const std::string& line) {
    try {
        static_cast<void>(decodeServiceNews(line));
    } catch (const Error& error) {
        return error.description();
    }
    return "";
}

TEST(ServiceNews, EachIsOneLineThatDoesNotChange) {
    for (const auto& [line, what] : news) {
        EXPECT_EQ(line, encodeServiceNews(what));
        EXPECT_EQ(what, decodeServiceNews(line)) << line;
    }
}

TEST(ServiceNews, EveryStateHasAWordThatIsReadAgain) {
    for (const auto state : {TransferView::State::active, TransferView::State::finishing, TransferView::State::done,
                             TransferView::State::failed, TransferView::State::cancelled}) {
        const TransferView view{.number = TransferNumber{1}, .state = state};
        EXPECT_EQ(ServiceNews(view), decodeServiceNews(encodeServiceNews(view)));
    }
    for (const auto state : {OutboxView::State::waiting, OutboxView::State::sending, OutboxView::State::paused,
                             OutboxView::State::failed}) {
        const OutboxView view{.state = state};
        EXPECT_EQ(ServiceNews(view), decodeServiceNews(encodeServiceNews(view)));
    }
}

TEST(ServiceNews, WhatIsNoneSaysWhy) {
    EXPECT_EQ("unknown event", troubleWith(R"({"event":"weather"})"));
    EXPECT_EQ("the running service did not do it: unknown request", troubleWith(R"({"error":"unknown request"})"));
    EXPECT_EQ("\"state\" is unknown", troubleWith(R"({"downloads":"/d","event":"service","port":1,"state":"asleep"})"));
    EXPECT_EQ("a port that is none",
              troubleWith(R"({"downloads":"/d","event":"service","port":65536,"state":"lent"})"));
    EXPECT_EQ("\"transfer\" is below zero", troubleWith(R"({"event":"transfer_gone","transfer":-1})"));
    EXPECT_NE("", troubleWith("[]"));
    EXPECT_NE("", troubleWith(""));
}

TEST(ServiceNews, TheLongestLineThatIsWrittenIsRead) {
    const std::string nasty(255, '\x01');
    const TransferView view{.number = TransferNumber{1},
                            .phone = nasty,
                            .name = nasty,
                            .problem = std::string(2000, 'x'),
                            .path = std::string(4096, '\x01')};
    EXPECT_LE(encodeServiceNews(view).size(), maxNewsLine);
}

} // namespace
} // namespace orlinth::host
