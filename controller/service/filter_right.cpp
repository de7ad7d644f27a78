#include "service/filter_right.h"

#include <linux/capability.h>
#include <sys/prctl.h>

namespace vesk::controller {

void keepFilterRightFromChildren() {
    // It fails if the kernel has no ambient capabilities. Then none are passed on.
    static_cast<void>(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_LOWER, CAP_NET_ADMIN, 0, 0));
}

}  // namespace vesk::controller
