#include <fcntl.h>
#include <unistd.h>

#include "log/log.h"
#include "support/require.h"

/// Makes the forwarder compose every message, since that code is tested too, and discards them all:
/// the fuzzer and `require` write to standard error.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    vesk::fuzz::require(nowhere != -1 && dup2(nowhere, STDOUT_FILENO) != -1, "log is silenced");
    close(nowhere);
    vesk::setLogLevelByName("trace");
    return 0;
}
