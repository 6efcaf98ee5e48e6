#include "OrlinthHost/Service/ServiceCheck.h"

#include "OrlinthHost/HumanText.h"
#include "OrlinthHost/Phones/AddressMemory.h"
#include "OrlinthHost/Reach/ComputerCheck.h"
#include "OrlinthHost/Service/ControlLine.h"
#include "OrlinthHost/Service/DownloadsFolder.h"
#include "OrlinthHost/Service/ServiceControlClient.h"
#include "OrlinthHost/Service/ServiceLock.h"
#include "base/Text.h"
#include "platform/Folder.h"
#include "platform/SystemError.h"

namespace orlinth::host {
namespace {

using Check = Finding::Check;
using Status = Finding::Status;

/// How long the service may take to say what it does.
constexpr Seconds askingLimit = 500ms;

/// Nothing if no service runs, or if it does not say.
Task<std::optional<PortReply>> askedDetails(Home& home) {
    try {
        co_return co_await withinLimit(home.system.clock, askingLimit, findServiceDetails(home));
    } catch (const HostError&) {
        co_return std::nullopt;
    }
}

/// Nobody has the lock.
Finding findingWithout(const Home& home, std::uint16_t port) {
    Finding found{.check = Check::service, .status = Status::problem, .cause = Cause::notRunning};
    const std::optional<platform::PortHolder> holder = home.system.machine.holderOf(port);
    if (!holder) {
        return found;
    }
    found.evidence["port_user"] = holder->user;
    if (holder->isThisUser && holder->program == "systemd") { // it keeps the port open, and starts the service
        found.status = Status::ok;
        found.cause = Cause::none;
        found.remark = "starts when a phone connects to port " + std::to_string(port);
    } else {
        found.cause = Cause::portTaken;
        found.details = {.program = holder->program, .port = port};
    }
    return found;
}

/// The folder, or the nearest one above it that is there.
platform::Path nearest(const platform::FileSystem& files, platform::Path path) {
    while (!files.exists(path) && path.has_relative_path()) {
        path = path.parent_path();
    }
    return path;
}

std::string inWords(const std::error_code& code) {
    if (code == std::errc::read_only_file_system) {
        return "it is read-only";
    }
    if (code == std::errc::permission_denied || code == std::errc::operation_not_permitted) {
        return "this account may not write to it";
    }
    if (code == std::errc::not_a_directory) {
        return "it is no folder";
    }
    return code.message();
}

} // namespace

Task<ServiceFinding> checkService(Home& home) {
    const std::optional<ToldAddress> told =
        AddressMemory(home.system.files, home.system.clock, home.system.log, home.dataDirectory()).told();
    const std::uint16_t known = told && told->port != 0 ? told->port : usualPort;
    const std::optional<PortReply> said = co_await askedDetails(home);
    ServiceFinding found{.finding = {.check = Check::service, .status = Status::ok},
                         .port = said ? said->port : known,
                         .downloads = said ? said->downloads : ""};
    if (said && told && told->port != 0 && said->port != told->port) {
        found.finding.status = Status::problem;
        found.finding.cause = Cause::otherPort;
        found.finding.details = {.port = said->port, .portKnown = told->port};
    } else if (said) {
        found.finding.remark = "receives at port " + std::to_string(said->port);
        if (said->since) {
            found.finding.remark += " since " + humanSince(*said->since, home.system.clock.epochMilliseconds());
        }
    } else if (ServiceLock::isHeld(home)) {
        found.finding.status = Status::warning;
        found.finding.cause = Cause::unknown;
        found.finding.remark = "runs, but does not say at which port";
    } else {
        found.finding = findingWithout(home, known);
    }
    found.finding.evidence["port"] = found.port;
    co_return found;
}

Finding checkDownloads(const Home& home, const platform::Path& folder) {
    Finding found{.check = Check::downloads, .status = Status::ok};
    found.details.folder = folder.string();
    found.evidence["folder"] = folder.string();
    std::error_code objection;
    std::int64_t room = 0;
    try {
        const platform::Path there = nearest(home.system.files, std::filesystem::absolute(folder));
        const std::unique_ptr<platform::Folder> opened = home.system.files.openFolder(there);
        objection = opened->objectionToFiles();
        room = opened->freeBytes();
        found.evidence["free_bytes"] = room;
    } catch (const platform::SystemError& error) {
        objection = error.code() ? error.code() : std::make_error_code(std::errc::io_error);
    }
    if (objection) {
        found.status = Status::problem;
        found.cause = Cause::folder;
        found.details.reason = inWords(objection);
    } else if (const std::optional<std::string> reason = objectionToDownloads(home, folder)) {
        found.status = Status::problem;
        found.cause = Cause::folder;
        found.details.reason = *reason;
    } else if (room < leastRoom) {
        found.status = Status::problem;
        found.cause = Cause::disk;
    } else {
        found.remark = forDisplay(folder.string()) + ", " + humanSize(room) + " free";
    }
    return found;
}

} // namespace orlinth::host
