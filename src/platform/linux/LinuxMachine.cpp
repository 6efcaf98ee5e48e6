#include "platform/linux/LinuxMachine.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/timex.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace orlinth::platform {
namespace {

/// Processes that are looked at for a socket.
constexpr int maxProcesses = 20'000;

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

template <typename Number>
bool parses(std::string_view text, Number& number, int base) {
    const auto [at, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
    return error == std::errc() && at == text.data() + text.size();
}

bool isNumber(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

} // namespace

std::vector<ListeningSocket> listeningSockets(std::string_view table) {
    constexpr std::string_view listening = "0A";
    std::vector<ListeningSocket> sockets;
    std::istringstream lines{std::string(table)};
    std::string line;
    std::getline(lines, line); // the heading
    while (std::getline(lines, line)) {
        // sl local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout inode …
        std::istringstream words(line);
        const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
        constexpr std::size_t local = 1;
        constexpr std::size_t state = 3;
        constexpr std::size_t user = 7;
        constexpr std::size_t inode = 9;
        if (fields.size() <= inode || fields[state] != listening) {
            continue;
        }
        const std::size_t colon = fields[local].find(':');
        ListeningSocket socket;
        if (colon == std::string::npos || !parses(std::string_view(fields[local]).substr(colon + 1), socket.port, 16) ||
            !parses(fields[user], socket.user, 10) || !parses(fields[inode], socket.inode, 10)) {
            continue;
        }
        socket.isEverywhere = fields[local].find_first_not_of('0') == colon;
        sockets.push_back(socket);
    }
    return sockets;
}

std::optional<PortHolder> LinuxMachine::holderOf(std::uint16_t port) const {
    std::optional<ListeningSocket> found;
    for (const char* const table : {"tcp6", "tcp"}) {
        for (const ListeningSocket& socket : listeningSockets(contentOf(proc_ / "net" / table))) {
            if (socket.port == port && (!found || (socket.isEverywhere && !found->isEverywhere))) {
                found = socket;
            }
        }
    }
    if (!found) {
        return std::nullopt;
    }
    const bool isThisUser = found->user == ::geteuid();
    return PortHolder{.user = found->user,
                      .isThisUser = isThisUser,
                      .program = isThisUser ? programWith(found->inode) : std::string()};
}

/// The process that has this socket open; what may not be looked at is passed over.
std::string LinuxMachine::programWith(std::uint64_t inode) const {
    namespace fs = std::filesystem;
    const std::string wanted = "socket:[" + std::to_string(inode) + "]";
    std::error_code ignored;
    int left = maxProcesses;
    for (const fs::directory_entry& process : fs::directory_iterator(proc_, ignored)) {
        if (!isNumber(process.path().filename().native()) || --left < 0) {
            continue;
        }
        std::error_code hidden;
        for (const fs::directory_entry& descriptor : fs::directory_iterator(process.path() / "fd", hidden)) {
            std::error_code gone;
            if (fs::read_symlink(descriptor.path(), gone) == wanted) {
                std::string name = contentOf(process.path() / "comm");
                name.erase(name.find_last_not_of('\n') + 1);
                return name;
            }
        }
    }
    return {};
}

std::optional<bool> LinuxMachine::isClockSynchronised() const {
    timex state{}; // modes 0: nothing is changed
    const int result = ::adjtimex(&state);
    if (result < 0) {
        return std::nullopt;
    }
    return result != TIME_ERROR && (static_cast<unsigned>(state.status) & static_cast<unsigned>(STA_UNSYNC)) == 0;
}

std::optional<EpochMilliseconds> LinuxMachine::startedAt() const {
    timespec sinceStart{};
    if (::clock_gettime(CLOCK_BOOTTIME, &sinceStart) != 0) {
        return std::nullopt;
    }
    const auto age = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::seconds(sinceStart.tv_sec) + std::chrono::nanoseconds(sinceStart.tv_nsec));
    return std::chrono::time_point_cast<std::chrono::milliseconds>(std::chrono::system_clock::now()) - age;
}

} // namespace orlinth::platform
