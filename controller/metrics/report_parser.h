// Finds the child's statistics reports among the lines of its log. The controller feeds it every
// line that the child writes, keeps out of its own log what belongs to a report, and hands each
// report that is whole to the metrics.
//
// A report is seven messages at info level. Each is written in one piece and ends in a newline of
// its own, so it is followed by an empty line; messages of other threads fall in between:
//
//     info                                         (with its blank: the message begins with a
//     newline) Poll stats: ActiveEvtNr:1 RdReadyNr:1 WrReadyNr:0 ErrorNr:0
//
//     info Upstream Stats:
//     Label:65537,RxDg:1,TxDg:1,RxDgError0,TxDgDropped0,DnTxDg:1,DnTxDgDropped:0
//
//     info RcvThrStats: WakeNr:1,ReadyFdNr:1,DgNr:1 WakeNr:0,ReadyFdNr:0,DgNr:0
//
//     ... SndThrStats, EptNr, Downstream Stats and Lateral Stats
//
// No half report is ever yielded: the totals would take a flow whose row got lost for one that has
// a new socket, and count it twice.
#pragma once

#include <optional>
#include <string_view>

#include "metrics/report.h"

namespace vesk::controller {

class ReportParser {
 public:
    /// Takes the child's next line: whole, with its level word and its trailing blanks, without the
    /// newline. True if it belongs to a report and so not into the log. Whatever is not just as a
    /// report has it is an ordinary line; where a report's own line is damaged, the report is given
    /// up and its remaining lines are ordinary ones too. The one line that is claimed on suspicion
    /// is the first, an info message without any text.
    bool feed(std::string_view line);

    /// The report that became whole since the last call, if any.
    std::optional<Report> takeReport();

    /// Forgets a report that has only begun. For a new child: the last words of the one before may
    /// have been cut off anywhere.
    void reset() { section_ = Section::none; }

 private:
    // In the order of the report. `opening` is the line that holds nothing but the level.
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
    /// What a line is to the report that is being read.
    enum class Verdict { foreign, taken, damaged };

    static std::optional<Section> headingOf(std::string_view line);
    Verdict takeHeading(Section heading, std::string_view line);
    Verdict takeRow(std::string_view line);
    bool endSection();

    Section section_ = Section::none;
    bool ended_ = false;  // the empty line behind the section has been seen
    Report partial_;
    std::optional<Report> whole_;
};

}  // namespace vesk::controller
