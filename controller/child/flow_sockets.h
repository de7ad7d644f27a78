// Finds out from the forwarder's log which flow a descriptor belongs to. Called by
// service/instance, which keeps the result for each child.
#pragma once

#include <string_view>

#include "kernel/kernel_figures.h"

namespace vesk::controller {

/// Takes a line "Created upstream endpoint: label 0xHEX/DECIMAL sockfds READ WRITE", or its form
/// for a multiplexed flow, and stores both descriptors under the label. A damaged line leaves
/// `flows` unchanged.
void noteCreatedEndpoint(std::string_view text, FlowDescriptors& flows);

}  // namespace vesk::controller
