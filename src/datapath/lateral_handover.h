// Handing a datagram over to the instance that owns its label. Called by the downstream and the
// lateral receive thread.
#pragma once

#include <cstdint>
#include <optional>

#include "datapath/received_datagram.h"

namespace vesk {

struct ForwarderContext;
struct LateralStream;

/// The index of the instance that owns the label, where that is another one than this.
std::optional<std::uint32_t> foreignOwner(const LateralStream& lateral, std::uint32_t label);

/// Sends the datagram to its owner with a lateral header in front, and counts what came of it.
/// False, with nothing counted, where it has no way there: it came over the lateral stream already,
/// or the owner is not known.
bool handOverToOwner(const ReceivedDatagram& datagram, std::uint32_t owner,
                     ForwarderContext& context);

}  // namespace vesk
