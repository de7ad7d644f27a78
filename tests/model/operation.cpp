#include "operation.h"

#include <array>
#include <string_view>

#include "arming_model.h"

namespace vesk::model {

namespace {

using Kind = Operation::Kind;

constexpr std::array<std::string_view, 14> names{
    "arrive",  "create", "remove", "wake",    "deal",   "collect",      "begin",
    "receive", "fill",   "finish", "endPass", "refuse", "fail for now", "fail permanently"};

}  // namespace

std::string nameOf(const Operation& operation) {
    return std::string(names.at(static_cast<std::size_t>(operation.kind))) + " " +
           std::to_string(operation.which);
}

const std::vector<Operation>& allOperations() {
    static const std::vector<Operation> operations = [] {
        std::vector<Operation> all{{Kind::create}, {Kind::wake}};
        for (const Kind kind : {Kind::arrive, Kind::remove}) {
            for (std::uint8_t endpoint = 0; endpoint < maxEndpoints; ++endpoint) {
                all.push_back({kind, endpoint});
            }
        }
        for (const Kind kind :
             {Kind::deal, Kind::collect, Kind::begin, Kind::receive, Kind::fill, Kind::finish,
              Kind::endPass, Kind::refuse, Kind::failForNow, Kind::failForGood}) {
            all.push_back({kind, 0});
            all.push_back({kind, 1});
        }
        return all;
    }();
    return operations;
}

}  // namespace vesk::model
