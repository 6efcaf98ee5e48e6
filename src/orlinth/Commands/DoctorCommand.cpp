#include "OrlinthHost/Phones/PeerSelection.h"
#include "OrlinthHost/Service/Doctor.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Reporting/DoctorReporter.h"

#include <algorithm>

namespace orlinth::cli {

namespace {

/// How long somebody gets to send something from a phone.
constexpr Seconds listeningTime = 60s;

/// What gave no answer is not good either.
int statusOf(const host::Diagnosis& diagnosis) {
    return diagnosis.problems == 0 && diagnosis.absent.empty() && diagnosis.unanswered == 0 ? 0 : 1;
}

/// Ends the program if nothing more is to be said and a disk does not answer: nobody can interrupt the thread that
/// waits for it.
class LeavingReporter final : public DoctorReporter {
public:
    LeavingReporter(Host& host, Style style) : DoctorReporter(host.output, style), host_(host) {}

    void concluded(const host::Diagnosis& diagnosis) override {
        DoctorReporter::concluded(diagnosis);
        status_ = statusOf(diagnosis);
    }
    void hung() override { host_.tasks.leave(host_.output.finish(status_)); }

private:
    Host& host_;
    int status_ = 1;
};

class DoctorCommand final : public Command {
public:
    explicit DoctorCommand(CLI::App& program)
        : Command(program.add_subcommand("doctor", "Find out why a phone or this computer cannot be reached.")) {
        parser()
            .add_option("SELECTOR", selectors_,
                        "Which phones: names, or the beginnings of names or keys, in any letter case. Default: all "
                        "phones, and this computer.")
            ->type_name("")
            ->check(notEmpty())
            ->configurable(false);
        parser().add_flag("--listen", listens_,
                          "Then wait for a phone to send something to this computer, for a minute at most.");
        parser().add_flag("--push", asksPushProject_,
                          "Also ask the push project over the internet whether it accepts this computer's key. No push "
                          "is sent.");
        addFind(find_);
        parser().add_flag("--verbose", isVerbose_, "Show what was seen, and how long each check took.");
        addJsonFlag("Print findings as JSON, one object a line.");
    }

    int run(Host& host) override {
        host::DoctorRequest request{.phones = choosePhones(host),
                                    .isAboutPhones = !selectors_.empty(),
                                    .downloads = host.settings.text(host::SettingId::downloads),
                                    .asksPushProject = asksPushProject_,
                                    .find = find_,
                                    .listens = listens_ ? listeningTime : 0s};
        if (request.phones.empty()) {
            host.output.message("No phone is paired yet. `orlinth pair` pairs one.");
        }
        DoctorReporter::Style style = DoctorReporter::styleOfTerminal();
        style.isVerbose = isVerbose_;
        LeavingReporter reporter(host, style);
        host::Doctor doctor(host, std::move(request), reporter);
        const host::Diagnosis diagnosis = host.tasks.run(doctor.run());
        return statusOf(diagnosis);
    }

private:
    [[nodiscard]] std::vector<PeerRecord> choosePhones(const Host& host) const {
        if (selectors_.empty()) {
            return host.peers().loadBook().peers;
        }
        std::vector<PeerRecord> phones;
        for (const std::string& selector : selectors_) {
            PeerRecord phone = host::resolvePeer(host, selector);
            if (std::ranges::find(phones, phone.peer_pubkey, &PeerRecord::peer_pubkey) == phones.end()) {
                phones.push_back(std::move(phone));
            }
        }
        return phones;
    }

    std::vector<std::string> selectors_;
    bool listens_ = false;
    bool asksPushProject_ = false;
    bool isVerbose_ = false;
    host::FindSetting find_ = host::FindSetting::known;
};

} // namespace

std::unique_ptr<Command> makeDoctorCommand(CLI::App& program) {
    return std::make_unique<DoctorCommand>(program);
}

} // namespace orlinth::cli
