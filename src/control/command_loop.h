// The command loop: reads the lines of the controlling service until the end of input. Runs on the
// main thread.
#pragma once

#include <cstdio>
#include <functional>
#include <string_view>

namespace vesk {

using LineDispatcher = std::function<void(std::string_view line)>;

/// Passes each line of `input`, without its newline, to the dispatcher; the last line may lack a
/// newline. Always 0. The end of input is logged, a read error is not.
int cltMessageLoop(const LineDispatcher& dispatch, std::FILE* input);

}  // namespace vesk
