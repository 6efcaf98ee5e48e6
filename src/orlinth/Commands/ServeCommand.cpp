#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Outbox/OutboxSender.h"
#include "OrlinthHost/Phones/KnownKeys.h"
#include "OrlinthHost/Phones/PeerStoreWatch.h"
#include "OrlinthHost/Service/NearbyListener.h"
#include "OrlinthHost/Service/PartialsReminder.h"
#include "OrlinthHost/Service/ServiceControl.h"
#include "OrlinthHost/Service/Watchdog.h"
#include "base/Text.h"
#include "orlinth/Asking/OfferQuestions.h"
#include "orlinth/Commands/Command.h"
#include "orlinth/Commands/FolderCheck.h"
#include "orlinth/Commands/PortTrouble.h"
#include "orlinth/Commands/SizeText.h"
#include "orlinth/Reporting/Hints.h"
#include "orlinth/Reporting/OutboxReporter.h"
#include "orlinth/Reporting/ServeReporter.h"
#include "platform/IpAddress.h"
#include "platform/ProcessMemory.h"
#include "platform/ServiceManager.h"
#include "platform/SystemError.h"

#include <asio/post.hpp>
#include <asio/this_coro.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <optional>
#include <sys/resource.h>
#include <thread>
#include <utility>

namespace orlinth::cli {

namespace {

/// Of the two seconds in which a signal ends the service in any case; the rest is for leaving.
constexpr std::chrono::milliseconds graceAfterSignal{1800};

/// Many phones at once need more descriptors than a login session is usually given. More than this nobody needs.
void raiseDescriptorLimit() {
    constexpr rlim_t enough = 16384;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < enough) {
        limit.rlim_cur = std::min(enough, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

/// Keeps the service to one instance a data folder, for as long as the file is open. Who looks whether a service runs
/// has the lock for an instant, which is waited for.
std::unique_ptr<platform::File> lockService(const Host& host) {
    constexpr int attempts = 20;
    constexpr std::chrono::milliseconds rest{5};
    const platform::Path path = host.dataDirectory() / host::ServiceControl::lockName;
    std::unique_ptr<platform::File> file;
    bool isLocked = false;
    try {
        file = host.system.files.open(path, platform::OpenMode::openOrCreate, platform::Links::follow, 0600);
        isLocked = file->tryLock();
    } catch (const platform::SystemError& error) {
        throw host::HostError("cannot lock " + path.string() + ": " + error.description(),
                              "Make this file and its folder writable for this account.");
    }
    for (int attempt = 1; attempt < attempts && !isLocked; ++attempt) {
        std::this_thread::sleep_for(rest);
        isLocked = file->tryLock();
    }
    if (!isLocked) {
        throw host::HostError("the receive service is already running",
                              "One serves all phones. Another identity needs another data folder (XDG_DATA_HOME).");
    }
    return file;
}

/// Without those that came before, in their order.
std::vector<std::string> withoutRepetitions(const std::vector<std::string>& places) {
    std::vector<std::string> different;
    for (const std::string& place : places) {
        if (std::ranges::find(different, place) == different.end()) {
            different.push_back(place);
        }
    }
    return different;
}

/// How little a place is worth for a pairing, whose code has an IPv4 address that phones shall reach: 0 is best.
int rankForPairing(const Host& host, const std::string& place) {
    constexpr std::uint8_t loopback = 127;
    const auto isLoopback = [&place](const platform::InterfaceAddress& entry) {
        return entry.name == place && entry.isLoopback;
    };
    bool isForThisComputer = false;
    const auto address = platform::parseIpAddress(place);
    if (!address) {
        isForThisComputer = std::ranges::any_of(host.system.interfaces.list(), isLoopback);
    } else if (const auto* const ipv4 = std::get_if<platform::Ipv4Address>(&*address)) {
        isForThisComputer = ipv4->front() == loopback;
    } else {
        return 2;
    }
    return isForThisComputer ? 1 : 0;
}

Task<bool> declineEverything(Receiver::Offer /*offer*/) {
    co_return false;
}

void remindOf(Host& host, const platform::Path& folder, const host::PartialsReminder::Reminder& reminder) {
    host.output.event("unfinished_downloads",
                      {{"count", reminder.count}, {"bytes", reminder.bytes}, {"dir", toUtf8(folder.native())}});
    const bool isOne = reminder.count == 1;
    host.output.message(std::to_string(reminder.count) + (isOne ? " unfinished download" : " unfinished downloads") +
                        " (" + host::humanSize(reminder.bytes) + ") in " + folder.string() +
                        (isOne ? " has" : " have") + " not changed for a week. To see or remove " +
                        (isOne ? "it" : "them") + ": `orlinth partials`");
}

/// Not by way of the thread of `main`, which may hang itself.
host::Watchdog::Callbacks watchdogCallbacks() {
    return {.onLate =
                [](const platform::LateQueue& late) {
                    writeToStandardError("orlinth: a thread has not answered for " +
                                         std::to_string(std::lround(late.seconds)) + " seconds: " + late.label + "\n");
                },
            .onMoreLate =
                [](std::int64_t count) {
                    writeToStandardError("orlinth: threads did not answer " + std::to_string(count) + " more times\n");
                },
            .onAlive = [] { platform::tellServiceAlive(); }};
}

/// What runs while the service does; all of it outlives the task.
struct Service {
    Receiver& receiver;
    ServeReporter& reporter;
    host::ServiceControl& control;
    host::KnownKeys& keys;
    host::OutboxSender& outbox;
    host::PeerStoreWatch& peers;
    host::PartialsReminder& partials;
    host::Watchdog& watchdog;
};

/// The same, and whoever manages the service is told what it wants to know.
Receiver::Callbacks withManners(Receiver::Callbacks callbacks, Service service) {
    callbacks.onListening = [service, next = std::move(callbacks.onListening)](std::uint16_t port) {
        service.control.start(port);
        service.outbox.start();
        service.peers.start();
        service.partials.start();
        platform::tellServiceReady();
        service.watchdog.start();
        platform::tellServiceStatus(service.keys.pairedCount());
        next(port);
    };
    callbacks.onAuthenticated = [service, next = std::move(callbacks.onAuthenticated)](const PeerRecord& phone) {
        platform::tellServiceStatus(service.keys.pairedCount());
        service.outbox.heardOf(phone);
        if (next) {
            next(phone);
        }
    };
    return callbacks;
}

/// The receiver and its companions, until the task is cancelled or the receiver fails.
Task<bool> serveAll(Service service) {
    std::exception_ptr failure;
    try {
        Receiver::Callbacks callbacks = withManners(service.reporter.callbacks(), service);
        co_await service.receiver.run(std::move(callbacks));
    } catch (...) {
        failure = std::current_exception();
    }
    platform::tellServiceStopping();
    co_await asio::this_coro::reset_cancellation_state(asio::disable_cancellation());
    service.peers.stop();
    service.partials.stop();
    co_await service.control.finish();
    co_await service.outbox.finish();
    co_await service.reporter.finish();
    co_await service.partials.finish(); // behind the others: its folder may take its time
    co_await service.watchdog.finish();
    if (failure) {
        std::rethrow_exception(failure);
    }
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
        addJsonFlag("Print events as JSON, one object a line.");
        addQuietFlag("No messages but failures.");
    }

    int run(Host& host) override {
        std::signal(SIGHUP, SIG_IGN); // the terminal that it was started in may go
        places_ = withoutRepetitions(places_);
        host.output.doWithoutReader();
        raiseDescriptorLimit();
        platform::returnFreedMemory();
        host.tasks.treatSignalsAsUsualEnd(graceAfterSignal);
        const platform::Path folder = downloadsFolder(host, directory_);
        const platform::PrivateKey ownKey = host.staticKey();
        const std::unique_ptr<platform::File> lock = lockService(host);
        try {
            serve(host, ownKey, folder);
            return 0;
        } catch (const Interrupted&) {
            return 0;
        } catch (const std::exception& error) {
            host.output.failure(describe(error), hintForServing(host, error));
            return 1;
        }
    }

private:
    void serve(Host& host, const platform::PrivateKey& ownKey, const platform::Path& folder) const {
        if (accept_ != "never") {
            requireWritableFolder(host, folder);
        }
        const std::uint16_t port = inheritedPort(host).value_or(port_);
        Receiver receiver(host.system, ownKey, std::vector<platform::PublicKey>(), folder, port);
        receiver.downloadLimits = {.keepFreeBytes = parseSize(keepFree_).value_or(0),
                                   .maxFileBytes = parseSize(maxFile_).value_or(0)};
        OfferQuestions questions(host);
        ServeReporter reporter(host, !leavesClipboard_);
        host::KnownKeys keys(host, receiver, ownKey.publicKey(),
                             [&reporter](const std::exception_ptr& error) { reporter.tellPhonesTrouble(error); });
        receiver.limits = ReceiverLimits::strict();
        receiver.beforeAuthorising = [&keys] { keys.refresh(); };
        if (accept_ == "never") {
            receiver.approveOffer = declineEverything;
        } else if (accept_ == "ask") {
            receiver.approveOffer = [&questions](Receiver::Offer offer) { return questions.wants(std::move(offer)); };
        }
        OutboxReporter outboxReporter(host);
        host::OutboxSender outbox(host, ownKey, outboxReporter);
        host::PeerStoreWatch peers(host, [&reporter, &outbox] {
            reporter.sharePeers();
            outbox.peersChanged();
        });
        host::PartialsReminder partials(
            host, folder,
            [&host, folder](const host::PartialsReminder::Reminder& reminder) { remindOf(host, folder, reminder); });
        host::ServiceControl control(host, receiver, reporter);
        control.onRequest = [&outbox](Json request) { return outbox.answer(std::move(request)); };
        control.openLoan = [this, &host](platform::ListenOptions options, Executor executor) {
            options.places = placesForPairing(host);
            return host.system.network.listen(options, std::move(executor));
        };
        receiver.openListener = [this, &host, &reporter](platform::ListenOptions options, Executor executor) {
            return listen(host, reporter, std::move(options), std::move(executor));
        };
        receiver.listener = openPort(host, reporter, port);
        host::Watchdog watchdog(host, platform::serviceWatchdogSeconds(), watchdogCallbacks());
        keys.refresh();
        reporter.tellHowMany(keys.pairedCount());
        static_cast<void>(host.tasks.run(serveAll({.receiver = receiver,
                                                   .reporter = reporter,
                                                   .control = control,
                                                   .keys = keys,
                                                   .outbox = outbox,
                                                   .peers = peers,
                                                   .partials = partials,
                                                   .watchdog = watchdog})));
    }

    /// The port that a service manager has opened for us, whatever the command line says.
    [[nodiscard]] std::optional<std::uint16_t> inheritedPort(Host& host) const {
        try {
            const std::optional<std::uint16_t> port = host.system.network.inheritedPort();
            if (port && portOption_->count() > 0 && port_ != *port) {
                host.output.message("the service manager has opened port " + std::to_string(*port) +
                                    "; --port is not used");
            }
            if (port && !places_.empty()) {
                host.output.message("the service manager has opened the port; --listen is not used");
            }
            return port;
        } catch (const platform::SystemError& error) {
            throw host::HostError("cannot use what the service manager has opened: " + error.description(),
                                  "A socket unit for this service has one ListenStream= and Accept=no.");
        }
    }

    /// Not left to the receiver: to the core zero is no port at all, and the system's reason is known here.
    [[nodiscard]] std::unique_ptr<platform::Listener> openPort(Host& host, ServeReporter& reporter,
                                                               std::uint16_t port) const {
        try {
            return listen(host, reporter, {.port = port, .keepAlive = Receiver::keepAlive}, host.tasks.executor());
        } catch (const platform::SystemError& error) {
            const std::string text = Receiver::Error::listenerStartFailed(describe(error)).description();
            const bool isNoPlace =
                error.code() == std::errc::no_such_device || error.code() == std::errc::address_not_available;
            if (!places_.empty() && isNoPlace) {
                throw host::HostError(text,
                                      "`--listen` takes addresses and interfaces of this computer; `ip address` shows "
                                      "them.");
            }
            if (error.code() == std::errc::address_in_use && excludeEachOther(host, port)) {
                throw host::HostError(text,
                                      "The places that `--listen` names exclude each other: 0.0.0.0 and another IPv4 "
                                      "address do, and so do an interface and an address. Name single addresses, or "
                                      "interfaces only.");
            }
            throw portTrouble(host, port, error.code(), text);
        }
    }

    /// Whether each of several places could be had alone, so that it is nobody else who has the port.
    [[nodiscard]] bool excludeEachOther(Host& host, std::uint16_t port) const {
        const auto isFree = [&host, port](const std::string& place) {
            try {
                static_cast<void>(host.system.network.listen(
                    {.port = port, .keepAlive = std::nullopt, .places = {place}}, host.tasks.executor()));
                return true;
            } catch (const platform::SystemError&) {
                return false;
            }
        };
        return places_.size() > 1 && std::ranges::all_of(places_, isFree);
    }

    /// One socket is lent: that of the first place of the best kind. None: everywhere.
    [[nodiscard]] std::vector<std::string> placesForPairing(const Host& host) const {
        const auto best = std::ranges::min_element(
            places_, {}, [&host](const std::string& place) { return rankForPairing(host, place); });
        return best == places_.end() ? std::vector<std::string>() : std::vector{*best};
    }

    /// The port, for those who may connect to it.
    [[nodiscard]] std::unique_ptr<platform::Listener> listen(Host& host, ServeReporter& reporter,
                                                             platform::ListenOptions options, Executor executor) const {
        options.places = places_;
        std::unique_ptr<platform::Listener> listener = host.system.network.listen(options, std::move(executor));
        if (listensPublicly_) {
            return listener;
        }
        auto tell = [&reporter, main = host.tasks.executor()](const std::string& endpoint) {
            asio::post(main, [&reporter, endpoint] { reporter.tellFarAway(endpoint); });
        };
        return std::make_unique<host::NearbyListener>(std::move(listener), host.system.interfaces, std::move(tell));
    }

    std::uint16_t port_ = defaultPort;
    CLI::Option* portOption_ = nullptr; ///< the parser's
    std::vector<std::string> places_;
    bool listensPublicly_ = false;
    std::string directory_;
    std::string keepFree_;
    std::string maxFile_;
    std::string accept_ = "always";
    bool leavesClipboard_ = false;
};

} // namespace

std::unique_ptr<Command> makeServeCommand(CLI::App& program) {
    return std::make_unique<ServeCommand>(program);
}

} // namespace orlinth::cli
