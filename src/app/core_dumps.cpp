#include "app/core_dumps.h"

#include <sys/resource.h>

#include <cerrno>

#include "log/error_text.h"
#include "log/log.h"

namespace vesk {

namespace {

void raiseToHardLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_CORE, &limit) != 0) {
        logError("allowCoreDumps: failed to discover core size limit, ", errorText(errno));
        return;
    }
    logInfo("allowCoreDumps: core size limit is ", limit.rlim_cur, ", max is ", limit.rlim_max);
    if (limit.rlim_cur == limit.rlim_max) {
        return;
    }
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_CORE, &limit) != 0) {
        logWarn("allowCoreDumps: failed to raise core size limit, ", errorText(errno));
        return;
    }
    logInfo("allowCoreDumps: raised core size limit to ", limit.rlim_cur);
}

}  // namespace

void allowCoreDumps() {
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_CORE, &unlimited) == 0) {
        logInfo("allowCoreDumps: removed core size limit");
        return;
    }
    logWarn("allowCoreDumps: failed to remove core size limit, ", errorText(errno));
    raiseToHardLimit();
}

}  // namespace vesk
