// Defines the metrics of each instance, which are distinguished by the label `instance`. Called by
// MetricsServer for each scrape if there are several instances.
#pragma once

#include <vector>

#include "metrics/families.h"
#include "metrics/instance_figures.h"

namespace vesk::controller {

/// The sums of all instances are metrics of other names, so that a query that adds up the series of
/// one name counts nothing twice.
void addInstances(Families& families, const std::vector<InstanceFigures>& instances);

}  // namespace vesk::controller
