// The operations that both the model and the forwarder execute.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vesk::model {

struct Operation {
    enum class Kind : std::uint8_t {
        arrive,
        create,
        remove,
        wake,
        deal,
        collect,
        begin,
        receive,
        // A receive call that returns as many datagrams as the batch has room for.
        fill,
        finish,
        endPass,
        // A receive call that fails with ECONNREFUSED, with a passing error, or with another error.
        refuse,
        failForNow,
        failForGood
    };
    Kind kind;
    /// A worker or an endpoint.
    std::uint8_t which = 0;
};

std::string nameOf(const Operation& operation);

/// Every operation, whether it is currently possible or not.
const std::vector<Operation>& allOperations();

}  // namespace vesk::model
