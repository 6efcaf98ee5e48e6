#include "base/Text.h"
#include "orlinth/Command.h"
#include "orlinth/HumanText.h"
#include "orlinth/OutboxQueue.h"
#include "orlinth/ServiceControl.h"
#include "platform/SystemError.h"

#include <algorithm>
#include <iterator>
#include <tuple>

namespace orlinth::host {

namespace {

constexpr double millisecondsInSecond = 1000;

/// A batch as the files say it is.
struct Listed {
    std::string id;
    bool isSetAside = false;
    OutboxBatches::Batch batch;
    OutboxState state;
    std::string problem; ///< why it cannot be read; "" if it can
};

std::int64_t sizeOf(const Host& host, const platform::Path& file) {
    try {
        const std::optional<platform::FileStatus> status = host.system.files.status(file);
        return status ? status->size : 0;
    } catch (const platform::SystemError&) {
        return 0;
    }
}

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
            ->add_option(
                "BATCH", selectors_,
                "The beginning of a batch's id: then what has failed for good is tried again too, also if the "
                "batch was set aside; one that was shared without naming a phone goes to the phone paired last, "
                "if its own is not paired any more. Default: everything that waits.")
            ->type_name("")
            ->expected(0, 1)
            ->check(notEmpty());
        drop_ = parser().add_subcommand("drop", "Remove batches, and end what is under way of them.");
        drop_->fallthrough();
        drop_->add_option("BATCH", selectors_, "The beginning of a batch's id; several are all dropped.")
            ->type_name("")
            ->required()
            ->check(notEmpty());
    }

    int run(Host& host) override {
        OutboxBatches batches(host.system.files, host.system.clock, host.system.directories);
        if (retry_->parsed()) {
            return retry(host, batches);
        }
        return drop_->parsed() ? drop(host, batches) : list(host, batches);
    }

private:
    // What there is

    [[nodiscard]] static platform::Path memoryOf(const Host& host, const std::string& id) {
        return host.dataDirectory() / OutboxState::folderName / id;
    }

    [[nodiscard]] static std::vector<Listed> everything(const Host& host, const OutboxBatches& batches) {
        std::vector<Listed> all;
        for (const bool isSetAside : {false, true}) {
            for (const std::string& id : isSetAside ? batches.setAsideIds() : batches.ids()) {
                if (isSetAside || batches.isComplete(id)) {
                    all.push_back(look(host, batches, id, isSetAside));
                }
            }
        }
        std::sort(all.begin(), all.end(), [](const Listed& one, const Listed& other) {
            return std::tie(one.batch.manifest.createdAtMs, one.id) <
                   std::tie(other.batch.manifest.createdAtMs, other.id);
        });
        return all;
    }

    [[nodiscard]] static Listed look(const Host& host, const OutboxBatches& batches, const std::string& id,
                                     bool isSetAside) {
        Listed listed{.id = id,
                      .isSetAside = isSetAside,
                      .batch = {},
                      .state = OutboxState(host.system.files, memoryOf(host, id)),
                      .problem = ""};
        try {
            listed.batch = isSetAside ? batches.readSetAside(id) : batches.read(id);
            if (std::optional<OutboxState> known = OutboxState::load(host.system.files, memoryOf(host, id))) {
                listed.state = std::move(*known);
            } else {
                for (const std::string& name : listed.batch.manifest.files) {
                    batches.checkFile(listed.batch, name);
                }
                listed.state.phones = phonesFor(host, listed.batch.manifest);
            }
        } catch (const Error& error) {
            listed.problem = error.description();
        }
        return listed;
    }

    /// The batches that are meant, each once, in the order of the command line.
    [[nodiscard]] std::vector<Listed> chosen(const Host& host, const OutboxBatches& batches) const {
        const std::vector<Listed> all = everything(host, batches);
        std::vector<Listed> chosen;
        for (const std::string& selector : selectors_) {
            std::vector<Listed> matching;
            std::copy_if(all.begin(), all.end(), std::back_inserter(matching), [&selector](const Listed& listed) {
                return lowerCased(listed.id).starts_with(lowerCased(selector));
            });
            if (matching.empty()) {
                throw HostError("no batch begins with '" + selector + "'", "`orlinth outbox` lists them.");
            }
            if (matching.size() > 1) {
                throw HostError("several batches begin with '" + selector + "'", "`orlinth outbox` lists them.");
            }
            const auto isSame = [&matching](const Listed& other) { return other.id == matching.front().id; };
            if (std::none_of(chosen.begin(), chosen.end(), isSame)) {
                chosen.push_back(std::move(matching.front()));
            }
        }
        return chosen;
    }

    // Listing

    static int list(Host& host, const OutboxBatches& batches) {
        const std::vector<Listed> all = everything(host, batches);
        for (const Listed& listed : all) {
            tellEvent(host, listed);
            tellLines(host, listed);
        }
        if (all.empty()) {
            host.output.message("Nothing waits to be sent. `orlinth share FILE` shares a file.");
        }
        return 0;
    }

