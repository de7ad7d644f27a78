// Keeps the right to change the packet filter in this process. Called by main before any child is
// started.
#pragma once

namespace vesk::controller {

/// Makes programs that this thread runs start without CAP_NET_ADMIN, unless the user is root.
void keepFilterRightFromChildren();

}  // namespace vesk::controller
