#include "OrlinthHost/HostError.h"
#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Service/History.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <array>

namespace orlinth::cli {

namespace {

using host::HistoryEntry;

Json fieldsOf(const HistoryEntry& entry) {
    return {{"time_epoch_ms", toNumber(entry.time)},
            {"direction", host::textOf(entry.direction)},
            {"phone", entry.phone},
            {"peer_pubkey", entry.peerKey.text()},
            {"file", entry.file},
            {"size", entry.size},
            {"outcome", host::textOf(entry.outcome)},
            {"problem", entry.problem},
            {"path", entry.path}};
}

constexpr std::size_t columns = 5;
using Row = std::array<std::string, columns>;

Row rowOf(const HistoryEntry& entry) {
    const bool isIncoming = entry.direction == HistoryEntry::Direction::in;
    std::string outcome = host::textOf(entry.outcome);
    if (!entry.problem.empty()) {
        outcome += ": " + forDisplay(entry.problem);
    }
    return {host::humanTime(entry.time), (isIncoming ? "from " : "to ") + forDisplay(entry.phone),
            forDisplay(entry.file), host::humanSize(entry.size), outcome};
}

void printTable(Output& output, const std::vector<HistoryEntry>& entries) {
    std::vector<Row> rows;
    std::array<std::size_t, columns> widths{};
    for (const HistoryEntry& entry : entries) {
        rows.push_back(rowOf(entry));
        for (std::size_t i = 0; i < columns; ++i) {
            widths.at(i) = std::max(widths.at(i), columnsOf(rows.back().at(i)));
        }
    }
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i + 1 < columns; ++i) {
            line += host::padded(row.at(i), widths.at(i)) + "  ";
        }
        output.result(line + row.back());
    }
}

class HistoryCommand final : public Command {
public:
    explicit HistoryCommand(CLI::App& program)
        : Command(program.add_subcommand("history", "List the files that the service received and sent.")) {
        parser()
            .add_option("--last", last_, "Only so many, the newest. Default: all of the last 90 days, at most 1000.")
            ->type_name("N")
            ->check(CLI::Range(std::size_t{1}, host::History::maxEntries).description(""))
            ->take_last();
        addJsonFlag("Print JSON, one object a line.");
    }

    int run(Host& host) override {
        std::vector<HistoryEntry> entries = load(host);
        if (entries.size() > last_) {
            entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(last_));
        }
        if (entries.empty()) {
            host.output.message("The history is empty. `orlinth serve` writes it.");
        }
        for (const HistoryEntry& entry : entries) {
            host.output.event("transfer", fieldsOf(entry));
        }
        printTable(host.output, entries);
        return 0;
    }

private:
    static std::vector<HistoryEntry> load(Host& host) {
        try {
            return host::History(host.system.files, host.system.clock, host.system.log, host.dataDirectory()).load();
        } catch (const platform::SystemError& error) {
            throw host::HostError("cannot read the history: " + error.description(),
                                  "It is " + (host.dataDirectory() / host::History::fileName).string() +
                                      ". Make it readable for this account, or delete it.");
        }
    }

    std::size_t last_ = host::History::maxEntries;
};

} // namespace

std::unique_ptr<Command> makeHistoryCommand(CLI::App& program) {
    return std::make_unique<HistoryCommand>(program);
}

} // namespace orlinth::cli
