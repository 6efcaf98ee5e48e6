#include "OrlinthHost/Service/LiveSettings.h"

#include "OrlinthHost/Service/History.h"
#include "unit/OrlinthHost/Service/ServiceWorld.h"

#include <gmock/gmock.h>

namespace orlinth::host {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

const std::string found = R"({"found":true})";

/// Settings of a service that runs, changed by its control socket.
class LiveSettingsTest : public ServiceWorldTest {
protected:
    LiveSettingsTest() { world_.system.directories.home = "/home/ann"; }

    [[nodiscard]] static std::string request(const std::string& setting, const Json& value) {
        return compactJson({{"request", "set"}, {"setting", setting}, {"value", value}}) + "\n";
    }
    [[nodiscard]] std::string set(const std::string& setting, const Json& value) {
        return ask(request(setting, value));
    }
    /// Why it was not done.
    [[nodiscard]] std::string problemOf(const std::string& setting, const Json& value) {
        return requireString(parseJson(set(setting, value)), "error");
    }
    [[nodiscard]] Json file() { return parseJson(world_.files.content(settingsPath).value_or("null")); }
    [[nodiscard]] std::string key() const { return world_.phoneRecord().peer_pubkey.text(); }
    [[nodiscard]] std::string ofPhone(const std::string& name) const { return "phones." + key() + "." + name; }
    [[nodiscard]] std::string content(const platform::Path& path) const {
        return world_.files.content(path).value_or("(no file)");
    }
    [[nodiscard]] bool isTaken(const std::string& name) {
        const auto from = phone();
        world_.run(from->send(Row::fileOffer(name, 3, "text/plain", "ID " + name)));
        const DecodedFrame answer = world_.run(from->receive());
        from->close();
        settle();
        return std::get<TransportMessage>(answer).tag() == TransportMessage::Tag::Resume;
    }
    /// Every setting, by its name, and what fixes it behind it.
    [[nodiscard]] std::map<std::string, std::string> all() {
        const std::unique_ptr<platform::Stream> stream = connectToControl();
        world_.run(write(*stream, "{\"request\":\"settings\"}\n"));
        std::map<std::string, std::string> settings;
        for (;;) {
            const ServiceNews news = decodeServiceNews(world_.run(readLine(*stream)));
            if (std::holds_alternative<CurrentLine>(news)) {
                return settings;
            }
            const SettingView& setting = std::get<SettingLine>(news);
            settings[setting.name] = compactJson(toJson(setting.value)) + " " + setting.fixedBy;
        }
    }

    inline static const platform::Path settingsPath = dataFolder / "settings.json";
};

TEST_F(LiveSettingsTest, WhatIsAcceptedChangesWithTheNextOffer) {
    start();
    EXPECT_TRUE(isTaken("a.txt"));
    EXPECT_EQ(found, set("accept", "never"));
    EXPECT_FALSE(isTaken("b.txt"));
    EXPECT_EQ("never", file().at("accept"));
    EXPECT_EQ(found, set("accept", "")) << "as usual";
    EXPECT_TRUE(isTaken("c.txt"));
    EXPECT_EQ(parseJson(R"({"format":1})"), file());
}

TEST_F(LiveSettingsTest, WhatWasSetHoldsAfterARestart) {
    start();
    EXPECT_EQ(found, set("accept", "never"));
    stop();
    start();
    EXPECT_FALSE(isTaken("a.txt"));
}

/// Somebody who wants none of what is offered.
class DecliningAsker final : public OfferAsker {
public:
    bool ask(const OfferView& /*offer*/, Answer answer) override {
        ++asked;
        answer(false);
        return true;
    }
    void over(OfferNumber /*number*/, End /*end*/) override {}
    void nobodyIsThere() override {}

