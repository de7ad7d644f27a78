// The command loop: reads the controlling service's lines until there are no more. Runs on the main
// thread.
#pragma once

#include <cstdio>
#include <functional>
#include <string_view>

namespace vesk {

using LineDispatcher = std::function<void(std::string_view line)>;

/// Hands each line of `input`, without its newline, to the dispatcher; a last line may lack its
/// newline. 0 at end of input, and as well, without its log line, after a read error.
int cltMessageLoop(const LineDispatcher& dispatch, std::FILE* input);

}  // namespace vesk
