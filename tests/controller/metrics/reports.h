// Reports of the child as text, for the tests of the metrics.
#pragma once

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "metrics/report_parser.h"

namespace vesk::controller {

/// A report with all parts: two flows, two workers, all sockets.
inline constexpr std::string_view fullReport =
    "info \n"
    "Poll stats:\n"
    "ActiveEvtNr:3 RdReadyNr:4 WrReadyNr:5 ErrorNr:6\n"
    "\n"
    "info Upstream Stats:\n"
    "Label:16,RxDg:100,TxDg:101,RxDgError102,TxDgDropped103,DnTxDg:104,DnTxDgDropped:105\n"
    "Label:4000000000,RxDg:200,TxDg:201,RxDgError202,TxDgDropped203,DnTxDg:204,DnTxDgDropped:205\n"
    "\n"
    "info RcvThrStats: WakeNr:10,ReadyFdNr:11,DgNr:12 WakeNr:20,ReadyFdNr:21,DgNr:22 \n"
    "\n"
    "info SndThrStats \n"
    "\n"
    "info EptNr:2,RxDg:34,TxDg:0\n"
    "\n"
    "info Downstream Stats:\n"
    "RxDg:50,TxDg:51,RxDgError:52,TxDgDropped:53\n"
    "\n"
    "info Lateral Stats:\n"
    "RxDg:60,TxDg:61,RxDgError:62,TxDgDropped:63,DnTxDg:64,DnTxDgDropped:65\n"
    "\n";

/// A report of a child without sockets and threads.
inline constexpr std::string_view emptyReport =
    "info \nPoll stats:\n\n"
    "info Upstream Stats:\n\n"
    "info RcvThrStats: \n\n"
    "info SndThrStats \n\n"
    "info EptNr:0,RxDg:0,TxDg:0\n\n"
    "info Downstream Stats:\n\n"
    "info Lateral Stats:\n\n";

inline std::vector<std::string> linesOf(std::string_view text) {
    std::vector<std::string> lines;
    std::istringstream stream{std::string(text)};
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// Feeds all lines to the parser and returns those that are not part of a report.
inline std::vector<std::string> ordinaryLines(ReportParser& parser, std::string_view text) {
    std::vector<std::string> ordinary;
    for (const std::string& line : linesOf(text)) {
        if (!parser.feed(line)) {
            ordinary.push_back(line);
        }
    }
    return ordinary;
}

/// The first report in the text.
inline Report parsed(std::string_view text) {
    ReportParser parser;
    ordinaryLines(parser, text);
    return parser.takeReport().value();
}

}  // namespace vesk::controller
