// Lets a test refuse messages of several datagrams as a kernel or a network device may.
//
// For test programs that are linked with -Wl,--wrap=sendmmsg.
#pragma once

namespace vesk::bench {

/// Makes sendmmsg stop at the first message of several datagrams, with this errno. 0 lets the
/// kernel decide.
void refuseMergedMessages(int error);

}  // namespace vesk::bench
