// Forwards a datagram to the instance that owns its label. Called on the downstream and the lateral
// receive thread.
#pragma once

#include <cstdint>
#include <optional>

#include "datapath/received_datagram.h"

namespace vesk {

struct ForwarderContext;
struct LateralStream;

/// The index of the instance that owns the label; none if this instance owns it or the lateral
/// stream does not run.
std::optional<std::uint32_t> foreignOwner(const LateralStream& lateral, std::uint32_t label);

/// Sends the datagram with a lateral header to its owner, and counts the result. False, with
/// nothing counted, if it cannot be forwarded: it already came over the lateral stream, or the
/// owner or the lateral endpoint is missing.
bool handOverToOwner(const ReceivedDatagram& datagram, std::uint32_t owner,
                     ForwarderContext& context);

}  // namespace vesk
