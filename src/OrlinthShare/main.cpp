#include "OrlinthCore/Share/ServiceActivation.h"
#include "OrlinthShare/ComputerName.h"
#include "OrlinthShare/DesktopLook.h"
#include "OrlinthShare/ShareViewController.h"
#include "base/Error.h"
#include "platform/Spawn.h"
#include "platform/linux/LinuxSystem.h"

#include <QApplication>
#include <QIcon>
#include <QThread>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace orlinth::share {
namespace {

constexpr int wrongCommandLine = 2;

constexpr const char* help =
    "Usage: orlinth-share [--color-scheme light|dark] [--] [FILE...]\n"
    "\n"
    "The share sheet: asks which of your paired phones the files go to and puts them into the outbox, from which\n"
    "`orlinth serve` sends them; that is started if it does not run. With one paired phone it does not ask. A FILE is\n"
    "a path or a file: URI.\n"
    "\n"
    "  --color-scheme light|dark   instead of the desktop's\n"
    "  --help, --version           say so and end\n"
    "\n"
    "Exit status: 0 the files are in the outbox, 1 they are not (or it was cancelled), 2 the command line is wrong.\n";

struct CommandLine {
    std::vector<std::string> items;
    std::optional<ColorScheme> colorScheme;
    std::optional<int> ended; ///< the exit status, where nothing is left to do
};

int tell(std::string_view text, int status) {
    std::cerr << "orlinth-share: " << text << '\n';
    return status;
}

CommandLine wrong(const std::string& text) {
    CommandLine line;
    line.ended = tell(text + "\nTry --help.", wrongCommandLine);
    return line;
}

CommandLine parse(const std::vector<std::string>& arguments) {
    CommandLine line;
    bool areItems = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (areItems || !argument.starts_with('-')) {
            line.items.push_back(argument);
        } else if (argument == "--") {
            areItems = true;
        } else if (argument == "--help" || argument == "-h") {
            std::cout << help;
            line.ended = 0;
            return line;
        } else if (argument == "--version") {
            std::cout << "orlinth-share " << ORLINTH_VERSION << '\n';
            line.ended = 0;
            return line;
        } else if (argument == "--color-scheme") {
            const QString name = i + 1 < arguments.size() ? QString::fromStdString(arguments[++i]) : QString();
            line.colorScheme = colorSchemeNamed(name);
            if (!line.colorScheme) {
                return wrong("--color-scheme is light or dark");
            }
        } else {
            return wrong("unknown option " + argument);
        }
    }
    return line;
}

/// Qt ends the process by itself where it finds no display; that is not to look like a crash, and what it complained of
/// on the way there says the same. Its warnings are about the toolkit and say nothing to a user.
void onQtMessage(QtMsgType type, const QMessageLogContext& /*context*/, const QString& text) {
    if (type == QtFatalMsg) {
        std::_Exit(tell("the desktop session cannot be reached", 1));
    }
    const bool hasDisplay = !QGuiApplication::platformName().isEmpty();
    if (type == QtCriticalMsg && hasDisplay) {
        tell(text.toStdString(), 0);
    }
}

/// Whether there is anything to show a window on.
bool hasDesktop() {
    return qEnvironmentVariableIsSet("QT_QPA_PLATFORM") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
           !qEnvironmentVariableIsEmpty("DISPLAY");
}

/// Platforms of Qt on which nobody sees a window.
bool isWindowSeen() {
    const QString platform = QGuiApplication::platformName();
    return platform != QStringLiteral("offscreen") && platform != QStringLiteral("minimal");
}

/// How long the sheet waits for what the service knows of the phones.
constexpr Seconds presencePatience = 50ms;

/// `system` and `phones` outlive the task.
Task<> takePresence(platform::System& system, std::vector<SharePresence>& phones) {
    phones = co_await ServicePresence::ask(system.unixSockets, system.clock,
                                           ServicePresence::socketOf(system.directories), presencePatience);
}

