// What a run has to say, for people and for programs.
#pragma once

#include <iosfwd>

#include "traffic/options.h"
#include "traffic/traffic_run.h"

namespace vesk::bench {

void printTable(std::ostream& out, const TrafficOptions& options, const TrafficResult& result);
void printJson(std::ostream& out, const TrafficOptions& options, const TrafficResult& result);

}  // namespace vesk::bench
