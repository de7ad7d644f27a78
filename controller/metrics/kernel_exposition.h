// The kernel's figures by name, and what is counted of the log; each help text has the unit and the
// setting that mends what is wrong. Called by metrics/exposition for each scrape.
#pragma once

#include "kernel/kernel_figures.h"
#include "metrics/families.h"
#include "metrics/log_events.h"

namespace vesk::controller {

/// What is missing from the figures has no series.
void addKernelFigures(Families& families, const KernelFigures& figures);

void addLogEvents(Families& families, const LogEventCounts& counts);

}  // namespace vesk::controller