    static void tellEvent(Host& host, const Listed& listed) {
        Json fields{{"batch", listed.id}, {"set_aside", listed.isSetAside}};
        if (!listed.problem.empty()) {
            fields["message"] = listed.problem;
            host.output.event("batch", std::move(fields));
            return;
        }
        const ShareOutbox::Manifest& manifest = listed.batch.manifest;
        fields["created_at_epoch_ms"] = manifest.createdAtMs;
        fields["age_seconds"] =
            static_cast<double>(host.system.clock.epochMilliseconds() - manifest.createdAtMs) / millisecondsInSecond;
        fields["files"] = Json::array();
        for (const std::string& name : manifest.files) {
            fields["files"].push_back({{"name", name}, {"size", sizeOf(host, listed.batch.folder / name)}});
        }
        fields["phones"] = Json::array();
        for (const OutboxState::Phone& phone : listed.state.phones) {
            Json entry{{"to", phone.displayName()}, {"peer_pubkey", phone.pubkey}, {"done", phone.done}};
            entry["failed"] = Json::array();
            for (const auto& [file, reason] : phone.failed) {
                entry["failed"].push_back({{"file", file}, {"message", reason}});
            }
            if (!phone.waiting.empty()) {
                entry["message"] = phone.waiting;
            }
            fields["phones"].push_back(std::move(entry));
        }
        host.output.event("batch", std::move(fields));
    }

    static void tellLines(Host& host, const Listed& listed) {
        const std::string aside = listed.isSetAside ? ", set aside" : "";
        if (!listed.problem.empty()) {
            host.output.result(shortId(listed.id) + aside + ": " + forDisplay(listed.problem));
            return;
        }
        const ShareOutbox::Manifest& manifest = listed.batch.manifest;
        std::int64_t bytes = 0;
        for (const std::string& name : manifest.files) {
            bytes += sizeOf(host, listed.batch.folder / name);
        }
        host.output.result(shortId(listed.id) + "  " + humanTime(manifest.createdAtMs) + "  " +
                           countOfFiles(manifest.files.size()) + ", " + humanSize(bytes) + aside);
        for (const OutboxState::Phone& phone : listed.state.phones) {
            tellPhone(host, manifest, phone);
        }
        if (listed.state.phones.empty()) {
            host.output.result("  no phone is paired");
        }
    }

    static void tellPhone(Host& host, const ShareOutbox::Manifest& manifest, const OutboxState::Phone& phone) {
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

    int retry(Host& host, OutboxBatches& batches) const {
        const std::vector<Listed> meant = chosen(host, batches);
        Json request{{"request", "outbox_retry"}};
        if (!meant.empty()) {
            request["batch"] = meant.front().id;
        }
        const std::optional<Json> reply = host.tasks.run(askService(host, request));
        if (!reply && !meant.empty()) {
            retryAlone(meant.front(), host, batches);
        }
        if (reply && !reply->value("found", false)) {
            throw HostError("the batch is not there any more", "`orlinth outbox` lists the batches that are.");
        }
        Json fields{{"service_running", reply.has_value()}};
        if (!meant.empty()) {
            fields["batch"] = meant.front().id;
        }
        host.output.event("retry", std::move(fields));
        if (meant.empty() && !isAnythingWaiting(host, batches)) {
            host.output.message("Nothing is waiting to be sent.");
        } else {
            host.output.message(reply ? "The service is trying again now."
                                      : "The Orlinth service is not running. Files will be sent once it starts: "
                                        "`systemctl --user start orlinth`");
        }
        return 0;
    }

    /// Whether there is a batch that the service sends by itself.
    [[nodiscard]] static bool isAnythingWaiting(const Host& host, const OutboxBatches& batches) {
        const std::vector<Listed> all = everything(host, batches);
        return std::ranges::any_of(all, [](const Listed& listed) { return !listed.isSetAside; });
    }

    static void retryAlone(const Listed& listed, const Host& host, OutboxBatches& batches) {
        if (listed.isSetAside) {
            bringBack(host, batches, listed.id);
        } else if (std::optional<OutboxState> state = OutboxState::load(host.system.files, memoryOf(host, listed.id))) {
            state->forgetFailures();
            state->save();
        }
    }

    int drop(Host& host, OutboxBatches& batches) const {
        for (const Listed& listed : chosen(host, batches)) {
            bool isGone = false;
            if (!listed.isSetAside) {
                const std::optional<Json> reply =
                    host.tasks.run(askService(host, {{"request", "outbox_drop"}, {"batch", listed.id}}));
                isGone = reply && reply->value("found", false);
            }
            if (!isGone) {
                dropAlone(listed, host, batches);
            }
            host.output.event("dropped", {{"batch", listed.id}});
            host.output.result("dropped batch " + shortId(listed.id));
        }
        return 0;
    }

    static void dropAlone(const Listed& listed, const Host& host, OutboxBatches& batches) {
        try {
            if (listed.isSetAside) {
                batches.removeSetAside(listed.id);
            } else {
                batches.remove(listed.id);
            }
            OutboxState(host.system.files, memoryOf(host, listed.id)).remove();
        } catch (const platform::SystemError& error) {
            throw HostError("cannot remove batch " + shortId(listed.id) + ": " + error.description(),
                            "It is in " + listed.batch.folder.string() + ".");
        }
    }

    CLI::App* retry_ = nullptr;
    CLI::App* drop_ = nullptr;
    std::vector<std::string> selectors_;
};

} // namespace

std::unique_ptr<Command> makeOutboxCommand(CLI::App& program) {
    return std::make_unique<OutboxCommand>(program);
}

} // namespace orlinth::host
