#include <fcntl.h>
#include <unistd.h>

#include "log/log.h"
#include "support/require.h"

/// Lets every message be composed, since that is code too, and none of them be seen: the fuzzer and
/// `require` speak on standard error.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    vesk::fuzz::require(nowhere != -1 && dup2(nowhere, STDOUT_FILENO) != -1, "log is silenced");
    close(nowhere);
    vesk::setLogLevelByName("trace");
    return 0;
}