    int asked = 0;
};

TEST_F(LiveSettingsTest, SomebodyIsAskedOnceThatIsSet) {
    DecliningAsker asker;
    settings_.asker = &asker;
    start();
    EXPECT_TRUE(isTaken("a.txt"));
    EXPECT_EQ(found, set("accept", "ask"));
    EXPECT_FALSE(isTaken("b.txt"));
    EXPECT_EQ(1, asker.asked);
}

TEST_F(LiveSettingsTest, NobodyIsTakenForAYesIfNobodyCanBeAsked) {
    start();
    EXPECT_EQ(found, set("accept", "ask"));
    EXPECT_FALSE(isTaken("a.txt"));
}

TEST_F(LiveSettingsTest, FilesGoIntoANewFolderFromTheNextOneOn) {
    start();
    const auto from = phone();
    world_.run(from->send(Row::fileOffer("early.txt", 4, "text/plain", "EARLY")));
    static_cast<void>(world_.run(from->expect<Row::Resume>()));
    EXPECT_EQ(found, set("dir", "~/In"));
    EXPECT_FALSE(world_.files.exists("/home/ann/In")) << "it is made when it is needed";
    deliver("late.txt");
    world_.run(from->sendBinary(toBytes(std::string("here"))));
    world_.run(from->send(Row::done()));
    EXPECT_TRUE(world_.run(from->seesTheEnd()));
    EXPECT_EQ("content of late.txt", content("/home/ann/In/late.txt"));
    EXPECT_EQ("here", received("early.txt")) << "it had begun there";
    EXPECT_THAT(ask("{\"request\":\"port\"}\n"), HasSubstr("/home/ann/In"));
}

/// Nothing of it is lost, and nothing of it gets into another file.
TEST_F(LiveSettingsTest, AFileThatBrokeOffBeginsAnewInTheNewFolder) {
    start();
    const auto begin = [this](const char* data) {
        auto from = phone();
        world_.run(from->send(Row::fileOffer("a.txt", 8, "text/plain", "ID")));
        const auto resume = world_.run(from->expect<Row::Resume>());
        world_.run(from->sendBinary(toBytes(std::string(data))));
        return std::pair(std::move(from), resume.accepted_offset);
    };
    {
        auto [from, offset] = begin("half");
        settle();
        from->close();
        settle();
    }
    EXPECT_EQ(found, set("dir", "/home/ann/In"));
    auto [from, offset] = begin("halfhalf");
    EXPECT_EQ(ByteOffset(), offset);
    world_.run(from->send(Row::done()));
    EXPECT_TRUE(world_.run(from->seesTheEnd()));
    EXPECT_EQ("halfhalf", content("/home/ann/In/a.txt"));
    EXPECT_EQ("half", received("a.txt.partial")) << "`orlinth partials --dir` lists it";
    from.reset();
    settle();
    EXPECT_EQ(found, set("dir", ""));
    auto again = phone();
    world_.run(again->send(Row::fileOffer("a.txt", 8, "text/plain", "ID")));
    static_cast<void>(world_.run(again->expect<Row::Resume>()));
    EXPECT_EQ("(no file)", received("a.txt")) << "it was delivered, whatever the folder is now";
}

TEST_F(LiveSettingsTest, APhoneMayHaveAFolderAndAnAnswerOfItsOwn) {
    start();
    EXPECT_EQ(found, set("accept", "never"));
    EXPECT_EQ(found, set(ofPhone("accept"), "always"));
    EXPECT_EQ(found, set(ofPhone("dir"), "/home/ann/Pixel"));
    deliver("a.txt");
    EXPECT_EQ("content of a.txt", content("/home/ann/Pixel/a.txt"));
    EXPECT_EQ("always", file().at("phones").at(key()).at("accept"));
    EXPECT_EQ(found, set(ofPhone("accept"), ""));
    EXPECT_FALSE(isTaken("b.txt"));
    EXPECT_THAT(problemOf("phones.nobody.accept", "ask"), HasSubstr("no phone with the key nobody is paired"));
}

TEST_F(LiveSettingsTest, TheNameAndTheDefaultPhoneAreKnownAtOnce) {
    start();
    EXPECT_EQ(found, set("name", "Ann's laptop"));
    EXPECT_EQ("Ann's laptop", home_.computerName.get());
    EXPECT_EQ("\"Ann's laptop\" ", all().at("name"));
    EXPECT_EQ(found, set("to", "pix"));
    EXPECT_EQ("pix", home_.defaultPhone.get());
    EXPECT_THAT(problemOf("to", "Tablet"), HasSubstr("no paired phone matches 'Tablet'"));
    EXPECT_EQ(found, set("name", ""));
    EXPECT_EQ("", home_.computerName.get());
    EXPECT_THAT(all().at("name"), Not(HasSubstr("Ann")));
}

TEST_F(LiveSettingsTest, TheHistoryStopsAndGoesOn) {
    start();
    EXPECT_EQ(found, set("history", false));
    deliver("a.txt");
    EXPECT_EQ(found, set("history", true));
    deliver("b.txt");
    stop();
    const std::string history = content(dataFolder / History::fileName);
    EXPECT_THAT(history, Not(HasSubstr("a.txt")));
    EXPECT_THAT(history, HasSubstr("b.txt"));
}

TEST_F(LiveSettingsTest, WhatAFlagOrConfigTomlSetsIsRefusedAndSaysWhere) {
    settings_.accept = ServiceSettings::Accept::never;
    start();
    EXPECT_THAT(problemOf("accept", "always"), HasSubstr("'accept' is set by `--accept`"));
    EXPECT_THAT(problemOf(ofPhone("accept"), "always"), HasSubstr("is set by `--accept`"));
    EXPECT_EQ("\"never\" `--accept`", all().at("accept"));
    EXPECT_EQ("\"/home/ann/Downloads\" ", all().at("dir"));
    EXPECT_FALSE(world_.files.exists(settingsPath));
}

TEST_F(LiveSettingsTest, WhatCannotBeIsRefusedAndNothingIsWritten) {
    start();
    EXPECT_EQ("there is no setting 'port'", problemOf("port", 7));
    EXPECT_EQ("'accept' must be always, never or ask", problemOf("accept", "sometimes"));
    EXPECT_EQ("'history' must be true or false", problemOf("history", "no"));
    EXPECT_THAT(problemOf("dir", "~"), HasSubstr("it is your home folder"));
    world_.files.putFolder("/home/ann/Locked", 0500);
    EXPECT_THAT(problemOf("dir", "/home/ann/Locked"), HasSubstr("Permission denied"));
    EXPECT_FALSE(world_.files.exists(settingsPath));
}

TEST_F(LiveSettingsTest, AFileThatMakesNoSenseIsNotOverwritten) {
    start();
    world_.files.put(settingsPath, "{ broken");
    EXPECT_THAT(problemOf("accept", "never"), HasSubstr(settingsPath.string()));
    EXPECT_EQ("{ broken", content(settingsPath));
    EXPECT_TRUE(isTaken("a.txt")) << "and nothing has changed";
}

TEST_F(LiveSettingsTest, AFileOfALaterVersionCountsAndIsNotWritten) {
    const std::string later = R"({"accept":"never","format":2,"new":1})";
    world_.files.put(settingsPath, later);
    start();
    EXPECT_FALSE(live_->isChangeable());
    EXPECT_FALSE(isTaken("a.txt"));
    EXPECT_THAT(problemOf("accept", "always"), HasSubstr("later version"));
    EXPECT_EQ(later, content(settingsPath));
}

/// Else nobody could choose another one.
TEST_F(LiveSettingsTest, AFolderThatWasChosenAndIsGoneKeepsNoServiceFromStarting) {
    world_.files.put(settingsPath, R"({"dir":"/media/usb","format":1})");
    world_.files.putFolder("/media", 0500);
    start();
    ASSERT_EQ("", problem());
    const std::string why = "cannot write to the folder for received files, /media/usb: Permission denied";
    EXPECT_EQ(1, events_.count("unusable: " + why));
    const auto shown = [this] {
        std::string message;
        EXPECT_TRUE(world_.run(readServiceStatus(home_, [&message](const ServiceNews& news) {
            if (const auto* service = std::get_if<ServiceLine>(&news)) {
                message = service->problem;
            }
        })));
        return message;
    };
    EXPECT_EQ(why, shown());
    world_.files.setPermissions("/media", 0755);
    deliver("a.txt");
    EXPECT_EQ("content of a.txt", content("/media/usb/a.txt"));
    EXPECT_EQ("", shown()) << "it is there again";
    live_->keepProblem("/media/usb", why);
    EXPECT_EQ(why, shown());
    EXPECT_EQ(found, set("dir", "/media/usb/"));
    EXPECT_EQ("", shown()) << "it was chosen again, and can be written";
    EXPECT_EQ(found, set(ofPhone("dir"), "/media/usb"));
    EXPECT_THAT(live_->folders(), ElementsAre("/media/usb"));
    EXPECT_EQ(found, set(ofPhone("dir"), ""));
    live_->keepProblem("/media/usb", why);
    EXPECT_EQ(why, shown());
    EXPECT_EQ(found, set("dir", ""));
    EXPECT_EQ("", shown()) << "it is used no more";
}

/// As somebody may write it into the file.
TEST_F(LiveSettingsTest, AFolderWithASlashAtItsEndIsTheSameFolder) {
    world_.files.put(settingsPath, R"({"dir":"/media/usb/","format":1})");
    world_.files.putFolder("/media", 0500);
    start();
    EXPECT_THAT(live_->problem(), HasSubstr("Permission denied"));
    world_.files.setPermissions("/media", 0755);
    deliver("a.txt");
    EXPECT_EQ("", live_->problem());
}

TEST_F(LiveSettingsTest, IfItCannotBeSavedNothingHasChanged) {
    start();
    world_.files.addFault({.operation = fakes::Operation::write, .errorNumber = ENOSPC, .nameEnding = ".tmp"});
    EXPECT_THAT(problemOf("accept", "never"), HasSubstr("No space left on device"));
    world_.files.clearFaults();
    EXPECT_TRUE(isTaken("a.txt"));
}

TEST_F(LiveSettingsTest, ThoseWhoChangeSomethingAtTheSameTimeLoseNothing) {
    start();
    const std::unique_ptr<platform::Stream> one = connectToControl();
    const std::unique_ptr<platform::Stream> other = connectToControl();
    world_.run(write(*one, request("accept", "ask")));
    world_.run(write(*other, request("history", false)));
    EXPECT_EQ(found, world_.run(readLine(*one)));
    EXPECT_EQ(found, world_.run(readLine(*other)));
    EXPECT_EQ("ask", file().at("accept"));
    EXPECT_EQ(false, file().at("history"));
}

TEST_F(LiveSettingsTest, TablesOfPhonesInConfigTomlAreForThePhoneThatIsCalledSo) {
    SettingSources sources;
    const auto table = [](const char* selector, const char* accept) {
        return PhoneInConfig{.selector = selector,
                             .where = std::string("config.toml, line of ") + selector,
                             .settings = {{SettingId::accept, {.value = accept, .where = "config.toml, line 7"}}}};
    };
    sources.phonesInConfig = {table("pixel-8", "never"), table("Tablet", "ask"), table("pix", "ask")};
    const LiveSettings settings(home_, sources);
    using Approval = Receiver::Reception::Approval;
    EXPECT_EQ(Approval::refused, settings.receptionOf(PeerKey(key())).approval);
    EXPECT_EQ(Approval::given, settings.receptionOf(PeerKey("another")).approval);
    EXPECT_THAT(settings.warnings(), ElementsAre("config.toml, line of Tablet: no paired phone matches 'Tablet'; these "
                                                 "settings have no effect",
                                                 "config.toml, line of pix: 'pix' means the same phone as config.toml, "
                                                 "line of pixel-8; these settings have no effect"));
    PeerRecord renamed = world_.phoneRecord();
    renamed.peer_hostname = "Tablet";
    pair({renamed});
    EXPECT_EQ(Approval::asked, settings.receptionOf(PeerKey(key())).approval);
    world_.files.put(dataFolder / "peer.json", "{ broken");
    EXPECT_EQ(Approval::asked, settings.receptionOf(PeerKey(key())).approval) << "as it was before";
}

} // namespace
} // namespace orlinth::host
