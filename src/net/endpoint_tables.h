// The two tables in which endpoints are looked up for datagrams, stored as arrays: a look-up reads
// few cache lines, whereas a tree reads one for each step. Part of the endpoint registry; guarded
// by the endpoint manager's lock.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "net/endpoint.h"

namespace vesk {

/// Endpoints by socket descriptor. Descriptors are small numbers that the kernel reuses, so the
/// number is the index.
class DescriptorTable {
 public:
    /// False, and no change, if the descriptor is already filed or is negative.
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

    /// False, and no change, if the label already has an endpoint.
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
    /// The position of the label, or that at which it would be inserted.
    std::size_t position(std::uint32_t label) const;

    /// The labels of the rows, stored separately so that a search reads labels only.
    std::vector<std::uint32_t> labels_;
    Rows rows_;
};

}  // namespace vesk
