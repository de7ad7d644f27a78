// The result of parsing attributes, as tests compare it.
#pragma once

#include <string>

#include "flow/flow_desc.h"

namespace vesk {

struct ParsedAttributes {
    bool accepted = false;
    std::string printed;
    FlowDesc scratch;
};

}  // namespace vesk
