// Finds the child's statistics reports among the lines of its log. child/output_interpreter passes
// it every line that the child writes. Lines of a report are kept out of the controller's log, and
// each complete report goes to the metrics.
//
// A report consists of seven messages at info level. Each is written in one piece and itself
// ends in a newline, so an empty line follows it. Messages of other threads may come in between:
//
//     info                  ("info" and a blank only: the message begins with a newline)
//     Poll stats:
//     ActiveEvtNr:1 RdReadyNr:1 WrReadyNr:0 ErrorNr:0
//
//     info Upstream Stats:
//     Label:65537,RxDg:1,TxDg:1,RxDgError0,TxDgDropped0,DnTxDg:1,DnTxDgDropped:0
//
//     info RcvThrStats: WakeNr:1,ReadyFdNr:1,DgNr:1 WakeNr:0,ReadyFdNr:0,DgNr:0
//
//     ... SndThrStats, EptNr, Downstream Stats and Lateral Stats
//
// An incomplete report is never returned: a flow whose row is missing would look like one that has
// a new socket, and the totals would count it twice.
#pragma once

#include <optional>
#include <string_view>

#include "metrics/report.h"

namespace vesk::controller {

class ReportParser {
 public:
    /// Takes the child's next whole line, with its level and trailing blanks, without the newline.
    /// True if it belongs to a report and is not for the log. A line that does not have exactly the
    /// form of a report is an ordinary line. If a line of the report is damaged, the report is
    /// discarded, and its remaining lines are ordinary lines too. Only the first line, an info
    /// message without text, is always taken as part of a report.
    bool feed(std::string_view line);

    /// The report that was completed since the last call, if any.
    std::optional<Report> takeReport();

    /// Discards an incomplete report, for a new child: the output of the previous one may have
    /// ended anywhere.
    void reset() { section_ = Section::none; }

 private:
    // In the order of the report. `opening` is the line that contains only the level.
    enum class Section {
        none,
        opening,
        poll,
        upstream,
        receivers,
        senders,
        totals,
        downstream,
        lateral
    };
    /// What a line means for the report that is being read.
    enum class Verdict { foreign, taken, damaged };

    static std::optional<Section> headingOf(std::string_view line);
    Verdict takeHeading(Section heading, std::string_view line);
    Verdict takeRow(std::string_view line);
    bool endSection();

    Section section_ = Section::none;
    bool ended_ = false;  // the empty line after the section has been read
    Report partial_;
    std::optional<Report> whole_;
};

}  // namespace vesk::controller