/// On a thread of its own; waits for the answer.
std::vector<SharePresence> askService(platform::System& system) {
    asio::io_context context(1);
    std::vector<SharePresence> phones;
    platform::spawn(context.get_executor(), takePresence(system, phones),
                    [&log = system.log](const std::exception_ptr& error) {
                        if (error) { // then the list has to do
                            log.write(platform::LogLevel::debug, ShareStaging::logSubsystem, "share", describe(error));
                        }
                    });
    context.run();
    return phones;
}

/// Outlive the task.
Task<> lookForService(platform::System& system, bool& isThere) {
    isThere = co_await ServiceActivation::isRunning(system.unixSockets, ServicePresence::socketOf(system.directories),
                                                    ORLINTH_VERSION);
}

/// On a thread of its own; waits until the service runs, or it is certain that it does not.
std::string startService(platform::System& system) {
    asio::io_context context(1);
    bool isThere = false;
    platform::spawn(context.get_executor(), lookForService(system, isThere), [](const std::exception_ptr&) {
        // then it is started, which does nothing to one that runs
    });
    context.run();
    return isThere ? "" : ServiceActivation::startForOutbox(system.userServices, system.directories);
}

/// Shows the sheet until the request has ended and the window is closed.
int runSheet(QApplication& application, CommandLine line) {
    using namespace std::chrono_literals;
    constexpr auto statusSeen = 600ms;
    constexpr auto copiesPatience = 1000ms;

    asio::io_context context(1); // the system wants one; nothing here waits on it
    platform::LinuxSystem linux(context);
    platform::System system = linux.system();
    std::error_code gone; // of a folder that was removed: nothing lies below it, and whole paths are as good as ever
    ShareRequest request(std::move(line.items), std::filesystem::current_path(gone));
    request.onEnd = [&request] {
        if (request.error()) {
            tell(request.error()->description, request.exitStatus());
        } else if (!request.notice().empty()) {
            tell(request.notice(), request.exitStatus());
        }
    };
    ShareViewController controller(
        {.system = {.files = system.files, .clock = system.clock, .log = system.log, .busSignals = system.busSignals},
         .directories = system.directories,
         .computerName = computerName(system.files),
         .statusSeen = isWindowSeen() ? statusSeen : 0ms,
         .showsFailures = isWindowSeen(),
         .askPresence = [&system] { return askService(system); },
         .startService = [&system] { return startService(system); }},
        request);
    controller.onFinished = [&application] { application.exit(); };
    controller.loadView();
    controller.view().show();
    QMetaObject::invokeMethod(&controller, [&controller] { controller.viewDidAppear(); }, Qt::QueuedConnection);
    QApplication::exec();

    const int status = request.exitStatus();
    if (!controller.waitForCopies(copiesPatience)) {
        controller.abandonBatch();
        std::_Exit(status); // a large copy would go on for minutes, for nothing
    }
    return status;
}

int run(int argc, char** argv) {
    CommandLine line = parse({argv + std::min(argc, 1), argv + argc});
    if (line.ended) {
        return *line.ended;
    }
    if (!hasDesktop()) {
        return tell("there is no desktop session (neither WAYLAND_DISPLAY nor DISPLAY is set)", 1);
    }
    qInstallMessageHandler(onQtMessage);
    int noArguments = std::min(argc, 1); // the files are not Qt's options
    QApplication application(noArguments, argv);
    QApplication::setApplicationName(QStringLiteral("orlinth-share"));
    QApplication::setApplicationDisplayName(QStringLiteral("Orlinth"));
    QApplication::setQuitOnLastWindowClosed(false);
    QGuiApplication::setDesktopFileName(QStringLiteral("com.tarvinex.orlinth.share"));
    QApplication::setWindowIcon(
        QIcon::fromTheme(QStringLiteral("com.tarvinex.orlinth"), QIcon(QStringLiteral(":/orlinth-menubar.svg"))));
    const std::unique_ptr<QThread> waiting = applyDesktopLook(line.colorScheme);
    const int status = runSheet(application, std::move(line));
    if (waiting && !waiting->wait(0)) {
        std::_Exit(status); // it would have to end first
    }
    return status;
}

} // namespace
} // namespace orlinth::share

int main(int argc, char** argv) {
    try {
        return orlinth::share::run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "orlinth-share: " << orlinth::describe(error) << '\n';
        return 1;
    }
}
