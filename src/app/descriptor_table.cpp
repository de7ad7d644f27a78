#include "app/descriptor_table.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "base/unique_fd.h"

namespace vesk {

void reserveDescriptorTable() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == 0) {
        return;
    }
    const auto size = std::min<rlim_t>(limit.rlim_cur, maxReservedDescriptors);
    // The table keeps its size when the descriptor is closed.
    const UniqueFd highest(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, static_cast<int>(size) - 1));
}

}  // namespace vesk
