// What a test sees of attributes that were parsed.
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
