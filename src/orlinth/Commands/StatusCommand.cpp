#include "OrlinthHost/Service/ServiceControlClient.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Reporting/Hints.h"
#include "orlinth/Reporting/StatusText.h"
#include "orlinth/Reporting/Terminal.h"

#include <algorithm>
#include <unistd.h>
#include <utility>

namespace orlinth::cli {

namespace {

/// Shows the service's state in place, again whenever it changes.
class LiveStatus {
public:
    explicit LiveStatus(Host& host) : host_(host), timer_(host.system.clock.makeTimer(host.tasks.executor())) {}

    void take(const host::ServiceNews& news) {
        text_.take(news);
        isCurrent_ = isCurrent_ || std::holds_alternative<host::CurrentLine>(news);
        if (isCurrent_ && !std::exchange(isDue_, true)) {
            timer_->arm(drawingDelay, [this] { draw(); }); // together with what comes now
        }
    }

    /// Nothing more comes: shows what is not shown yet.
    void finish() {
        if (isDue_) {
            timer_->disarm();
            draw();
        }
    }

private:
    static constexpr Seconds drawingDelay = 50ms;

    void draw() {
        isDue_ = false;
        std::vector<std::string> lines =
            text_.lines(host_.system.clock.epochMilliseconds(), columnsOfTerminal(STDOUT_FILENO) - 1);
        const std::size_t room = std::max<std::size_t>(rowsOfTerminal(STDOUT_FILENO), 3) - 1; // what is above scrolls
        if (lines.size() > room) {
            const std::size_t left = lines.size() - (room - 1);
            lines.resize(room - 1);
            lines.push_back("… and " + std::to_string(left) + " more lines");
        }
        std::string page = drawn_ > 0 ? "\x1b[" + std::to_string(drawn_) + "A\r\x1b[J" : "";
        for (const std::string& line : lines) {
            page += (&line == &lines.front() ? "" : "\n") + line;
        }
        drawn_ = lines.size();
        host_.output.page(page);
    }

    Host& host_;
    StatusText text_;
    std::unique_ptr<platform::Timer> timer_;
    bool isCurrent_ = false;
    bool isDue_ = false;
    std::size_t drawn_ = 0; ///< lines
};

/// The service's own line, as an event of this command.
void tellEvent(Output& output, const host::ServiceNews& news) {
    Json fields = parseJson(host::encodeServiceNews(news));
    const std::string event = requireString(fields, "event");
    output.event(event.c_str(), std::move(fields));
}

class StatusCommand final : public Command {
public:
    explicit StatusCommand(CLI::App& program)
        : Command(program.add_subcommand("status",
                                         "Show what the service does: its port, the phones, what is under way, and "
                                         "what waits. Exit status 1 if it does not run.")) {
        parser().add_flag("--watch", watches_, "Go on, and show what changes, until the service ends.");
        addJsonFlag("Print JSON, one object a line.");
    }

    int run(Host& host) override {
        const bool isRunning = watches_ ? watch(host) : show(host);
        if (!isRunning) {
            host.output.failure("the service does not run", hintToStartService(host));
        }
        return isRunning ? 0 : 1;
    }

private:
    [[nodiscard]] static bool show(Host& host) {
        StatusText text;
        const auto onNews = [&](const host::ServiceNews& news) {
            text.take(news);
            tellEvent(host.output, news);
        };
        const bool isRunning = host.tasks.run(host::readServiceStatus(host, onNews));
        if (isRunning) {
            constexpr std::size_t anyLine = 400;
            for (const std::string& line : text.lines(host.system.clock.epochMilliseconds(), anyLine)) {
                host.output.result(line);
            }
        }
        return isRunning;
    }

    [[nodiscard]] static bool watch(Host& host) {
        if (host.output.isJson() || canRedraw(STDOUT_FILENO)) {
            LiveStatus live(host);
            const auto onNews = [&](const host::ServiceNews& news) {
                if (host.output.isJson()) {
                    tellEvent(host.output, news);
                } else {
                    live.take(news);
                }
            };
            const bool isRunning = host.tasks.run(host::watchService(host, onNews));
            live.finish();
            return isRunning;
        }
        throw UsageError("`orlinth status --watch` redraws a terminal", "Into a file or a pipe: with `--json`.");
    }

    bool watches_ = false;
};

} // namespace

std::unique_ptr<Command> makeStatusCommand(CLI::App& program) {
    return std::make_unique<StatusCommand>(program);
}

} // namespace orlinth::cli
