#include "metrics/report_parser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "reports.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The report with one piece of text replaced.
std::string reportWith(const std::string& text, const std::string& other,
                       std::string_view report = fullReport) {
    std::string changed(report);
    const std::size_t place = changed.find(text);
    EXPECT_NE(place, std::string::npos) << text;
    return changed.replace(place, text.size(), other);
}

TEST(ReportParserTest, ReadsEveryFigure) {
    ReportParser parser;
    EXPECT_THAT(ordinaryLines(parser, fullReport), IsEmpty());
    const std::optional<Report> report = parser.takeReport();
    ASSERT_TRUE(report);
    ASSERT_TRUE(report->poll);
    EXPECT_EQ(report->poll->armedSockets, 3);
    EXPECT_EQ(report->poll->readEvents, 4U);
    EXPECT_EQ(report->poll->writeEvents, 5U);
    EXPECT_EQ(report->poll->errorEvents, 6U);
    ASSERT_EQ(report->flows.size(), 2U);
    EXPECT_EQ(report->flows[0].label, 16U);
    EXPECT_EQ(report->flows[0].counters, (DatagramCounters{100, 101, 102, 103, 104, 105}));
    EXPECT_EQ(report->flows[1].label, 4000000000U);
    EXPECT_EQ(report->flows[1].counters, (DatagramCounters{200, 201, 202, 203, 204, 205}));
    ASSERT_EQ(report->workers.size(), 2U);
    EXPECT_EQ(report->workers[1].wakeUps, 20U);
    EXPECT_EQ(report->workers[1].queuedSockets, 21U);
    EXPECT_EQ(report->workers[1].received, 22U);
    EXPECT_EQ(report->totals.sockets, 2U);
    EXPECT_EQ(report->totals.received, 34U);
    EXPECT_EQ(report->totals.sent, 0U);
    EXPECT_EQ(report->downstream, (DatagramCounters{50, 51, 52, 53, 0, 0}));
    EXPECT_EQ(report->lateral, (DatagramCounters{60, 61, 62, 63, 64, 65}));
}

TEST(ReportParserTest, ReadsAnEmptyReport) {
    ReportParser parser;
    EXPECT_THAT(ordinaryLines(parser, emptyReport), IsEmpty());
    const std::optional<Report> report = parser.takeReport();
    ASSERT_TRUE(report);
    EXPECT_FALSE(report->poll);
    EXPECT_THAT(report->flows, IsEmpty());
    EXPECT_THAT(report->workers, IsEmpty());
    EXPECT_FALSE(report->downstream);
    EXPECT_FALSE(report->lateral);
}

TEST(ReportParserTest, CompletesWithTheLastEmptyLineAndReturnsOnce) {
    ReportParser parser;
    const std::vector<std::string> lines = linesOf(fullReport);
    for (const std::string& line : lines) {
        EXPECT_FALSE(parser.takeReport());
        EXPECT_TRUE(parser.feed(line));
    }
    EXPECT_TRUE(parser.takeReport());
    EXPECT_FALSE(parser.takeReport());
}

TEST(ReportParserTest, ReadsOneReportAfterAnother) {
    ReportParser parser;
    for (const auto report : {fullReport, emptyReport, fullReport}) {
        EXPECT_THAT(ordinaryLines(parser, report), IsEmpty());
        EXPECT_TRUE(parser.takeReport());
    }
}

TEST(ReportParserTest, DoesNotClaimLogLines) {
    const std::string_view log =
        "info Starting forwarder with UDPv2\n"
        "downstreamPacketReceivedFailed HMAC Check!\n"
        "error Unrecognised command 'Stop'\n"
        "\n"
        "RxDg:1,TxDg:2\n"
        "Label:1\n"
        "Poll stats:\n"
        "info Upstream Stats:\n"
        "info EptNr:0,RxDg:0,TxDg:0\n"
        "\n";
    ReportParser parser;
    EXPECT_EQ(ordinaryLines(parser, log), linesOf(log));
    EXPECT_FALSE(parser.takeReport());
}

// Lines of other threads at any place are not claimed, and the report is complete.
TEST(ReportParserTest, AllowsOtherLinesAtAnyPlace) {
    const std::vector<std::string> lines = linesOf(fullReport);
    for (std::size_t place = 0; place <= lines.size(); ++place) {
        ReportParser parser;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            if (i == place) {
                EXPECT_FALSE(parser.feed("downstreamPacketReceivedFailed HMAC Check!"));
                EXPECT_FALSE(
                    parser.feed("info Created upstream endpoint: label 0x5/5 sockfds 7 8"));
            }
            EXPECT_TRUE(parser.feed(lines[i])) << lines[i];
        }
        const std::optional<Report> report = parser.takeReport();
        ASSERT_TRUE(report) << place;
        EXPECT_EQ(report->flows.size(), 2U);
    }
}

// Other messages between those of a report may also end with an empty line.
TEST(ReportParserTest, DoesNotClaimTheEmptyLineOfAnotherMessage) {
    ReportParser parser;
    const std::string text = reportWith(
        "\n\ninfo RcvThrStats", "\n\nerror Unrecognised command 'fence-1'\n\ninfo RcvThrStats");
    EXPECT_THAT(ordinaryLines(parser, text),
                ElementsAre("error Unrecognised command 'fence-1'", ""));
    EXPECT_TRUE(parser.takeReport());
}

TEST(ReportParserTest, ReadsTheGreatestNumbers) {
    ReportParser parser;
    ordinaryLines(parser, reportWith("ReadyFdNr:11,DgNr:12",
                                     "ReadyFdNr:4294967295,DgNr:18446744073709551615"));
    const std::optional<Report> report = parser.takeReport();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->workers[0].queuedSockets, 4294967295U);
    EXPECT_EQ(report->workers[0].received, 18446744073709551615U);
}

