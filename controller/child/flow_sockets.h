// Which flow a socket of the forwarder belongs to: its log says so when a flow opens one. Kept by
// service/supervisor, one for each child.
#pragma once

#include <string_view>

#include "kernel/kernel_figures.h"

namespace vesk::controller {

/// Takes in a line "Created upstream endpoint: label 0xHEX/DECIMAL sockfds READ WRITE", or its form
/// for a multiplexed flow: both descriptors are those of the label from here on. Leaves `flows` as
/// it is where the line is damaged.
void noteCreatedEndpoint(std::string_view text, FlowDescriptors& flows);

}  // namespace vesk::controller
