// Reads the names of the lateral peers, which are resolved while the controller runs. Called by
// config/lateral_reader.
#pragma once

#include "config/configuration.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// Reads peers_from, which the table has, into the stream, whose port, index and number of
/// instances have been read. The instances of this host are left out.
void readPeerNames(TableReader& table, Lateral& lateral);

}  // namespace vesk::controller
