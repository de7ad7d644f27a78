// The parsers of the kernel's texts, with real and with damaged texts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "kernel/port_range.h"
#include "kernel/process_limits.h"
#include "kernel/udp_errors.h"
#include "kernel/udp_table.h"

namespace vesk::controller {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

// Linux 6.1, 127.0.0.1:4500 with a full buffer.
constexpr std::string_view udpLine =
    "11311: 0100007F:1194 00000000:0000 07 00000010:00033C00 00:00000000 00000000     0        0 "
    "3418658 2 000000002b9c5035 308     \n";
constexpr std::string_view udpHeader =
    "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode ref pointer drops            \n";
constexpr std::string_view udp6Text =
    "  sl  local_address                         remote_address                        st tx_queue "
    "rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
    "11311: 00000000000000000000000001000000:1194 00000000000000000000000000000000:0000 07 "
    "00000000:00000000 00:00000000 00000000     0        0 3418657 2 00000000d317faf8 0\n";

std::string table(std::string_view lines) {
    return std::string(udpHeader) + std::string(lines);
}

TEST(UdpTableTest, ReadsASocket) {
    const std::string text = table(udpLine);
    const std::vector<UdpSocket> sockets = parseUdpTable(text);
    ASSERT_THAT(sockets, SizeIs(1));
    EXPECT_EQ(sockets[0].address, "0100007F");
    EXPECT_EQ(sockets[0].port, 4500);
    EXPECT_EQ(sockets[0].sendQueue, 0x10U);
    EXPECT_EQ(sockets[0].receiveQueue, 0x33C00U);
    EXPECT_EQ(sockets[0].inode, 3418658U);
    EXPECT_EQ(sockets[0].drops, 308U);
}

TEST(UdpTableTest, ReadsIpv6) {
    const std::vector<UdpSocket> sockets = parseUdpTable(udp6Text);
    ASSERT_THAT(sockets, SizeIs(1));
    EXPECT_EQ(sockets[0].address, "00000000000000000000000001000000");
    EXPECT_EQ(sockets[0].port, 4500);
    EXPECT_EQ(sockets[0].inode, 3418657U);
}

TEST(UdpTableTest, ReadsATableWithoutSockets) {
    EXPECT_THAT(parseUdpTable(udpHeader), IsEmpty());
    EXPECT_THAT(parseUdpTable(""), IsEmpty());
    EXPECT_THAT(parseUdpTable("\n\n"), IsEmpty());
}

// The line is cut before its last number, at any place.
TEST(UdpTableTest, RefusesATruncatedLine) {
    const std::string line(udpLine.substr(0, udpLine.find("308")));
    for (std::size_t length = 0; length <= line.size(); ++length) {
        EXPECT_THAT(parseUdpTable(line.substr(0, length)), IsEmpty()) << length;
    }
}

TEST(UdpTableTest, OmitsOnlyDamagedLines) {
    for (const auto& [good, bad] : std::initializer_list<std::pair<const char*, const char*>>{
             {"11311:", "11311"},
             {":1194", ":11194"},
             {":1194", "1194"},
             {":1194", ":"},
             {":1194", ":119g"},
             {":00033C00", ":x"},
             {"00000010:", "-1:"},
             {"3418658", "99999999999999999999"},
             {" 308", " 308 1"},
             {" 308", " three"}}) {
        std::string damaged(udpLine);
        damaged.replace(damaged.find(good), std::string_view(good).size(), bad);
        EXPECT_THAT(parseUdpTable(table(damaged)), IsEmpty()) << damaged;
        EXPECT_THAT(parseUdpTable(table(damaged + std::string(udpLine))), SizeIs(1)) << damaged;
    }
}

TEST(UdpTableTest, FormatsAddressesAsInTheTable) {
    EXPECT_EQ(tableAddress("127.0.0.1"), "0100007F");
    EXPECT_EQ(tableAddress("0.0.0.0"), "00000000");
    EXPECT_EQ(tableAddress("::1"), "00000000000000000000000001000000");
    EXPECT_EQ(tableAddress("2001:db8::ff"), "B80D01200000000000000000FF000000");
    EXPECT_EQ(tableAddress("localhost"), "");
}

TEST(PortRangeTest, ReadsTheRangeWithBothEnds) {
    const auto range = parsePortRange("32768\t60999\n");
    ASSERT_TRUE(range);
    EXPECT_EQ(range->count(), 28232U);
    EXPECT_TRUE(range->test(32768));
    EXPECT_TRUE(range->test(60999));
    EXPECT_FALSE(range->test(61000));
    EXPECT_EQ(parsePortRange("65535 65535").value().count(), 1U);
}

TEST(PortRangeTest, RefusesADamagedRange) {
    for (const char* text : {"", "\n", "32768", "32768\t", "a b", "60999\t32768", "1\t65536",
                             "-1\t5", "1\t2\t3", "1-2"}) {
        EXPECT_FALSE(parsePortRange(text)) << text;
    }
}

TEST(PortRangeTest, ReadsReservedPorts) {
    EXPECT_EQ(parseReservedPorts("\n").value().count(), 0U);
    EXPECT_EQ(parseReservedPorts("").value().count(), 0U);
    const auto reserved = parseReservedPorts("8080,9148-9150\n");
    ASSERT_TRUE(reserved);
    EXPECT_EQ(reserved->count(), 4U);
    EXPECT_TRUE(reserved->test(8080));
    EXPECT_TRUE(reserved->test(9149));
}

TEST(PortRangeTest, RefusesDamagedReservedPorts) {
    for (const char* text : {",", "1,,2", "1-", "-2", "3-2", "70000", "one", "1-2-3"}) {
        EXPECT_FALSE(parseReservedPorts(text)) << text;
    }
}

TEST(PortRangeTest, DoesNotCountReservedPorts) {
    PortSet taken;
    taken.set(99).set(100).set(105).set(110).set(111);
    const PortSet range = parsePortRange("100 110").value();
    EXPECT_EQ(portRoom(range, parseReservedPorts("104-106,500").value(), taken), (Room{2, 6}));
    EXPECT_EQ(portRoom(range, {}, {}), (Room{0, 11}));
}

constexpr std::string_view limits =
    "Limit                     Soft Limit           Hard Limit           Units     \n"
    "Max core file size        0                    unlimited            bytes     \n"
    "Max open files            1024                 1048576              files     \n"
    "Max locked memory         8388608              8388608              bytes     \n";

TEST(ProcessLimitsTest, ReadsTheSoftLimitOfDescriptors) {
    EXPECT_EQ(parseOpenFilesLimit(limits), 1024U);
    EXPECT_EQ(parseOpenFilesLimit("Max open files            unlimited   unlimited   files\n"),
              std::numeric_limits<std::uint64_t>::max());
}

TEST(ProcessLimitsTest, RefusesADamagedText) {
    EXPECT_FALSE(parseOpenFilesLimit(""));
    EXPECT_FALSE(parseOpenFilesLimit(limits.substr(0, limits.find("1024"))));
    EXPECT_FALSE(parseOpenFilesLimit("Max open files            -1\n"));
    EXPECT_FALSE(parseOpenFilesLimit("Max open files            10x24\n"));
    EXPECT_FALSE(parseOpenFilesLimit("Max open filesystems      1024\n"));
}

constexpr std::string_view snmp =
    "Tcp: RtoAlgorithm RtoMin RtoMax MaxConn\n"
    "Tcp: 1 200 120000 -1\n"
    "Udp: InDatagrams NoPorts InErrors OutDatagrams RcvbufErrors SndbufErrors InCsumErrors\n"
    "Udp: 146572953 415198 41485024 189160316 41485021 7 0\n"
    "UdpLite: InDatagrams NoPorts InErrors OutDatagrams RcvbufErrors SndbufErrors InCsumErrors\n"
    "UdpLite: 0 0 0 0 0 0 0\n";

TEST(UdpErrorsTest, FindsTheColumnsByName) {
    EXPECT_EQ(parseSnmp(snmp), (BufferErrors{41485021, 7}));
    EXPECT_EQ(parseSnmp("Udp: SndbufErrors RcvbufErrors\nUdp: 1 2\n"), (BufferErrors{2, 1}));
}

TEST(UdpErrorsTest, RefusesADamagedText) {
    EXPECT_FALSE(parseSnmp(""));
    EXPECT_FALSE(parseSnmp("Udp: RcvbufErrors SndbufErrors\n"));
    EXPECT_FALSE(parseSnmp("Udp: RcvbufErrors SndbufErrors\nUdp: 1\n"));
    EXPECT_FALSE(parseSnmp("Udp: RcvbufErrors SndbufErrors\nUdp: 1 x\n"));
    EXPECT_FALSE(parseSnmp("Udp: InErrors SndbufErrors\nUdp: 1 2\n"));
    EXPECT_FALSE(parseSnmp(snmp.substr(0, snmp.find("41485021"))));
}

TEST(UdpErrorsTest, ReadsIpv6) {
    constexpr std::string_view text =
        "Ip6InReceives                   \t12\n"
        "Udp6RcvbufErrors                \t3\n"
        "Udp6SndbufErrors                \t4\n"
        "UdpLite6RcvbufErrors            \t9\n";
    EXPECT_EQ(parseSnmp6(text), (BufferErrors{3, 4}));
    EXPECT_FALSE(parseSnmp6(""));
    EXPECT_FALSE(parseSnmp6("Udp6RcvbufErrors \t3\n"));
    EXPECT_FALSE(parseSnmp6("Udp6RcvbufErrors \t3\nUdp6SndbufErrors \t-4\n"));
}

}  // namespace
}  // namespace vesk::controller
