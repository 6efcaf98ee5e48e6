#pragma once

#include "OrlinthCore/SecureChannel/WireConnection.h"

#include <cstddef>
#include <cstdint>

/// What others may make the receive service spend, and why so much. Those who have proved nothing get hardly anything;
/// a paired phone gets what the busiest honest one needs, with room to spare. The table in docs/security.md is this
/// one.
namespace orlinth::limits {

/// How long any single read may take: a phone may lose its network for a while and come back.
inline constexpr Seconds readLimit = 60s;

// ---- those who have not proved a paired key

/// From the acceptance of a connection to the third message of the handshake. Two round trips; even on a bad
/// link they take less than two seconds.
inline constexpr Seconds handshakeLimit = 10s;
/// Connections without a proved key, of everybody together. More than a whole office of phones begins at once; 16 KiB
/// each are 8 MiB.
inline constexpr std::size_t strangers = 512;
/// The same of one source, once they have had `strangerGrace`: an honest phone has at most eight, and each for
/// milliseconds.
inline constexpr std::size_t strangersOfOneSource = 16;
/// How long a source may have more than that. Many phones may come from one address at once, behind a router
/// that translates addresses; who is being served is not thrown out for it.
inline constexpr Seconds strangerGrace = 1s;

// ---- one phone

/// Connections of one phone. A busy one has eight, and may come again with eight more before the dead ones are noticed.
inline constexpr std::size_t connectionsOfOnePhone = 16;
/// The same with those that have to go and have not closed yet: they may be waiting for the disk, on threads of which
/// there are not many more (platform::WorkQueues::makeBlockingQueue()). One more is turned away.
inline constexpr std::size_t connectionsOfOnePhoneInAll = connectionsOfOnePhone + connectionsOfOnePhone / 2;
/// Between two writes of one phone's record. A name, an address or a token changes a few times a day.
inline constexpr Seconds recordInterval = 10s;
/// Questions of one phone that wait behind the one that is being asked. Nobody answers more at once.
inline constexpr std::size_t questionsWaiting = 3;

// ---- what a host says about them

/// Lines a minute about those who have not proved a paired key, of one kind. Enough to see what is going on; then only
/// their number is said.
inline constexpr int linesOfStrangers = 5;
/// The same about one phone, besides the files that it delivers: eight connections that break at once, twice over.
inline constexpr int linesOfOnePhone = 20;
/// How long a worker thread may do one thing before that is reported. A flush of a file takes less.
inline constexpr Seconds lateAfter = 2s;

// ---- frames on their way in

/// Part of a frame that is read before room for all of it is asked for: control messages are smaller.
inline constexpr std::int64_t freeFrameBytes = 64 << 10;
/// A frame of a file's data: 1 MiB, and what is around it. Larger ones are legal, and rare; outside an accepted
/// transfer a phone has one of them at a time.
inline constexpr std::int64_t dataFrameBytes = (1 << 20) + 64;
/// Frames on their way in, of all phones: of more the rest is not read until there is room.
inline constexpr std::int64_t frameBytes = 64 << 20;
/// Those of them that are larger than a data frame, so that whoever sends such leaves room for the usual ones.
inline constexpr std::int64_t largeFrameBytes = frameBytes - frameBytes / 4;
/// Frames on their way in of one phone, so that no single one has all of the room.
inline constexpr std::int64_t frameBytesOfOnePhone = frameBytes / 2;

static_assert(handshakeLimit < readLimit);
static_assert(strangerGrace < handshakeLimit);
static_assert(strangers >= 16 * strangersOfOneSource, "a few sources must not be able to take every place");
static_assert(connectionsOfOnePhone <= strangersOfOneSource, "a phone that comes back with all it may have gets in");
static_assert(freeFrameBytes < dataFrameBytes);
static_assert(largeFrameBytes >= static_cast<std::int64_t>(WireConnection::maxFrameBytes) &&
                  frameBytesOfOnePhone >= static_cast<std::int64_t>(WireConnection::maxFrameBytes),
              "every legal frame must pass");
static_assert(frameBytesOfOnePhone >= static_cast<std::int64_t>(connectionsOfOnePhone) * dataFrameBytes,
              "a phone's transfers must not wait for each other");
static_assert(frameBytesOfOnePhone < frameBytes);

} // namespace orlinth::limits

namespace orlinth {

/// What a host may choose. The defaults suit a library that does not know where it runs.
struct ReceiverLimits {
    /// From the acceptance of a connection to the third message of its handshake; 0: each read has
    /// limits::readLimit, and there is no other limit.
    Seconds handshakeLimit{0};
    /// Connections without a proved key from one source: an IPv4 address, or the /64 network of an IPv6 address.
    std::size_t strangersOfOneSource = limits::strangers;

    /// For a service that is open to a network.
    [[nodiscard]] static constexpr ReceiverLimits strict() {
        return {.handshakeLimit = limits::handshakeLimit, .strangersOfOneSource = limits::strangersOfOneSource};
    }
};

} // namespace orlinth
