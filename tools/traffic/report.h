// Prints the result of a run, as a table or as JSON. Called by main.
#pragma once

#include <iosfwd>

#include "traffic/options.h"
#include "traffic/traffic_run.h"

namespace vesk::bench {

void printTable(std::ostream& out, const TrafficOptions& options, const TrafficResult& result);
void printJson(std::ostream& out, const TrafficOptions& options, const TrafficResult& result);

}  // namespace vesk::bench
