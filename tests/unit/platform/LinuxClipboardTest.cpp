#include "platform/linux/LinuxClipboard.h"

#include "fakes/FakeCompositor.h"
#include "fakes/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>

namespace orlinth::platform {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

/// A desktop of shell scripts in place of wl-paste, wl-copy and xclip. They write down how they were called.
class LinuxClipboardTest : public testing::Test {
protected:
    LinuxClipboardTest() {
        program("wl-paste", "case \"$1\" in --list-types) what=types ;; *) what=$3 ;; esac\n" + answer());
        program("wl-copy", "cat > \"$folder/written\"");
        program("xclip",
                "case \"$3$5\" in -i) exec cat > \"$folder/written\" ;; -oTARGETS) what=types ;; *) what=$5 ;; "
                "esac\n" +
                    answer());
        ::setenv("PATH", (folder.path().string() + ":" + oldPath).c_str(), 1);
        useWayland();
    }
    ~LinuxClipboardTest() override { ::setenv("PATH", oldPath.c_str(), 1); }
    LinuxClipboardTest(const LinuxClipboardTest&) = delete;
    LinuxClipboardTest& operator=(const LinuxClipboardTest&) = delete;

    void program(const std::string& name, const std::string& body) const {
        fakes::writeText(folder / name, "#!/bin/sh\nfolder='" + folder.path().string() + "'\necho " + name +
                                            " \"$@\" >> \"$folder/calls\"\n" + body + "\n");
        std::filesystem::permissions(folder / name, std::filesystem::perms::owner_all);
    }
    static std::string answer() {
        return "file=$folder/$(printf %s \"$what\" | tr '/;= ' '____')\n"
               "if [ -e \"$file\" ]; then exec cat \"$file\"; fi\n"
               "cat \"$folder/complaint\" >&2; exit 1";
    }
    /// What is on the clipboard, in the order of the listing.
    void offer(const std::vector<std::pair<std::string, std::string>>& contents) const {
        std::string types;
        for (const auto& [type, content] : contents) {
            types += type + "\n";
            put(type, content);
        }
        put("types", types);
    }
    void put(std::string name, const std::string& content) const {
        for (char& character : name) {
            if (std::string_view("/;= ").find(character) != std::string_view::npos) {
                character = '_';
            }
        }
        fakes::writeText(folder / name, content);
    }
    [[nodiscard]] std::string calls() const { return fakes::readText(folder / "calls"); }
    [[nodiscard]] std::string written() const { return fakes::readText(folder / "written"); }

    template <typename E, typename Call>
    std::string failure(Call call) {
        try {
            call();
        } catch (const E& error) {
            return error.description();
        }
        return "nothing was thrown";
    }
    void useX11() { variables = {{"DISPLAY", ":1"}}; }
    /// A compositor with these interfaces.
    void useWayland(const std::vector<std::string>& interfaces = {"wl_shm", "zwlr_data_control_manager_v1"}) {
        compositor.reset();
        const std::filesystem::path socket = folder / "wayland-1";
        compositor = std::make_unique<fakes::FakeCompositor>(socket, fakes::wayland::registry(interfaces));
        variables = {{"WAYLAND_DISPLAY", socket.string()}};
    }
    /// One that lets only the window in focus use the clipboard.
    void useGuardedWayland() { useWayland({"wl_shm", "wl_data_device_manager"}); }

