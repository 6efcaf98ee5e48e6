#include "orlinth/PairingRecord.h"

#include "base/Text.h"
#include "orlinth/PeerSelection.h"
#include "orlinth/RemovedPeers.h"
#include "orlinth/SharedPeers.h"
#include "orlinth/Terminal.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace orlinth::host {

namespace {

constexpr std::size_t shortKeyCharacters = 12;
constexpr std::size_t longestAnswer = 1024;

/// A file descriptor that is closed if it is ours.
class Answers {
public:
    explicit Answers(bool standardInputIsUsedUp) {
        if (standardInputIsUsedUp) {
            // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg): the system's own interface
            descriptor_ = open("/dev/tty", O_RDONLY | O_CLOEXEC | O_NOCTTY);
            if (descriptor_ < 0) {
                throw HostError("there is no terminal to ask whether the codes are the same",
                                "`--yes` goes without the question.");
            }
        }
    }
    ~Answers() {
        if (!isTerminal(descriptor_)) {
            writeToStandardError("\n"); // a terminal has shown the line end that was typed
        }
        if (descriptor_ != STDIN_FILENO) {
            close(descriptor_);
        }
    }
    Answers(const Answers&) = delete;
    Answers& operator=(const Answers&) = delete;

    /// Up to a line feed, which is left out, or the end.
    [[nodiscard]] std::string line() const {
        std::string text;
        std::array<char, 1> one{};
        while (text.size() < longestAnswer) {
            const ssize_t count = read(descriptor_, one.data(), 1); // no more than the line is ours to take
            if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
                pollfd ready{descriptor_, POLLIN, 0}; // inherited from somebody who reads without waiting
                static_cast<void>(poll(&ready, 1, -1));
                continue;
            }
            if (count <= 0 || one[0] == '\n') {
                break;
            }
            text += one[0];
        }
        return text;
    }

private:
    int descriptor_ = STDIN_FILENO;
};

} // namespace

bool asksForYes(const std::string& question, bool standardInputIsUsedUp) {
    const Answers answers(standardInputIsUsedUp);
    writeToStandardError(question + " [y/N] ");
    const std::string answer = lowerCased(trimmed(answers.line()));
    return answer == "y" || answer == "yes";
}

void forgetRemoval(Host& host, const PeerRecord& record) {
    if (const auto key = platform::PublicKey::fromBase64(record.peer_pubkey)) {
        RemovedPeers(host.system.files, host.dataDirectory()).forget(*key);
    }
}

void recordPaired(Host& host, PeerRecord record) {
    record.paired_at_epoch_ms = host.system.clock.epochMilliseconds();
    forgetRemoval(host, record);
    const std::vector<PeerRecord> replaced = host.peers().upsertReplacingStale(record);
    updateSharedPeers(host);
    Json fields;
    fields["peer"] = record.toJson();
    fields["replaced"] = Json::array();
    for (const PeerRecord& stale : replaced) {
        fields["replaced"].push_back(publicFields(stale));
    }
    host.output.event("paired", std::move(fields));
    host.output.result("paired with " + madeVisible(record.peer_hostname) + " at " + madeVisible(addressOf(record)));
    for (const PeerRecord& stale : replaced) {
        host.output.result("in place of the earlier identity of " + madeVisible(stale.peer_hostname) + ", key " +
                           madeVisible(firstCharacters(stale.peer_pubkey, shortKeyCharacters)));
    }
}

} // namespace orlinth::host
