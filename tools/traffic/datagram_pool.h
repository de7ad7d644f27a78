// All datagrams of a run, framed and signed before it begins: one request and its reply for every
// number of the pool. If the flows move to other labels and keys during the run, there are two
// generations of numbers, one after the other. The payload begins with that number, which shows to
// which request an arrival belongs. The forwarder changes the header, but not the payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "lib/flow_plan.h"
#include "lib/framing.h"

namespace vesk::bench {

class DatagramPool {
 public:
    /// The flows take turns, each with `burst` consecutive numbers. `size` is a multiple of the
    /// number of flows times `burst`. `plans` has all flows once for each generation.
    DatagramPool(const FramingLayout& layout, const std::vector<FlowPlan>& plans,
                 std::size_t payloadSize, std::size_t size, std::size_t burst,
                 std::size_t generations = 1);

    /// How many numbers each generation has.
    std::size_t size() const { return size_; }
    /// How many numbers all of them have.
    std::size_t numbers() const { return size_ * generations_; }
    std::size_t datagramSize() const { return layout_.headerSize + payloadSize_; }
    const FlowPlan& planOf(std::size_t number) const {
        return plans_[number / size_ * flows() + flowOf(number)];
    }
    std::size_t flowOf(std::size_t number) const { return number % size_ / burst_ % flows(); }

    std::span<const std::byte> request(std::size_t number) const;
    std::span<const std::byte> reply(std::size_t number) const;

    /// The number in a datagram of this pool; none if it cannot be from this pool.
    std::optional<std::size_t> numberIn(std::span<const std::byte> datagram) const;

 private:
    std::size_t flows() const { return plans_.size() / generations_; }
    void fill(std::vector<std::byte>& images, bool replies, std::uint64_t seed);

    const FramingLayout& layout_;
    const std::vector<FlowPlan>& plans_;
    std::size_t payloadSize_;
    std::size_t size_;
    std::size_t burst_;
    std::size_t generations_;
    std::vector<std::byte> requests_;
    std::vector<std::byte> replies_;
};

}  // namespace vesk::bench
