#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Reach/CauseWords.h"
#include "OrlinthHost/Reach/Diagnosis.h"

#include <functional>

namespace orlinth::host {

/// What came of looking for one phone.
struct PhoneFindings {
    Cause cause = Cause::unknown; ///< none: it is there, and has proved its key
    CauseDetails details;
    Evidence evidence;
    Seconds duration{}; ///< from the first packet to the end: of a phone that is there, how long it took to prove it
};

/// The times of a look. A neighbour that was heard of a while ago is found missing 8.1 s after the first packet (RFC
/// 4861 §10: 5 s of DELAY, three probes a second apart), and that is what the longest one waits for.
struct PhoneCheckTimes {
    Seconds onLink = 8600ms;  ///< to connect to an address in a network of this computer
    Seconds elsewhere = 4s;   ///< to one behind a router, or by a tunnel: what is not there by then is not told apart
    Seconds proof = 3s;       ///< to prove the key
    Seconds whole = 9600ms;   ///< for all of it
    Seconds further = 1s;     ///< of silence before more than the phone's port is asked
    Seconds silence = 3500ms; ///< in which a port of a phone that is there answers, or never: two packets were repeated
};

/// Connects to the phone's recorded address and has it prove its key; of a phone that does not, finds out why, as far
/// as an ordinary user can. What is sent: packets to the phone's port, 36 bytes once it is connected, and, if it is
/// silent and in a network of this computer, one datagram and one connection to its discard port. This computer's key
/// is shown to nobody, and nobody is woken. What was learnt of a phone that is there is kept in the AddressMemory.
///
/// Ends within PhoneCheckTimes::whole, as soon as the cause is certain. `phone` has an address and a port; `home`
/// outlives the task.
/// @throws platform::Cancelled; platform::CryptoError if this computer cannot make a key
/// `onConnected` is called once, when the phone's port has taken the connection: the key is still to be proved then.
[[nodiscard]] Task<PhoneFindings> checkPhone(Home& home, PeerRecord phone, PhoneCheckTimes times = {},
                                             std::function<void()> onConnected = {});

/// Why an attempt to connect to the phone's recorded address has just failed, from how it failed and what the system
/// knows by now. Sends nothing and returns at once, so it is less certain than checkPhone(): where that does not
/// decide, the cause is unknown.
[[nodiscard]] PhoneFindings explainFailure(Home& home, const PeerRecord& phone, Evidence::Connect failure);

} // namespace orlinth::host
