#include "traffic/report.h"

#include <iomanip>
#include <ostream>
#include <vector>

#include "lib/clocks.h"

namespace vesk::bench {
namespace {

struct Figure {
    const char* key;    // in JSON
    const char* title;  // in the table
    double value;
    int decimals;
    const char* unit;
};

double microseconds(double nanoseconds) {
    return nanoseconds / 1000;
}

double count(std::uint64_t value) {
    return static_cast<double>(value);
}

void addMoveFigures(const RequestCounts& requests, std::vector<Figure>& figures) {
    figures.push_back(
        {"next_sent", "requests sent after the move", count(requests.nextSent), 0, ""});
    figures.push_back({"next_answered", "of these, answered", count(requests.nextAnswered), 0, ""});
}

void addProcessFigures(const TrafficResult& result, const ProcessUsage& usage,
                       std::vector<Figure>& figures) {
    const auto forwarded = count(result.arrivals.upstream + result.arrivals.peers);
    const auto cpu = static_cast<double>(usage.cpuNanoseconds);
    figures.push_back({"cpu_share", "processor share of the forwarder",
                       100 * cpu / static_cast<double>(result.elapsed), 1, "%"});
    figures.push_back({"cpu_us_per_datagram", "processor time per datagram",
                       forwarded > 0 ? microseconds(cpu) / forwarded : 0, 3, "us"});
    figures.push_back({"waits_per_datagram", "waits of its threads per datagram",
                       forwarded > 0 ? count(usage.waits) / forwarded : 0, 3, ""});
    figures.push_back(
        {"resident_kib", "memory of the forwarder", count(usage.residentBytes) / 1024, 0, "KiB"});
}

std::vector<Figure> figures(const TrafficOptions& options, const TrafficResult& result) {
    const double seconds = static_cast<double>(result.elapsed) / nanosecondsPerSecond;
    const auto roundTrip = [&](double fraction) {
        return microseconds(result.roundTrips.percentile(fraction));
    };
    std::vector<Figure> figures{
        {"sent", "requests sent", count(result.requests.sent), 0, ""},
        {"answered", "answered", count(result.requests.answered), 0, ""},
        {"lost", "lost", count(result.requests.lost), 0, ""},
        {"most_lost", "lost of one flow, at most", count(result.requests.mostLost), 0, ""},
        {"late", "answered after all", count(result.requests.late), 0, ""},
        {"wrong", "wrong", count(result.arrivals.wrong), 0, ""},
        {"unexpected", "unexpected", count(result.arrivals.unexpected), 0, ""},
        {"wrong_source", "from a wrong address", count(result.arrivals.wrongSource), 0, ""},
        {"verified", "arrivals verified whole", count(result.arrivals.verified), 0, ""},
        {"skipped", "requests behind schedule", count(result.skipped), 0, ""},
        {"merged_sends", "messages of several datagrams", count(result.mergedSends), 0, ""},
        {"seconds", "measured time", seconds, 3, "s"},
        {"opening_ms", "opening all flows",
         microseconds(microseconds(count(static_cast<std::uint64_t>(result.opening)))), 1, "ms"},
        {"request_rate", "requests arrived", count(result.arrivals.upstream) / seconds, 0, "/s"},
        {"reply_rate", "replies arrived", count(result.arrivals.peers) / seconds, 0, "/s"},
        {"p50_us", "round trip p50", roundTrip(0.5), 1, "us"},
        {"p90_us", "round trip p90", roundTrip(0.9), 1, "us"},
        {"p99_us", "round trip p99", roundTrip(0.99), 1, "us"},
        {"p999_us", "round trip p99.9", roundTrip(0.999), 1, "us"},
        {"longest_us", "round trip longest", roundTrip(1), 1, "us"},
    };
    if (options.nextLabel != 0) {
        addMoveFigures(result.requests, figures);
    }
    if (result.usage) {
        addProcessFigures(result, *result.usage, figures);
    }
    return figures;
}

}  // namespace

void printTable(std::ostream& out, const TrafficOptions& options, const TrafficResult& result) {
    out << options.framing->name << ", " << options.flows.flows << " flows over " << options.peers
        << " peers, " << options.payload << " bytes of payload, ";
    if (options.rate > 0) {
        out << options.rate << " requests a second";
    } else {
        out << options.window << " requests outstanding";
    }
    if (options.burst > 1) {
        out << " in bursts of " << options.burst;
    }
    out << (options.mergeSends ? ", sends merged" : "");
    out << (options.oneWay ? ", one way\n" : "\n");
    for (const Figure& figure : figures(options, result)) {
        out << "  " << std::left << std::setw(34) << figure.title << std::right << std::fixed
            << std::setprecision(figure.decimals) << std::setw(14) << figure.value << ' '
            << figure.unit << '\n';
    }
}

void printJson(std::ostream& out, const TrafficOptions& options, const TrafficResult& result) {
    out << "{\"framing\": \"" << options.framing->name << "\", \"flows\": " << options.flows.flows
        << ", \"peers\": " << options.peers << ", \"payload\": " << options.payload
        << ", \"rate\": " << options.rate << ", \"window\": " << options.window
        << ", \"burst\": " << options.burst << std::boolalpha
        << ", \"merge_sends\": " << options.mergeSends << ", \"one_way\": " << options.oneWay;
    for (const Figure& figure : figures(options, result)) {
        out << ", \"" << figure.key << "\": " << std::fixed << std::setprecision(figure.decimals)
            << figure.value;
    }
    out << "}\n";
}

}  // namespace vesk::bench
