#include "OrlinthBus/BusFace.h"
#include "OrlinthHost/Service/DesktopNotices.h"
#include "OrlinthHost/Service/DownloadsFolder.h"
#include "OrlinthHost/Service/Service.h"
#include "orlinth/Asking/OfferQuestions.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Commands/FolderCheck.h"
#include "orlinth/Program/ServiceDesktop.h"
#include "orlinth/Program/Settings.h"
#include "orlinth/Reporting/Hints.h"
#include "orlinth/Reporting/OutboxReporter.h"
#include "orlinth/Reporting/ServeReporter.h"
#include "platform/ProcessMemory.h"
#include "platform/ServiceManager.h"
#include "platform/linux/LinuxJobViews.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <sys/resource.h>
#include <utility>

namespace orlinth::cli {

namespace {

/// Of the two seconds in which a signal ends the service in any case; the rest is for leaving.
constexpr std::chrono::milliseconds graceAfterSignal = 1800ms;
/// With which the service ends to be started anew (EX_TEMPFAIL); the unit knows it.
constexpr int restartStatus = 75;

/// Many phones at once need more descriptors than a login session is usually given. More than this nobody needs.
void raiseDescriptorLimit() {
    constexpr rlim_t enough = 16384;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < enough) {
        limit.rlim_cur = std::min(enough, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// Not by way of the thread of `main`, which may hang itself.
host::Watchdog::Callbacks watchdogCallbacks() {
    return {.onLate =
                [](const platform::LateQueue& late) {
                    writeToStandardError("orlinth: a thread has not answered for " +
                                         std::to_string(std::lround(late.silence.count())) + " seconds: " + late.label +
                                         "\n");
                },
            .onMoreLate =
                [](std::int64_t count) {
                    writeToStandardError("orlinth: threads did not answer " + std::to_string(count) + " more times\n");
                },
            .onAlive = [] { platform::tellServiceAlive(); }};
}

const char* environmentVariable(const char* name) {
    return std::getenv(name);
}

Task<bool> serveUntilCancelled(host::Service& service) {
    co_await service.run();
    co_return true;
}

class ServeCommand final : public Command {
public:
    explicit ServeCommand(CLI::App& program)
        : Command(program.add_subcommand(
              "serve", "Receive from every paired phone, and send what was shared, until it is ended.")) {
        portOption_ = addPort("--port", port_, 0, "The TCP port to listen on, 0 to 65535; 0: any free one.")
                          ->capture_default_str();
        parser()
            .add_option(
                "--listen", places_,
                "Where to listen: an address of this computer, or the name of a network interface. May be given "
                "several times. Default: everywhere.")
            ->type_name("ADDRESS|INTERFACE")
            ->allow_extra_args(false)
            ->check(notEmpty());
        addListenPublic(listensPublicly_);
        addText("--dir", directory_, "DIR", "Where the files go. Default: the user's downloads folder.");
        parser()
            .add_option("--accept", accept_,
                        "Whether to take the files of paired phones: all of them, none, or those for which somebody "
                        "at the terminal or the desktop says so within two minutes.")
            ->type_name("always|never|ask")
            ->check(CLI::IsMember({"always", "never", "ask"}).description(""))
            ->take_last()
            ->capture_default_str();
        addSize("--keep-free", keepFree_, "512M",
                "Decline files that would leave less than this free on the disk; 0: take whatever fits.");
        addSize("--max-file", maxFile_, "0", "Decline files larger than this; 0: take any size.");
        parser().add_flag("--no-clipboard", leavesClipboard_, "Leave the desktop's clipboard alone when a text comes.");
        parser().add_flag("--history", keepsHistory_,
                          "Write down what came and went, for `orlinth history`; on unless --history=false is given.");
        parser().add_flag("--notifications", showsNotifications_,
                          "Show notifications on the desktop; on unless --notifications=false is given. Questions of "
                          "--accept=ask are always shown.");
        addFind(find_);
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No messages but failures.");
    }

    int run(Host& host) override {
        std::signal(SIGHUP, SIG_IGN); // the terminal that it was started in may go
        host.output.doWithoutReader();
        raiseDescriptorLimit();
        platform::returnFreedMemory();
        host.tasks.treatSignalsAsUsualEnd(graceAfterSignal);
        host.settings.flags = settingsFromFlags(parser());
        host::LiveSettings live(host, host.settings);
        requireGoodFolders(host, live);
        tellOfSettings(host, live);
        const platform::PrivateKey ownKey = host.staticKey();
        bool isRestarting = false;
        try {
            serve(host, ownKey, live, isRestarting);
            return 0;
        } catch (const Interrupted&) {
            return 0;
        } catch (const std::exception& error) {
            if (isRestarting && platform::isCancellation(error)) {
                return restartStatus;
            }
            host.output.failure(describe(error), hintForServing(host, error));
            return 1;
        }
    }

private:
    /// @throws UsageError
    static void requireGoodFolders(Host& host, const host::LiveSettings& live) {
        static_cast<void>(downloadsFolder(host, host.settings.text(host::SettingId::downloads)));
        for (const platform::Path& folder : live.folders()) {
            requireGoodDownloads(host, folder);
        }
    }

    static void tellOfSettings(Host& host, const host::LiveSettings& live) {
        for (const std::string& warning : live.warnings()) {
            host.output.message(warning);
        }
        if (!live.isChangeable()) {
            host.output.message((host.dataDirectory() / host::SettingsFile::fileName).string() +
                                " was written by a later version of Orlinth. This version uses the settings that it "
                                "knows, and does not change the file.");
        }
    }

    void serve(Host& host, const platform::PrivateKey& ownKey, host::LiveSettings& live, bool& isRestarting) const {
        OfferQuestions questions(host);
        ServiceDesktop desktop(host);
        platform::LinuxJobViews jobs(host.tasks.executor(), environmentVariable);
        host::DesktopNotices notices(host::NoticeBoard(host, &jobs, [&live] { return live.showsNotifications(); }),
                                     desktop, foldersOf(live));
        ServeReporter reporter(host, desktop, notices, choices(live));
        OutboxReporter outboxReporter(host, notices.outgoing());
        host::ServiceSettings settings = settingsForService();
        settings.asker = &questions;
        settings.program = platform::programFile();
        if (platform::isRestartedAfter(restartStatus)) {
            settings.restart = [&host, &isRestarting] {
                isRestarting = true;
                host.tasks.cancel();
            };
        }
        bus::BusFace face(host, environmentVariable,
                          {.version = ORLINTH_VERSION,
                           .dataDirectory = host.dataDirectory().string(),
                           .publicKey = ownKey.publicKey().base64()});
        if (host.system.directories.areUsual()) { // the name on the bus is that of the user's own service
            settings.faces.push_back(&face);
        }
        settings.faces.push_back(&notices);
        host::Service service(host, ownKey, live, std::move(settings), reporter, outboxReporter);
        static_cast<void>(host.tasks.run(serveUntilCancelled(service)));
    }

    [[nodiscard]] static host::DesktopNotices::Folders foldersOf(const host::LiveSettings& live) {
        return {.of = [&live](const PeerKey& peerKey) { return live.receptionOf(peerKey).place.folder; },
                .chosen = [&live] { return live.folders(); }};
    }

    [[nodiscard]] ServeReporter::Choices choices(const host::LiveSettings& live) const {
        return {.writesClipboard = [&live] { return live.writesClipboard(); },
                .port = portOption_->count() > 0 ? std::optional(port_) : std::nullopt,
                .choosesPlaces = !places_.empty()};
    }

    [[nodiscard]] host::ServiceSettings settingsForService() const {
        return {.port = {.number = port_, .places = places_, .isPublic = listensPublicly_},
                .find = find_,
                .watchdogInterval = platform::serviceWatchdogInterval(),
                .watchdog = watchdogCallbacks()};
    }

    std::uint16_t port_ = defaultPort;
    CLI::Option* portOption_ = nullptr; ///< the parser's
    std::vector<std::string> places_;
    bool listensPublicly_ = false;
    // what LiveSettings has; the parser needs them to check, and to show, what is given
    std::string directory_;
    std::string keepFree_;
    std::string maxFile_;
    std::string accept_ = "always";
    bool leavesClipboard_ = false;
    bool keepsHistory_ = true;
    bool showsNotifications_ = true;
    host::FindSetting find_ = host::FindSetting::known;
};

} // namespace

std::unique_ptr<Command> makeServeCommand(CLI::App& program) {
    return std::make_unique<ServeCommand>(program);
}

} // namespace orlinth::cli
