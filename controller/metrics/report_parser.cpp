#include "metrics/report_parser.h"

#include <array>
#include <charconv>
#include <span>
#include <utility>

namespace vesk::controller {

namespace {

// In the order of ReportParser::Section, without its `none`.
constexpr std::array<std::string_view, 8> headings{"info ",
                                                   "Poll stats:",
                                                   "info Upstream Stats:",
                                                   "info RcvThrStats: ",
                                                   "info SndThrStats ",
                                                   "info EptNr:",
                                                   "info Downstream Stats:",
                                                   "info Lateral Stats:"};

// The text before each figure of a socket, in the order of datagramFields. The child writes the
// rows of flows without some of the colons.
constexpr std::array<std::string_view, 4> downstreamTexts{
    "RxDg:", ",TxDg:", ",RxDgError:", ",TxDgDropped:"};
constexpr std::array<std::string_view, 6> lateralTexts{
    "RxDg:", ",TxDg:", ",RxDgError:", ",TxDgDropped:", ",DnTxDg:", ",DnTxDgDropped:"};
constexpr std::array<std::string_view, 6> flowTexts{",RxDg:",       ",TxDg:",   ",RxDgError",
                                                    ",TxDgDropped", ",DnTxDg:", ",DnTxDgDropped:"};

// Removes `name` and the decimal number after it from the front of the text. False if the text
// begins otherwise, or the number does not fit the type.
template <typename Number>
bool takeFigure(std::string_view& text, std::string_view name, Number& number) {
    if (!text.starts_with(name)) {
        return false;
    }
    text.remove_prefix(name.size());
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

// The line must consist of these figures; other members of `counters` stay 0.
bool parseSocket(std::string_view line, std::span<const std::string_view> names,
                 DatagramCounters& counters) {
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (!takeFigure(line, names[i], counters.*datagramFields.at(i))) {
            return false;
        }
    }
    return line.empty();
}

bool parseOnlySocket(std::string_view line, std::span<const std::string_view> names,
                     std::optional<DatagramCounters>& socket) {
    return !socket && parseSocket(line, names, socket.emplace());
}

bool parsePoll(std::string_view line, std::optional<PollCounters>& poll) {
    PollCounters counters;
    std::uint32_t armed = 0;
    const bool good = !poll && takeFigure(line, "ActiveEvtNr:", armed) &&
                      takeFigure(line, " RdReadyNr:", counters.readEvents) &&
                      takeFigure(line, " WrReadyNr:", counters.writeEvents) &&
                      takeFigure(line, " ErrorNr:", counters.errorEvents) && line.empty();
    counters.armedSockets = static_cast<std::int32_t>(armed);
    poll = counters;
    return good;
}

bool parseFlow(std::string_view line, std::vector<FlowRow>& flows) {
    FlowRow row;
    if (!takeFigure(line, "Label:", row.label) || !parseSocket(line, flowTexts, row.counters)) {
        return false;
    }
    // A label that occurs twice would be counted twice.
    const bool ascends = flows.empty() || flows.back().label < row.label;
    flows.push_back(row);
    return ascends;
}

bool parseWorkers(std::string_view figures, std::vector<WorkerCounters>& workers) {
    while (!figures.empty()) {
        WorkerCounters& worker = workers.emplace_back();
        if (!takeFigure(figures, "WakeNr:", worker.wakeUps) ||
            !takeFigure(figures, ",ReadyFdNr:", worker.queuedSockets) ||
            !takeFigure(figures, ",DgNr:", worker.received) || !figures.starts_with(' ')) {
            return false;
        }
        figures.remove_prefix(1);
    }
    return true;
}

bool parseTotals(std::string_view figures, EndpointTotals& totals) {
    return takeFigure(figures, "", totals.sockets) &&
           takeFigure(figures, ",RxDg:", totals.received) &&
           takeFigure(figures, ",TxDg:", totals.sent) && figures.empty();
}

}  // namespace

bool ReportParser::feed(std::string_view line) {
    if (line == headings.front()) {
        partial_ = {};
        section_ = Section::opening;
        return true;
    }
    if (section_ == Section::none) {
        return false;
    }
    if (line.empty()) {
        return endSection();
    }
    const std::optional<Section> heading = headingOf(line);
    const Verdict verdict = heading ? takeHeading(*heading, line) : takeRow(line);
    if (verdict == Verdict::damaged) {
        reset();
    }
    return verdict == Verdict::taken;
}

std::optional<Report> ReportParser::takeReport() {
    return std::exchange(whole_, std::nullopt);
}

std::optional<ReportParser::Section> ReportParser::headingOf(std::string_view line) {
    for (std::size_t i = 1; i < headings.size(); ++i) {
        if (line.starts_with(headings.at(i))) {
            return static_cast<Section>(i + 1);
        }
    }
    return std::nullopt;
}

ReportParser::Verdict ReportParser::takeHeading(Section heading, std::string_view line) {
    const auto place = static_cast<std::size_t>(heading);
    if (place != static_cast<std::size_t>(section_) + 1) {
        return Verdict::damaged;
    }
    section_ = heading;
    ended_ = false;
    const std::string_view figures = line.substr(headings.at(place - 1).size());
    bool good = false;
    if (heading == Section::receivers) {
        good = parseWorkers(figures, partial_.workers);
    } else if (heading == Section::totals) {
        good = parseTotals(figures, partial_.totals);
    } else {
        // No figures follow the other headings. That of the sending workers has none because such
        // workers do not exist.
        good = figures.empty();
    }
    return good ? Verdict::taken : Verdict::damaged;
}

ReportParser::Verdict ReportParser::takeRow(std::string_view line) {
    bool good = false;
    if (line.starts_with("ActiveEvtNr:")) {
        good = section_ == Section::poll && parsePoll(line, partial_.poll);
    } else if (line.starts_with("Label:")) {
        good = section_ == Section::upstream && parseFlow(line, partial_.flows);
    } else if (line.starts_with("RxDg:")) {
        good =
            (section_ == Section::downstream &&
             parseOnlySocket(line, downstreamTexts, partial_.downstream)) ||
            (section_ == Section::lateral && parseOnlySocket(line, lateralTexts, partial_.lateral));
    } else {
        return Verdict::foreign;
    }
    return good ? Verdict::taken : Verdict::damaged;
}

bool ReportParser::endSection() {
    if (ended_ || section_ == Section::opening) {
        return false;
    }
    ended_ = true;
    if (section_ == Section::lateral) {
        // The child counts the rows that it writes, so a missing row is detected here.
        if (partial_.totals.sockets == partial_.flows.size()) {
            whole_ = std::move(partial_);
        }
        section_ = Section::none;
    }
    return true;
}

}  // namespace vesk::controller
