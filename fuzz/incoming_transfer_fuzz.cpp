// The frames of one connection, in any order, to the rules of the receiving side, whose offers are answered in any way.
// A file is written only between an accepted offer and its end, never beyond what was approved and a frame, and every
// conversation ends exactly once.
//
// Input: who receives (1 byte) | frames: kind (1 byte), number (2 bytes).

#include "FuzzSupport.h"
#include "OrlinthCore/Receiving/IncomingTransfer.h"
#include "OrlinthCore/Receiving/ReceiveError.h"
#include "OrlinthCore/Receiving/ReceivingLimits.h"

using namespace orlinth;
using namespace orlinth::fuzzing;

namespace {

using State = IncomingTransfer::State;

/// Sizes around the bound, which lies a frame above the offer.
std::int64_t bytesOf(std::size_t number) {
    return static_cast<std::int64_t>(number) * (limits::dataFrameBytes / 4096);
}

std::optional<TransportMessage> messageOf(std::size_t kind, std::size_t number) {
    switch (kind) {
    case 0:
        return TransportMessage::fileOffer("a", bytesOf(number), "", "id");
    case 1:
        return TransportMessage::done();
    case 2:
        return TransportMessage::tokenUpdate("token");
    case 3:
        return TransportMessage::resume("id", ByteOffset(bytesOf(number)));
    case 4:
        return TransportMessage::clipboard("text", "text/plain");
    case 5:
        return TransportMessage::setName("name");
    case 6:
        return TransportMessage::nameUpdate("name");
    case 7:
        return TransportMessage::unpair();
    case 8:
        return TransportMessage::decline();
    default:
        return std::nullopt; // data
    }
}

/// A receiver that does as it is told, and keeps its own account.
struct Receiver {
    explicit Receiver(IncomingTransfer::Scope scope) : transfer(scope) {}

    void take(std::size_t kind, std::size_t number) {
        const std::optional<TransportMessage> message = messageOf(kind % 12, number);
        if (message) {
            act(transfer.take(*message), kind, number);
            return;
        }
        const bool mayCome = isOpen;
        transfer.takeData(bytesOf(number));
        demand(mayCome, "data is taken only for an accepted offer");
        written += bytesOf(number);
        demand(!bound || written <= *bound, "no more is written than was approved, and a frame");
    }

    void act(const IncomingTransfer::Action& action, std::size_t kind, std::size_t number) {
        if (std::holds_alternative<IncomingTransfer::Answer>(action)) {
            demand(!isOpen && offers == 0, "there is one offer");
            ++offers;
            answer(kind, number);
        } else if (std::holds_alternative<IncomingTransfer::Finish>(action)) {
            demand(isOpen, "only an accepted file is finished");
            end();
        } else if (std::holds_alternative<IncomingTransfer::Conclude>(action)) {
            end();
        }
    }

    void answer(std::size_t kind, std::size_t number) {
        const std::size_t choice = kind / 12;
        if (choice % 4 == 0) {
            transfer.refuse();
            end();
            return;
        }
        const std::int64_t here = choice % 4 == 1 ? bytesOf(number) : 0;
        std::optional<std::int64_t> approved;
        if (choice % 4 != 3) {
            approved = bytesOf(number / 2);
            bound = *approved + limits::dataFrameBytes;
        }
        transfer.accept(ByteOffset(here), approved);
        isOpen = true;
        written = here;
        demand(!bound || written <= *bound, "no more is continued than was approved, and a frame");
    }

    void end() {
        ++ends;
        isOpen = false;
    }

    IncomingTransfer transfer;
    bool isOpen = false;
    std::int64_t written = 0;
    std::optional<std::int64_t> bound;
    int offers = 0;
    int ends = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const bool isService = input.byte() % 2 == 0;
    Receiver receiver(isService ? IncomingTransfer::Scope::everything : IncomingTransfer::Scope::oneFile);
    while (!input.empty() && receiver.transfer.state() != State::over) {
        const std::size_t kind = input.byte();
        const std::size_t number = input.twoBytes();
        try {
            receiver.take(kind, number);
        } catch (const ReceiveError& error) {
            demand(error.which() == ReceiveError::Case::protocolViolation, "a broken rule is a violation");
            receiver.end();
        }
    }
    const bool isOver = receiver.transfer.state() == State::over;
    demand(receiver.ends == (isOver ? 1 : 0), "a conversation ends once, and is over then");
    demand(isOver || (receiver.transfer.state() == State::receiving) == receiver.isOpen,
           "a file is open while it comes");
    demand(!receiver.transfer.mayHangUp() || receiver.offers == 0, "a phone with an offer must not hang up");
    return 0;
}