TEST(ReportParserTest, ReadsANegativeNumberOfArmedSockets) {
    ReportParser parser;
    ordinaryLines(parser, reportWith("ActiveEvtNr:3", "ActiveEvtNr:4294967295"));
    const std::optional<Report> report = parser.takeReport();
    ASSERT_TRUE(report);
    EXPECT_EQ(report->poll->armedSockets, -1);
}

struct Damage {
    const char* text;
    const char* other;
};

class DamagedReportTest : public testing::TestWithParam<Damage> {};

// The damaged line and the following ones are not claimed, and the next report is read normally.
TEST_P(DamagedReportTest, IsDiscardedAndNotClaimed) {
    ReportParser parser;
    const std::string damaged = reportWith(GetParam().text, GetParam().other);
    EXPECT_FALSE(ordinaryLines(parser, damaged).empty());
    EXPECT_FALSE(parser.takeReport());
    EXPECT_THAT(ordinaryLines(parser, fullReport), IsEmpty());
    EXPECT_TRUE(parser.takeReport());
}

INSTANTIATE_TEST_SUITE_P(
    All, DamagedReportTest,
    testing::Values(Damage{"ActiveEvtNr:3", "ActiveEvtNr:4294967296"},
                    Damage{"ActiveEvtNr:3", "ActiveEvtNr:-3"}, Damage{"ErrorNr:6", "ErrorNr:6 "},
                    Damage{"Label:16", "Label:4294967296"}, Damage{"Label:16", "Label:"},
                    Damage{"Label:4000000000", "Label:16"}, Damage{"RxDg:100", "RxDg:1e2"},
                    Damage{"TxDg:101", "TxDg:18446744073709551616"},
                    Damage{"RxDgError102", "RxDgError:102"}, Damage{",DnTxDgDropped:105", ""},
                    Damage{"DnTxDgDropped:205", "DnTxDgDropped:205,More:1"},
                    Damage{"DgNr:22 ", "DgNr:22"}, Damage{"ReadyFdNr:11", "ReadyFdNr:4294967296"},
                    Damage{"WakeNr:10", "WakeNr:99999999999999999999999999999999999999"},
                    Damage{"EptNr:2", "EptNr:x"}, Damage{"TxDg:0\n", "TxDg:0 \n"},
                    Damage{"info Downstream Stats:\n", "info Downstream Stats: \n"},
                    Damage{"RxDgError:52", "RxDgError52"}, Damage{"info SndThrStats \n\n", ""},
                    Damage{"SndThrStats ", "SndThrStats WakeNr:1,ReadyFdNr:1,DgNr:1 "},
                    Damage{"RxDg:60,", "RxDg:60,TxDg:1\nRxDg:60,"}));

TEST(ReportParserTest, RefusesAReportWithAMissingRow) {
    const std::string text = reportWith(
        "Label:16,RxDg:100,TxDg:101,RxDgError102,TxDgDropped103,DnTxDg:104,DnTxDgDropped:105\n",
        "");
    ReportParser parser;
    ordinaryLines(parser, text);
    EXPECT_FALSE(parser.takeReport());
}

// A child may end at any place of a report; the next child begins with a new log.
TEST(ReportParserTest, DiscardsATruncatedReportOnReset) {
    const std::vector<std::string> lines = linesOf(fullReport);
    for (std::size_t count = 1; count < lines.size(); ++count) {
        ReportParser parser;
        for (std::size_t i = 0; i < count; ++i) {
            parser.feed(lines[i]);
        }
        if (!lines[count].empty()) {
            parser.feed(lines[count].substr(0, lines[count].size() / 2));
        }
        parser.reset();
        EXPECT_THAT(ordinaryLines(parser, "error Unrecognised command 'x'\n\n"),
                    ElementsAre("error Unrecognised command 'x'", ""));
        EXPECT_FALSE(parser.takeReport());
        EXPECT_THAT(ordinaryLines(parser, fullReport), IsEmpty());
        EXPECT_TRUE(parser.takeReport());
    }
}

TEST(ReportParserTest, StartsOverWithANewReport) {
    const std::vector<std::string> lines = linesOf(fullReport);
    for (std::size_t count = 1; count < lines.size(); ++count) {
        ReportParser parser;
        for (std::size_t i = 0; i < count; ++i) {
            parser.feed(lines[i]);
        }
        EXPECT_THAT(ordinaryLines(parser, fullReport), IsEmpty());
        EXPECT_TRUE(parser.takeReport());
    }
}

// An empty info message is claimed before it is certain that it begins a report.
TEST(ReportParserTest, ClaimsOnlyTheEmptyInfoLine) {
    ReportParser parser;
    EXPECT_THAT(ordinaryLines(parser, "info \n\ninfo Starting forwarder with UDPv2\n\n"),
                ElementsAre("", "info Starting forwarder with UDPv2", ""));
}

// Random bytes never crash it, and never make it claim a line of the log.
TEST(ReportParserTest, HandlesRandomBytes) {
    std::minstd_rand random(1);
    for (int round = 0; round < 2000; ++round) {
        std::string text(fullReport);
        for (int change = 0; change < 3; ++change) {
            text[random() % text.size()] = static_cast<char>(random() % 256);
        }
        ReportParser parser;
        ordinaryLines(parser, text);
        EXPECT_FALSE(parser.feed("error Unrecognised command 'Stop'"));
    }
}

}  // namespace
}  // namespace vesk::controller
