#include "platform/linux/SocketErrorQueue.h"

#include <gtest/gtest.h>

#include <bit>
#include <cerrno>

namespace orlinth::platform {
namespace {

static_assert(std::endian::native == std::endian::little && sizeof(std::size_t) == 8,
              "the messages below are those of such a machine");

Bytes bytesOf(std::initializer_list<int> values) {
    Bytes bytes;
    for (const int value : values) {
        bytes.push_back(static_cast<std::byte>(value));
    }
    return bytes;
}

/// EHOSTUNREACH by ICMP 3/13 from 192.168.7.30.
const Bytes reportV4 =
    bytesOf({0x30, 0, 0, 0, 0,   0,   0,  0,  0, 0, 0, 0, 11, 0, 0, 0, // length 48, IPPROTO_IP, IP_RECVERR
             113,  0, 0, 0, 2,   3,   13, 0,  0, 0, 0, 0, 0,  0, 0, 0, // errno, ICMP, type, code
             2,    0, 0, 0, 192, 168, 7,  30, 0, 0, 0, 0, 0,  0, 0, 0});

/// EACCES by ICMPv6 1/1 from 2001:db8::1.
const Bytes reportV6 =
    bytesOf({0x3C, 0, 0, 0, 0, 0, 0, 0, 41,   0,    0,    0,    25, 0, 0, 0, // IPPROTO_IPV6, IPV6_RECVERR
             13,   0, 0, 0, 3, 1, 1, 0, 0,    0,    0,    0,    0,  0, 0, 0, //
             10,   0, 0, 0, 0, 0, 0, 0, 0x20, 0x01, 0x0D, 0xB8, 0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0});

/// A timestamp before it: SOL_SOCKET, SO_TIMESTAMP.
const Bytes other = bytesOf({0x20, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 29, 0, 0, 0, //
                             0,    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  0, 0, 0});

TEST(SocketErrorQueue, ReadsAReportOfIPv4) {
    EXPECT_EQ(parseErrorQueueControl(reportV4),
              (SocketErrorReport{.errorNumber = EHOSTUNREACH,
                                 .icmp = IcmpReport{.type = 3, .code = 13, .from = Ipv4Address{192, 168, 7, 30}}}));
}

TEST(SocketErrorQueue, ReadsAReportOfIPv6) {
    EXPECT_EQ(
        parseErrorQueueControl(reportV6),
        (SocketErrorReport{.errorNumber = EACCES,
                           .icmp = IcmpReport{.type = 1, .code = 1, .from = parseIpAddress("2001:db8::1").value()}}));
}

TEST(SocketErrorQueue, FindsTheReportBehindOtherMessages) {
    EXPECT_EQ(parseErrorQueueControl(concatenate({other, reportV4})), parseErrorQueueControl(reportV4));
    EXPECT_EQ(parseErrorQueueControl(other), std::nullopt);
    EXPECT_EQ(parseErrorQueueControl({}), std::nullopt);
}

TEST(SocketErrorQueue, KeepsTheErrorOfAReportWithoutASender) {
    Bytes local = reportV4;
    local[16 + 4] = std::byte{1}; // SO_EE_ORIGIN_LOCAL
    Bytes unspecified = reportV4;
    unspecified[32] = std::byte{0}; // AF_UNSPEC
    Bytes otherFamily = reportV4;
    otherFamily[32] = std::byte{10}; // IPv6, in a report of IPv4
    for (const Bytes& report : {local, unspecified, otherFamily}) {
        EXPECT_EQ(parseErrorQueueControl(report),
                  (SocketErrorReport{.errorNumber = EHOSTUNREACH, .icmp = std::nullopt}));
    }
    Bytes shortened(reportV4.begin(), reportV4.begin() + 32);
    shortened[0] = std::byte{32};
    EXPECT_EQ(parseErrorQueueControl(shortened),
              (SocketErrorReport{.errorNumber = EHOSTUNREACH, .icmp = std::nullopt}));
}

TEST(SocketErrorQueue, TakesNoTruncatedMessageForAReport) {
    for (const Bytes& report : {reportV4, reportV6}) {
        for (std::size_t size = 0; size < report.size(); ++size) {
            EXPECT_EQ(parseErrorQueueControl(ByteView(report).first(size)), std::nullopt) << size;
            EXPECT_EQ(parseErrorQueueControl(concatenate({other, ByteView(report).first(size)})), std::nullopt) << size;
        }
    }
}

TEST(SocketErrorQueue, NeverReadsPastAWrongLength) {
    for (const Bytes& report : {reportV4, reportV6}) {
        for (int length = 0; length < 0x100; ++length) {
            Bytes wrong = report;
            wrong[0] = static_cast<std::byte>(length);
            const std::optional<SocketErrorReport> read = parseErrorQueueControl(wrong);
            const bool isLongEnough = length >= 32 && length <= static_cast<int>(report.size());
            EXPECT_EQ(read.has_value(), isLongEnough) << length;
        }
        for (std::size_t place = 1; place < 8; ++place) {
            Bytes wrong = report;
            wrong[place] = std::byte{0xFF};
            EXPECT_EQ(parseErrorQueueControl(wrong), std::nullopt) << place;
        }
    }
}

} // namespace
} // namespace orlinth::platform
