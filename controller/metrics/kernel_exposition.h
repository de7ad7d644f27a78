// Defines the metrics of the kernel's figures and of counted log lines; each help text has the unit
// and the setting that corrects a bad value. Called by metrics/exposition for each scrape.
#pragma once

#include "kernel/kernel_figures.h"
#include "metrics/families.h"
#include "metrics/log_event.h"

namespace vesk::controller {

/// A figure that is empty has no series.
void addKernelFigures(Families& families, const KernelFigures& figures);

void addLogEvents(Families& families, const LogEventCounts& counts);

}  // namespace vesk::controller
