// Bytes in, whole lines out. Called by child/forwarder_session with what the child's pipe gives.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vesk::controller {

class LineSplitter {
 public:
    /// The lines that are complete now, without their newlines.
    std::vector<std::string> feed(std::string_view bytes);

    /// What stands behind the last newline; to be asked for at the end of the input.
    std::string takeRest();

 private:
    std::string rest_;
};

}  // namespace vesk::controller
