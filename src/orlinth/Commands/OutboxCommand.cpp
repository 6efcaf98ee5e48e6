#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Outbox/OutboxStore.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "base/Text.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Reporting/Hints.h"
#include "orlinth/Reporting/OutboxReporter.h"
#include "orlinth/Reporting/StatusText.h"
#include "platform/SystemError.h"

#include <algorithm>

namespace orlinth::cli {

namespace {

using Entry = host::OutboxStore::Entry;

class OutboxCommand final : public Command {
public:
    explicit OutboxCommand(CLI::App& program)
        : Command(program.add_subcommand("outbox", "List what was shared and waits to be sent; retry or drop it.")) {
        addJsonFlag("Print JSON, one object a line.");
        addQuietFlag("No messages but failures.");
        parser().require_subcommand(0, 1);
        retry_ = parser().add_subcommand("retry", "Try again now, without waiting for the next time.");
        retry_->fallthrough();
        retry_
            ->add_option("BATCH", selectors_,
                         "The beginning of a batch's id: then what has failed for good is tried again too, also if the "
                         "batch was set aside; one that was shared without naming a phone goes to the default phone, "
                         "if its own is not paired any more. Default: everything that waits.")
            ->type_name("")
            ->expected(0, 1)
            ->check(notEmpty());
        drop_ = parser().add_subcommand("drop", "Remove batches, and end what is under way of them.");
        cancel_ = parser().add_subcommand("cancel", "The same as drop.");
        for (CLI::App* const removal : {drop_, cancel_}) {
            removal->fallthrough();
            removal->add_option("BATCH", selectors_, "The beginning of a batch's id; several are all dropped.")
                ->type_name("")
                ->required()
                ->check(notEmpty());
        }
    }

    int run(Host& host) override {
        host::OutboxStore store(host);
        if (retry_->parsed()) {
            return retry(host, store);
        }
        return drop_->parsed() || cancel_->parsed() ? drop(host, store) : list(host, store);
    }

private:
    // Listing

    using Transfers = std::vector<host::TransferView>;

    static int list(Host& host, const host::OutboxStore& store) {
        const std::vector<Entry> all = store.all();
        const Transfers transfers = all.empty() ? Transfers() : transfersUnderWay(host);
        for (const Entry& entry : all) {
            tellEvent(host, entry, transfers);
            tellLines(host, entry, transfers);
        }
        if (all.empty()) {
            host.output.message("Nothing waits to be sent. `orlinth share FILE` shares a file.");
        }
        return 0;
    }

    /// What the running service sends just now. Nobody depends on it.
    static Transfers transfersUnderWay(Host& host) {
        Transfers transfers;
        const auto onNews = [&transfers](const host::ServiceNews& news) {
            const auto* const transfer = std::get_if<host::TransferView>(&news);
            if (transfer != nullptr && transfer->state == host::TransferView::State::active) {
                transfers.push_back(*transfer);
            }
        };
        try {
            static_cast<void>(host.tasks.run(host::readServiceStatus(host, onNews)));
        } catch (const Error& error) {
            host.system.log.write(platform::LogLevel::debug, "com.tarvinex.orlinth", "outbox", error.description());
        }
        return transfers;
    }

    static bool isOf(const host::TransferView& transfer, const Entry& entry, const host::OutboxState::Phone& phone) {
        return transfer.batch == entry.id && transfer.peerKey == phone.peerKey;
    }

    static void tellEvent(Host& host, const Entry& entry, const Transfers& transfers) {
        Json fields{{"batch", entry.id}, {"set_aside", entry.isSetAside}};
        if (!entry.problem.empty()) {
            fields["message"] = entry.problem;
            host.output.event("batch", std::move(fields));
            return;
        }
        const ShareOutbox::Manifest& manifest = entry.batch.manifest;
        fields["created_at_epoch_ms"] = toNumber(manifest.createdAtMs);
        fields["age_seconds"] = Seconds(host.system.clock.epochMilliseconds() - manifest.createdAtMs).count();
        fields["files"] = Json::array();
        for (const std::string& name : manifest.files) {
            fields["files"].push_back({{"name", name}, {"size", entry.sizeOf(host.system.files, name)}});
        }
        fields["phones"] = Json::array();
        for (const host::OutboxState::Phone& phone : entry.state.phones) {
            Json item{{"to", phone.displayName()}, {"peer_pubkey", phone.peerKey}, {"done", phone.done}};
            item["failed"] = Json::array();
            for (const auto& [file, reason] : phone.failed) {
                item["failed"].push_back({{"file", file}, {"message", reason}});
            }
            if (!phone.waiting.empty()) {
                item["message"] = phone.waiting;
            }
            for (const host::TransferView& transfer : transfers) {
                if (isOf(transfer, entry, phone)) {
                    item["under_way"].push_back({{"transfer", static_cast<std::uint64_t>(transfer.number)},
                                                 {"file", transfer.name},
                                                 {"bytes_done", transfer.bytes.done},
                                                 {"total_bytes", transfer.bytes.total},
                                                 {"bytes_per_second", transfer.bytesPerSecond}});
                }
            }
            fields["phones"].push_back(std::move(item));
        }
        host.output.event("batch", std::move(fields));
    }

