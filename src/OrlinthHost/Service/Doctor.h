#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Phones/Whereabouts.h"
#include "OrlinthHost/Reach/Finder.h"
#include "OrlinthHost/Reach/Finding.h"
#include "OrlinthHost/Reach/PhoneCheck.h"
#include "platform/Event.h"
#include "platform/TaskGroup.h"

#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

struct DoctorRequest {
    std::vector<PeerRecord> phones; ///< that are looked for
    bool isAboutPhones = false;     ///< only they are asked about; of this computer, only what explains why they fail
    /// Where received files go, unless the running service says where it puts them; "": the user's downloads folder.
    std::string downloads = {};
    bool asksPushProject = false; ///< over the internet
    /// Where a phone is looked for that is not at its recorded address; with `always`, a network is also swept if that
    /// was done a short while ago.
    FindSetting find = FindSetting::known;
    Seconds listens{0}; ///< how long to wait for one of the phones to connect, once all else is found; 0: not
};

/// What it all comes to.
struct Diagnosis {
    std::size_t problems = 0;
    std::size_t warnings = 0;
    std::size_t unanswered = 0;      ///< checks that gave no answer, and nothing that was found explains why
    std::size_t phones = 0;          ///< that were looked for
    std::vector<std::string> absent; ///< the names of those that cannot be reached
    bool isWayTaken = false;         ///< something of this computer keeps it from any phone
    /// To every phone that was looked for, and there is one; nothing if a check that decides gave no answer.
    std::optional<bool> canSend = false;
    /// As far as this computer is concerned; nothing if that was not asked, or if a check that decides gave no answer.
    std::optional<bool> canReceive;
};

/// What the doctor says. Called on the home's executor; no call throws.
class DoctorEvents {
public:
    virtual ~DoctorEvents() = default;
    /// Each finding, as soon as it and those before it are there.
    virtual void found(const Finding& finding) = 0;
    /// From now on it waits for a phone to connect, for so long: somebody should send something.
    virtual void listening(Seconds time) = 0;
    /// Behind the last finding.
    virtual void concluded(const Diagnosis& diagnosis) = 0;
    /// Nothing more will be said, and a disk that does not answer keeps the doctor from ending. It waits for that;
    /// whoever does not want to ends the process.
    virtual void hung() = 0;
};

/// Finds out what keeps phones and this computer apart. All checks begin at once, each has a limit of its own, and none
/// holds up another: what has not ended by its limit is not measured, and is called off.
///
/// A phone that is not at its recorded address is looked for meanwhile, as Finder has it. Nothing is changed but the
/// AddressMemory, and the address of a phone that has moved. Nobody is woken, and no packet leaves the networks that
/// this computer is in, but those to addresses at which a phone was met and, if asked for, to the push project.
///
/// On the home's executor.
class Doctor {
public:
    /// Phones that are looked for at once.
    static constexpr std::size_t maxPhonesAtOnce = 8;
    /// How long a check may take that asks nobody but this computer. Those of the firewall and of the downloads folder
    /// begin behind the one of the service.
    static constexpr Seconds quickLimit = 600ms;
    static constexpr Seconds downloadsLimit = 1200ms;
    static constexpr Seconds firewallLimit = 1500ms;
    /// How long all of it takes at most, but for listening.
    static constexpr Seconds wholeLimit = 10s;
    /// From the conclusion to DoctorEvents::hung(), if something of it still runs then.
    static constexpr Seconds endLimit = 200ms;

    /// Both outlive this.
    Doctor(Home& home, DoctorRequest request, DoctorEvents& events);
    Doctor(const Doctor&) = delete;
    Doctor& operator=(const Doctor&) = delete;

    /// Once. Returns when nothing of it runs any more: a disk that hangs is waited for behind the conclusion.
    /// @throws platform::Cancelled, likewise
    [[nodiscard]] Task<Diagnosis> run();

private:
    using Slot = std::size_t; ///< the place of a finding in the order

    void beginAll();
    [[nodiscard]] Task<> finish();
    /// Begins a check, which has until `limit`.
    void begin(Finding::Check check, Seconds limit, Task<Finding> task, std::string phone = {});
    [[nodiscard]] Task<> fill(Slot slot, Task<Finding> task);
    [[nodiscard]] Task<> giveUp(Slot slot, Seconds limit);
    void put(Slot slot, Finding finding);
    void putNothing(Slot slot, std::string remark);
    [[nodiscard]] Task<> untilReported();
    void report();
    void count(const Finding& finding);

    [[nodiscard]] Task<Finding> lookAtNetwork();
    [[nodiscard]] Task<Finding> lookAtService();
    [[nodiscard]] Task<Finding> lookAtFirewall();
    [[nodiscard]] Task<Finding> lookAtDownloads();
    [[nodiscard]] Task<Finding> lookAtWaking();
    [[nodiscard]] Task<Finding> lookForArrival();
    [[nodiscard]] Task<Finding> lookForPhone(Slot slot, const PeerRecord& phone);
    [[nodiscard]] Task<std::optional<PhoneFindings>> checkUnlessFound(const PeerRecord& phone, Finder::Search& search);
    [[nodiscard]] Finding findingOfMove(const PeerRecord& phone, const HostAddress& found);

    /// A finding, or what is known of it before it is there.
    struct Place {
        Finding::Check check;
        std::string phone;
        PeerKey peerKey;
        std::optional<Finding> finding;
        std::optional<platform::TaskGroup::Id> task;
        bool hasWaited = false; ///< for others, before it could begin
    };

    Home& home_;
    const DoctorRequest request_;
    DoctorEvents& events_;
    const Whereabouts here_;
    std::vector<Place> places_; ///< by slot
    Slot reported_ = 0;
    std::size_t phonesLeft_; ///< that have not been found or missed yet
    std::size_t phonesUnderWay_ = 0;
    std::optional<Finding> wayTaken_; ///< of this computer: what keeps it from any phone, as an attempt has shown
    std::uint16_t port_ = 0;          ///< once the service is known
    platform::Path downloads_;        ///< likewise, if it says that
    Diagnosis diagnosis_;
    platform::Event isServiceKnown_;
    platform::Event isWayKnown_;
    platform::Event hasPhoneEnded_;
    platform::Event hasFinding_;
    AddressMemory memory_;
    Finder finder_;
    platform::TaskGroup tasks_; ///< last: what they use is above
};

} // namespace orlinth::host
