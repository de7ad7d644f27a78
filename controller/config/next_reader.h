// Reads the table `next` of a flow: the label and the keys to which its peers move. Called by
// config/flow_reader.
#pragma once

#include <cstdint>

#include "config/configuration.h"
#include "config/leg_reader.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// The greatest value of rotate_seconds, a year.
inline constexpr std::int64_t longestRotation = 31536000;

/// Reads the table as a flow of its own, which inherits from `flow` what two labels can share, and
/// enters its label in `flow`. What is missing and cannot be inherited is a problem.
Flow readNext(TableReader& table, Flow& flow, KeySources& keys);

}  // namespace vesk::controller