    static void tellLines(Host& host, const Entry& entry, const Transfers& transfers) {
        const std::string aside = entry.isSetAside ? ", set aside" : "";
        if (!entry.problem.empty()) {
            host.output.result(shortId(entry.id) + aside + ": " + forDisplay(entry.problem));
            return;
        }
        const ShareOutbox::Manifest& manifest = entry.batch.manifest;
        std::int64_t bytes = 0;
        for (const std::string& name : manifest.files) {
            bytes += entry.sizeOf(host.system.files, name);
        }
        host.output.result(shortId(entry.id) + "  " + host::humanTime(manifest.createdAtMs) + "  " +
                           host::countOfFiles(manifest.files.size()) + ", " + host::humanSize(bytes) + aside);
        for (const host::OutboxState::Phone& phone : entry.state.phones) {
            tellPhone(host, manifest, phone);
            for (const host::TransferView& transfer : transfers) {
                if (isOf(transfer, entry, phone)) {
                    host.output.result("    " + forDisplay(transfer.name) + "  " + StatusText::stateOf(transfer));
                }
            }
        }
        if (entry.state.phones.empty()) {
            host.output.result("  no phone is paired");
        }
    }

    static void tellPhone(Host& host, const ShareOutbox::Manifest& manifest, const host::OutboxState::Phone& phone) {
        const std::size_t settled = phone.done.size() + phone.failed.size();
        const std::size_t left = manifest.files.size() - std::min(settled, manifest.files.size());
        std::string line = "  to " + forDisplay(phone.displayName()) + ": " + std::to_string(phone.done.size()) +
                           " sent, " + std::to_string(left) + " waiting";
        if (left > 0 && !phone.waiting.empty()) {
            line += " (" + forDisplay(phone.waiting) + ")";
        }
        host.output.result(line);
        for (const auto& [file, reason] : phone.failed) {
            host.output.result("    " + forDisplay(file) + " not sent: " + forDisplay(reason));
        }
    }

    // Changing

    int retry(Host& host, host::OutboxStore& store) const {
        const std::vector<Entry> meant = store.matching(selectors_);
        const std::optional<BatchId> batch = meant.empty() ? std::nullopt : std::optional(meant.front().id);
        const std::optional<bool> isFound = host.tasks.run(host::askServiceToRetry(host, batch));
        const bool isServiceRunning = isFound.has_value();
        if (!isServiceRunning && !meant.empty()) {
            store.retry(meant.front());
        }
        if (isServiceRunning && !*isFound) {
            throw host::HostError("the batch is not there any more", "`orlinth outbox` lists the batches that are.");
        }
        Json fields{{"service_running", isServiceRunning}};
        if (batch) {
            fields["batch"] = *batch;
        }
        host.output.event("retry", std::move(fields));
        if (meant.empty() && !isAnythingWaiting(store)) {
            host.output.message("Nothing is waiting to be sent.");
        } else {
            host.output.message(isServiceRunning ? "The service is trying again now." : serviceIsNotRunning(host));
        }
        return 0;
    }

    /// Whether there is a batch that the service sends by itself.
    [[nodiscard]] static bool isAnythingWaiting(const host::OutboxStore& store) {
        const std::vector<Entry> all = store.all();
        return std::ranges::any_of(all, [](const Entry& entry) { return !entry.isSetAside; });
    }

    int drop(Host& host, host::OutboxStore& store) const {
        for (const Entry& entry : store.matching(selectors_)) {
            bool isGone = false;
            if (!entry.isSetAside) {
                isGone = host.tasks.run(host::askServiceToDrop(host, entry.id)).value_or(false);
            }
            if (!isGone) {
                dropAlone(entry, store);
            }
            host.output.event("dropped", {{"batch", entry.id}});
            host.output.result("dropped batch " + shortId(entry.id));
        }
        return 0;
    }

    static void dropAlone(const Entry& entry, host::OutboxStore& store) {
        try {
            store.drop(entry);
        } catch (const platform::SystemError& error) {
            throw host::HostError("cannot remove batch " + shortId(entry.id) + ": " + error.description(),
                                  "It is in " + entry.batch.folder.string() + ".");
        }
    }

    CLI::App* retry_ = nullptr;
    CLI::App* drop_ = nullptr;
    CLI::App* cancel_ = nullptr;
    std::vector<std::string> selectors_;
};

} // namespace

std::unique_ptr<Command> makeOutboxCommand(CLI::App& program) {
    return std::make_unique<OutboxCommand>(program);
}

} // namespace orlinth::cli
