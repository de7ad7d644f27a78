// The two tables that every datagram is looked up in, laid out flat: a look-up touches few cache
// lines, where a tree's touches one for each step. Without a lock of their own; the endpoint
// manager's guards them.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "net/endpoint.h"

namespace vesk {

/// Endpoints by socket descriptor. Descriptors are small numbers that the kernel uses again, so the
/// number is the index.
class DescriptorTable {
 public:
    /// False, and no change, where the descriptor is filed already or is none.
    bool insert(int fd, const EndpointPtr& endpoint);
    void erase(int fd);
    /// Empty when absent.
    EndpointPtr find(int fd) const;

 private:
    std::vector<EndpointPtr> byFd_;
};

/// Endpoints in ascending order of their labels.
class LabelTable {
 public:
    using Rows = std::vector<EndpointPtr>;

    /// False, and no change, where the label has an endpoint already.
    bool insert(const EndpointPtr& endpoint);
    /// Takes the label's endpoint out; empty when absent.
    EndpointPtr take(std::uint32_t label);
    /// Takes out all endpoints that `chosen` is true for, in one pass and in ascending order.
    Rows takeIf(const std::function<bool(VeskEndpointDescriptor& endpoint)>& chosen);
    /// Empty when absent.
    EndpointPtr find(std::uint32_t label) const;
    bool contains(std::uint32_t label) const;

    const Rows& rows() const { return rows_; }

 private:
    /// Where the label stands or belongs.
    std::size_t position(std::uint32_t label) const;

    /// Apart from the rows, so that a search reads labels only.
    std::vector<std::uint32_t> labels_;
    Rows rows_;
};

}  // namespace vesk
