#include "FuzzSupport.h"
#include "OrlinthHost/Phones/AddressBook.h"

/// Whatever the file holds, reading it yields a bounded book that is the same after writing and reading, also once
/// something more was learnt; what does not decode is a JsonError.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace orlinth;
    using namespace orlinth::host;
    using fuzzing::demand;
    const PeerKey phone("hSDwCYkwp1R0i33ctD73Wg2/Og0mOBr066SpjqqbTmo=");
    const EpochMilliseconds now = fromEpochMilliseconds(1731686400000);
    const Meeting meeting{.host = HostAddress::parse("192.168.7.57", "wlan0").value()};
    const auto demandBounds = [](const AddressBook& book) {
        const std::string written = book.encode();
        demand(written.size() <= AddressBook::maxFileBytes, "a bounded file");
        demand(AddressBook::decode(asBytes(written)) == book, "the same again");
    };
    try {
        AddressBook book = AddressBook::decode(std::as_bytes(std::span(data, size)));
        demandBounds(book);
        std::size_t asked = 0;
        const Surroundings here{.networks = {}, .isOnLink = [&asked](const HostAddress& host) {
                                    demand(HostAddress::parse(host.literal()).has_value(), "an address");
                                    return ++asked % 2 == 1;
                                }};
        demand(book.candidates(phone, here, now).size() <= AddressBook::maxCandidates, "few candidates");
        demand(asked <= AddressBook::maxAddresses, "few questions");
        static_cast<void>(book.failed(phone, meeting.host, meeting.network));
        static_cast<void>(book.reached(phone, meeting, now));
        demand(book.addressesOf(phone, now).size() <= AddressBook::maxAddresses, "few addresses");
        demand(book.addressesOf(phone, now).front().failures < AddressBook::maxFailures, "one that was just reached");
        static_cast<void>(book.claimSweep(*NetworkId::parse("9f86d081884c7d65"), now));
        demandBounds(book);
        demand(book.forget(phone) && !book.knows(phone), "a phone that is forgotten");
    } catch (const JsonError& error) {
        demand(!error.description().empty(), "a reason");
    }
    return 0;
}