    fakes::TemporaryFolder folder;
    std::string oldPath = std::getenv("PATH");
    std::map<std::string, std::string> variables;
    std::unique_ptr<fakes::FakeCompositor> compositor;
    LinuxClipboard clipboard{[this] {
        return desktopSession([this](const char* name) {
            const auto found = variables.find(name);
            return found != variables.end() ? found->second.c_str() : nullptr;
        });
    }};
};

TEST_F(LinuxClipboardTest, SaysThatThereIsNoSession) {
    const std::string expected = "there is no desktop session (neither WAYLAND_DISPLAY nor DISPLAY is set)";
    for (const auto& nothing : {std::map<std::string, std::string>{},
                                std::map<std::string, std::string>{{"DISPLAY", ""}, {"WAYLAND_DISPLAY", ""}}}) {
        variables = nothing;
        EXPECT_EQ(failure<ClipboardUnavailable>([&] { static_cast<void>(clipboard.itemTypes()); }), expected);
        EXPECT_EQ(failure<ClipboardUnavailable>([&] { static_cast<void>(clipboard.content("a")); }), expected);
        EXPECT_EQ(failure<ClipboardUnavailable>([&] { static_cast<void>(clipboard.text()); }), expected);
        EXPECT_EQ(failure<ClipboardUnavailable>([&] { clipboard.setText("hunter2"); }), expected);
    }
    EXPECT_EQ(calls(), "");
}

TEST_F(LinuxClipboardTest, AsksWaylandWhereThereAreBoth) {
    offer({{"text/plain", "a"}});
    variables["DISPLAY"] = ":0";
    static_cast<void>(clipboard.itemTypes());
    clipboard.setText("b");
    EXPECT_EQ(calls(), "wl-paste --list-types\nwl-copy --type text/plain;charset=utf-8\n");
    EXPECT_EQ(compositor->asked(), 1);
}

TEST_F(LinuxClipboardTest, GoesByXWaylandWhereOnlyTheWindowInFocusMayUseTheClipboard) {
    useGuardedWayland();
    variables["DISPLAY"] = ":0";
    offer({{"UTF8_STRING", "a"}});
    EXPECT_EQ(clipboard.text(), "a");
    clipboard.setText("b");
    EXPECT_EQ(written(), "b");
    EXPECT_THAT(calls(), Not(HasSubstr("wl-")));
}

TEST_F(LinuxClipboardTest, NeverWritesWhereThatWouldTakeTheFocus) {
    useGuardedWayland();
    EXPECT_EQ(failure<ClipboardUnavailable>([&] { clipboard.setText("hunter2"); }),
              "this desktop lets only the window in focus use the clipboard, and it has no XWayland (DISPLAY is not "
              "set)");
    variables["DISPLAY"] = ":0";
    program("xclip", "echo \"Error: Can't open display: :0\" >&2; exit 1");
    EXPECT_EQ(failure<ClipboardUnavailable>([&] { clipboard.setText("hunter2"); }),
              "the desktop session cannot be reached: Error: Can't open display: :0");
    EXPECT_THAT(calls(), Not(HasSubstr("wl-copy")));
}

TEST_F(LinuxClipboardTest, ReadsWithTheFocusWhereThereIsNoOtherWay) {
    useGuardedWayland();
    offer({{"text/plain", "a"}});
    EXPECT_EQ(clipboard.text(), "a");
    EXPECT_THAT(calls(), StartsWith("wl-paste"));
    variables["DISPLAY"] = ":0";
    program("xclip", "echo \"Error: Can't open display: :0\" >&2; exit 1");
    EXPECT_EQ(clipboard.text(), "a");
    EXPECT_THAT(clipboard.itemTypes(), ElementsAre(ElementsAre("text/plain")));
    EXPECT_EQ(clipboard.content("text/plain"), toBytes("a"));
}

TEST_F(LinuxClipboardTest, NamesTheFirstOfTwoWaysThatAreBothMissing) {
    useGuardedWayland();
    variables["DISPLAY"] = ":0";
    ::setenv("PATH", (folder / "nowhere").c_str(), 1);
    EXPECT_EQ(failure<ClipboardUnavailable>([&] { static_cast<void>(clipboard.text()); }),
              "xclip is not installed (package xclip)");
}

TEST_F(LinuxClipboardTest, SaysThatNoCompositorAnswers) {
    compositor.reset();
    variables = {{"WAYLAND_DISPLAY", "wayland-7"}, {"XDG_RUNTIME_DIR", folder.path().string()}};
    EXPECT_EQ(failure<ClipboardUnavailable>([&] { clipboard.setText("hunter2"); }),
              "the desktop session cannot be reached: no compositor answers at wayland-7");
    EXPECT_EQ(calls(), "");
    variables["DISPLAY"] = ":0";
    clipboard.setText("text");
    EXPECT_EQ(written(), "text");
    EXPECT_THAT(calls(), StartsWith("xclip"));
}

TEST_F(LinuxClipboardTest, TellsTheProgramsWhichDesktopIsMeant) {
    program("xclip", "printf '%s %s' \"$DISPLAY\" \"$XAUTHORITY\" > \"$folder/desktop\"");
    variables = {{"DISPLAY", ":42"}, {"XAUTHORITY", "/run/key"}};
    clipboard.setText("text");
    EXPECT_EQ(fakes::readText(folder / "desktop"), ":42 /run/key");
}

TEST_F(LinuxClipboardTest, AsksX11WhereThereIsNoWayland) {
    offer({{"STRING", "a"}});
    variables = {{"WAYLAND_DISPLAY", ""}, {"DISPLAY", ":0"}};
    static_cast<void>(clipboard.itemTypes());
    EXPECT_EQ(calls(), "xclip -selection clipboard -o -t TARGETS\n");
}

TEST_F(LinuxClipboardTest, ListsTheTypesOfItsOneItem) {
    offer({{"text/plain;charset=utf-8", "a"}, {"x y", "b"}, {"org.nspasteboard.ConcealedType", ""}});
    EXPECT_THAT(clipboard.itemTypes(),
                ElementsAre(ElementsAre("text/plain;charset=utf-8", "x y", "org.nspasteboard.ConcealedType")));
    EXPECT_EQ(calls(), "wl-paste --list-types\n") << "no content may be read";
}

TEST_F(LinuxClipboardTest, LeavesOutX11sTypeOfTypes) {
    useX11();
    offer({{"TARGETS", ""}, {"TIMESTAMP", ""}, {"UTF8_STRING", "a"}});
    EXPECT_THAT(clipboard.itemTypes(), ElementsAre(ElementsAre("TIMESTAMP", "UTF8_STRING")));
}

TEST_F(LinuxClipboardTest, HasNoItemsWhenThereIsNothing) {
    for (const char* complaint : {"No selection\n", "Nothing is copied\n"}) {
        put("complaint", complaint);
        EXPECT_THAT(clipboard.itemTypes(), IsEmpty()) << complaint;
        EXPECT_EQ(clipboard.text(), std::nullopt) << complaint;
        EXPECT_EQ(clipboard.content("text/plain"), std::nullopt) << complaint;
    }
    useX11();
    for (const char* complaint :
         {"Error: target TARGETS not available\n", "Error: There is no owner for the CLIPBOARD selection\n"}) {
        put("complaint", complaint);
        EXPECT_THAT(clipboard.itemTypes(), IsEmpty()) << complaint;
        EXPECT_EQ(clipboard.text(), std::nullopt) << complaint;
        EXPECT_EQ(clipboard.content("UTF8_STRING"), std::nullopt) << complaint;
    }
}

TEST_F(LinuxClipboardTest, SaysThatTheDesktopCannotBeReached) {
    put("complaint", "Failed to connect to a Wayland server\nNote: WAYLAND_DISPLAY is set to wayland-7");
    EXPECT_THAT(failure<ClipboardUnavailable>([&] { static_cast<void>(clipboard.itemTypes()); }),
                StartsWith("the desktop session cannot be reached: Failed to connect to a Wayland server"));
    useX11();
    put("complaint", "Error: Can't open display: :999\n");
    EXPECT_EQ(failure<ClipboardUnavailable>([&] { static_cast<void>(clipboard.itemTypes()); }),
              "the desktop session cannot be reached: Error: Can't open display: :999");
}

TEST_F(LinuxClipboardTest, SaysWhichProgramIsMissing) {
    ::setenv("PATH", (folder / "nowhere").c_str(), 1);
    EXPECT_EQ(failure<ClipboardUnavailable>([&] { static_cast<void>(clipboard.itemTypes()); }),
              "wl-paste is not installed (package wl-clipboard)");
    EXPECT_EQ(failure<ClipboardUnavailable>([&] { clipboard.setText("hunter2"); }),
              "wl-copy is not installed (package wl-clipboard)");
    useX11();
    EXPECT_EQ(failure<ClipboardUnavailable>([&] { static_cast<void>(clipboard.text()); }),
              "xclip is not installed (package xclip)");
}

TEST_F(LinuxClipboardTest, DoesNotTakeAnotherFailureForAnEmptyClipboard) {
    put("complaint", "The compositor is on fire\n");
    EXPECT_THROW(static_cast<void>(clipboard.itemTypes()), SystemError);
    EXPECT_EQ(failure<SystemError>([&] { static_cast<void>(clipboard.text()); }),
              "wl-paste: The compositor is on fire");
    EXPECT_EQ(failure<ClipboardUnavailable>([&]() -> void {
                  try {
                      static_cast<void>(clipboard.itemTypes());
                  } catch (const ClipboardUnavailable&) {
                      throw;
                  } catch (const SystemError&) { // as it should be
                  }
              }),
              "nothing was thrown");
    put("complaint", "");
    EXPECT_EQ(failure<SystemError>([&] { static_cast<void>(clipboard.itemTypes()); }), "wl-paste: ended with status 1");
}

TEST_F(LinuxClipboardTest, GivesUpOnAnOwnerThatDoesNotAnswer) {
    program("wl-paste", "exec sleep 1000");
    EXPECT_EQ(failure<SystemError>([&] { static_cast<void>(clipboard.itemTypes()); }), "wl-paste does not answer");
}

TEST_F(LinuxClipboardTest, RefusesAListingThatIsTooLongToBeTrusted) {
    program("wl-paste", "yes some/type | head -c 100000");
    EXPECT_THROW(static_cast<void>(clipboard.itemTypes()), SystemError);
}

TEST_F(LinuxClipboardTest, ReadsAContentAsItIs) {
    const std::string bytes("\x89PNG\0\n\n", 7);
    offer({{"image/png", bytes}});
    EXPECT_EQ(clipboard.content("image/png"), toBytes(bytes));
    EXPECT_EQ(calls(), "wl-paste --no-newline --type image/png\n");
    useX11();
    EXPECT_EQ(clipboard.content("image/png"), toBytes(bytes));
    EXPECT_THAT(calls(), HasSubstr("\nxclip -selection clipboard -o -t image/png\n"));
}

TEST_F(LinuxClipboardTest, TakesTheBestTextThatIsOffered) {
    const std::vector<std::string> bestFirst = {"text/plain;charset=utf-8", "UTF8_STRING", "text/plain", "TEXT",
                                                "STRING"};
    for (std::size_t best = 0; best < bestFirst.size(); ++best) {
        std::vector<std::pair<std::string, std::string>> contents = {{"text/html", "<b>"}};
        for (std::size_t i = bestFirst.size(); i-- > best;) {
            contents.emplace_back(bestFirst[i], "in " + bestFirst[i]);
        }
        offer(contents);
        EXPECT_EQ(clipboard.text(), "in " + bestFirst[best]);
    }
}

TEST_F(LinuxClipboardTest, AsksInTheOwnersSpelling) {
    offer({{"text/plain; charset=UTF-8", "Grüße"}, {"text/plain", "Gr??e"}});
    EXPECT_EQ(clipboard.text(), "Grüße");
    EXPECT_THAT(calls(), HasSubstr("--type text/plain; charset=UTF-8\n"));
}

TEST_F(LinuxClipboardTest, HasNoTextBesideAnImageAndReadsNothing) {
    offer({{"image/png", "\x89PNG"}, {"text/html", "<img>"}});
    EXPECT_EQ(clipboard.text(), std::nullopt);
    EXPECT_EQ(calls(), "wl-paste --list-types\n");
}

TEST_F(LinuxClipboardTest, KnowsAnEmptyTextFromNone) {
    offer({{"text/plain", ""}});
    EXPECT_EQ(clipboard.text(), "");
}

TEST_F(LinuxClipboardTest, LeavesATextUnchanged) {
    offer({{"UTF8_STRING", " Grüße \n\n"}});
    EXPECT_EQ(clipboard.text(), " Grüße \n\n");
}

TEST_F(LinuxClipboardTest, ReadsOldTextsAsLatin1UnlessTheyAreUtf8) {
    for (const char* type : {"STRING", "TEXT", "text/plain"}) {
        offer({{type, "Gr\xFC\xDF"
                      "e \xA3"}});
        EXPECT_EQ(clipboard.text(), "Grüße £") << type;
        offer({{type, "Grüße £"}});
        EXPECT_EQ(clipboard.text(), "Grüße £") << type;
    }
}

TEST_F(LinuxClipboardTest, RepairsWhatIsNotTheUtf8ThatItPromises) {
    offer({{"text/plain;charset=utf-8", "a\xFF"
                                        "b"}});
    EXPECT_EQ(clipboard.text(), "a\xEF\xBF\xBD"
                                "b");
}

TEST_F(LinuxClipboardTest, TakesTheNextTypeWhenOneIsGone) {
    put("types", "text/plain;charset=utf-8\nUTF8_STRING\n");
    put("UTF8_STRING", "still here");
    put("complaint", "No suitable type of content copied\n");
    EXPECT_EQ(clipboard.text(), "still here");
    put("types", "text/plain\n");
    EXPECT_EQ(clipboard.text(), std::nullopt);
}

TEST_F(LinuxClipboardTest, ReadsNoMoreThanItsLimitAndCutsNoCharacterInHalf) {
    // the character of three bytes lies across the limit
    program("wl-paste", "case \"$1\" in --list-types) echo text/plain;; *) head -c " +
                            std::to_string(Clipboard::maxBytes - 2) +
                            " /dev/zero | tr '\\0' a; printf '\\342\\202\\254'; " + "exec cat /dev/zero;; esac");
    const std::optional<Bytes> content = clipboard.content("text/plain");
    ASSERT_TRUE(content);
    EXPECT_EQ(content->size(), Clipboard::maxBytes);
    const std::optional<std::string> text = clipboard.text();
    ASSERT_TRUE(text);
    EXPECT_TRUE(*text == std::string(Clipboard::maxBytes - 2, 'a')) << text->size();
}

TEST_F(LinuxClipboardTest, WritesTextThroughStandardInputAlone) {
    const std::string text = "hunter2 $HOME `id`\n";
    clipboard.setText(text);
    EXPECT_EQ(written(), text);
    EXPECT_EQ(calls(), "wl-copy --type text/plain;charset=utf-8\n");
    useX11();
    put("written", "");
    clipboard.setText(text);
    EXPECT_EQ(written(), text);
    EXPECT_THAT(calls(), HasSubstr("\nxclip -selection clipboard -i\n"));
    EXPECT_THAT(calls(), Not(HasSubstr("hunter2")));
}

TEST_F(LinuxClipboardTest, KeepsTheTextsFileInTheUsersOwnFolderInMemory) {
    program("wl-copy", "cat > \"$folder/written\"; printf %s \"$TMPDIR\" > \"$folder/where\"");
    clipboard.setText("text");
    EXPECT_EQ(fakes::readText(folder / "where"), "");
    variables["XDG_RUNTIME_DIR"] = "/run/user/7";
    clipboard.setText("text");
    EXPECT_EQ(fakes::readText(folder / "where"), "/run/user/7");
}

TEST_F(LinuxClipboardTest, PutsAnEmptyTextThere) {
    put("written", "old");
    clipboard.setText("");
    EXPECT_EQ(written(), "");
    EXPECT_THAT(calls(), StartsWith("wl-copy"));
}

TEST_F(LinuxClipboardTest, SaysThatATextCouldNotBeWritten) {
    program("wl-copy", "echo 'There is no data control' >&2; exit 3");
    EXPECT_EQ(failure<SystemError>([&] { clipboard.setText("hunter2"); }), "wl-copy: There is no data control");
}

TEST_F(LinuxClipboardTest, DoesNotWaitForTheOwnerThatStaysInTheBackground) {
    program("wl-copy", "cat > \"$folder/written\"; sleep 1000 & echo $! > \"$folder/background\"");
    clipboard.setText("text");
    EXPECT_EQ(written(), "text");
    EXPECT_EQ(::kill(std::stoi(fakes::readText(folder / "background")), SIGTERM), 0);
}

} // namespace
} // namespace orlinth::platform
