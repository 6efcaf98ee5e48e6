#pragma once

#include "OrlinthCore/Peers/PeerRecord.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Reach/FinderPlan.h"
#include "platform/Condition.h"
#include "platform/TaskGroup.h"

#include <list>
#include <memory>
#include <optional>
#include <set>

namespace orlinth::host {

/// Whether a search may go through a whole network, as FinderPlan allows.
enum class MaySweep : bool { no, yes };

/// How often a Finder may do that in one network.
enum class SweepRate : bool {
    shared, ///< of all processes one in AddressBook::sweepInterval
    once    ///< once, whoever did it before: a person waits for it
};

/// Looks for phones that do not answer at the address of their record, by the one thing that cannot change: their key.
///
///     begin() ── patience, or hurry() ──▶ nearby ── sweepDelay ──▶ sweep ──▶ found, or idle
///                                            ▲                                  │
///                                            └── pauseAfterPush ── wokenUp() ───┘
///
/// What is asked, in which order and how much at most is FinderPlan's. Whoever answers has to prove a key, and learns
/// nothing about this computer but its address: see proveResponder(). Each proof counts for every phone that is looked
/// for, so one sweep serves all; of all processes one sweeps a network in AddressBook::sweepInterval.
///
/// Where a phone was found, and where it was not, goes into AddressMemory, as long as the phone is paired.
///
/// Threading: everything on the home's executor.
class Finder {
public:
    /// How long the recorded address gets before anything else is tried.
    static constexpr Seconds patience = 300ms;
    /// From begin() to the sweep.
    static constexpr Seconds sweepDelay = 1s;
    /// From the push to another look: a phone that wakes up may have got a new address.
    static constexpr Seconds pauseAfterPush = 2s;
    /// And from that to the next, as long as the phone may still be waking up.
    static constexpr Seconds pauseBetweenLooks = 5s;
    static constexpr Seconds connectLimit = 1200ms;
    static constexpr Seconds proofLimit = 2s;
    /// For one look, from nearby to idle. What holds connections open without a word may not make it longer.
    static constexpr Seconds limit = 6s;
    static constexpr std::size_t maxProofs = 16;       ///< at once
    static constexpr std::size_t maxConnections = 254; ///< at once
    static constexpr double sweptPerSecond = 128;
    /// The first of a sweep, which are not paced: a new address is mostly near the last one.
    static constexpr std::size_t sweptAtOnce = 32;

    class Search;

    /// `home` outlives this; finish() comes before the end, once anything was begun.
    Finder(Home& home, FindSetting find, SweepRate rate = SweepRate::shared);
    ~Finder();
    Finder(const Finder&) = delete;
    Finder& operator=(const Finder&) = delete;

    /// Looks for a phone, beside whoever tries the address of its record, until it is found or the search is destroyed.
    /// The searches are destroyed before this.
    [[nodiscard]] std::unique_ptr<Search> begin(PeerRecord phone, MaySweep maySweep = MaySweep::yes);
    /// Ends everything that is under way. No search is left.
    [[nodiscard]] Task<> finish();

    /// The phone has proved its key at the address of its record; for later. At most once a minute for each address.
    void learnReached(const PeerRecord& phone);
    /// It has not.
    void learnFailed(const PeerRecord& phone);
    /// It has proved its key there instead of at the address of `tried`, which was tried too. See recordMove().
    void learnMoved(const PeerRecord& tried, const HostAddress& found);

    [[nodiscard]] const Home& home() const noexcept { return home_; }

private:
    struct State;

    [[nodiscard]] Task<> look(std::shared_ptr<State> state);
    [[nodiscard]] Task<> lookOnce(std::shared_ptr<State> state);
    void ask(const FinderTarget& target);
    [[nodiscard]] Task<> probe(FinderTarget target);
    [[nodiscard]] Task<std::optional<platform::PublicKey>> provedKeyOf(std::unique_ptr<platform::Stream> stream);
    [[nodiscard]] bool claimSweep(const NetworkId& network);
    [[nodiscard]] static std::optional<FinderPlan::Sweep>
    networkToSweep(State& state, const Whereabouts& here, const FinderPlan& plan, const SoughtPhone& phone);
    void beginSweep(State& state);
    [[nodiscard]] Task<> sweep(FinderPlan::Sweep sweep);
    void heard(const FinderTarget& target, const PeerKey& key);
    void found(State& state, const HostAddress& host);
    [[nodiscard]] SoughtPhone soughtFor(const PeerRecord& phone, const Surroundings& here) const;
    [[nodiscard]] bool isAnyWanted(std::optional<std::uint16_t> port = {}) const;
    void report(const std::exception_ptr& error) const;
    void leave(const std::shared_ptr<State>& state);
    void later(std::function<void()> learn);

    Home& home_;
    FindSetting find_;
    SweepRate rate_;
    AddressMemory memory_;
    std::list<std::shared_ptr<State>> wanted_;
    std::set<FinderTarget> asked_; ///< under way
    std::set<NetworkId> swept_;    ///< at SweepRate::once
    std::size_t provers_ = 0;
    platform::Condition news_;
    platform::TaskGroup looks_; ///< one for each search, and what is written down
    platform::TaskGroup probes_;
    struct Reached {
        std::string address;
        platform::Clock::Instant at;
    };
    std::map<PeerKey, Reached> reached_;
};

/// One phone that is looked for, for as long as this lives.
class Finder::Search {
public:
    Search(Finder& finder, std::shared_ptr<State> state) : finder_(finder), state_(std::move(state)) {}
    ~Search();
    Search(const Search&) = delete;
    Search& operator=(const Search&) = delete;

    /// There is evidence that it is not at its recorded address: nothing is waited for any more.
    void hurry();
    /// The device is there and sleeps, so there is nothing to look for until wokenUp().
    void giveUp();
    /// A push was delivered.
    void wokenUp();

    /// Where it has proved its key.
    [[nodiscard]] std::optional<HostAddress> found() const;
    /// Returns once it is found and `isSo()` holds. @throws platform::Cancelled
    [[nodiscard]] Task<> untilFound(std::function<bool()> isSo);
    /// Returns once it is found, or there is nothing left to try. @throws platform::Cancelled
    [[nodiscard]] Task<> untilOver();
    /// What untilFound() waits for may be so now.
    void changed() noexcept;

private:
    Finder& finder_;
    std::shared_ptr<State> state_;
};

/// Writes a phone's new address into its record, unless one of the rules forbids it: the address is of IPv4, the record
/// still has the address that was tried, and that is an address and no name; and at most once in
/// AddressBook::moveInterval for a phone, so that two addresses that take turns do not keep the disk busy.
/// Of two processes that find the same only one writes, as the record then no longer has the address that was tried.
/// To be called only if the phone has proved its key at `found`, at its port, and not at the address of `tried`.
/// Returns whether it was written. Blocks on the disk; what fails there is logged.
bool recordMove(const Home& home, AddressMemory& memory, const PeerRecord& tried, const HostAddress& found);

} // namespace orlinth::host
