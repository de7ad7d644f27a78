#include "traffic/datagram_pool.h"

#include <random>

#include "lib/authentication.h"

namespace vesk::bench {

DatagramPool::DatagramPool(const FramingLayout& layout, const std::vector<FlowPlan>& plans,
                           std::size_t payloadSize, std::size_t size, std::size_t burst,
                           std::size_t generations)
    : layout_(layout),
      plans_(plans),
      payloadSize_(payloadSize),
      size_(size),
      burst_(burst),
      generations_(generations) {
    fill(requests_, false, 1);
    fill(replies_, true, 2);
}

std::span<const std::byte> DatagramPool::request(std::size_t number) const {
    return std::span(requests_).subspan(number * datagramSize(), datagramSize());
}

std::span<const std::byte> DatagramPool::reply(std::size_t number) const {
    return std::span(replies_).subspan(number * datagramSize(), datagramSize());
}

std::optional<std::size_t> DatagramPool::numberIn(std::span<const std::byte> datagram) const {
    if (datagram.size() != datagramSize()) {
        return std::nullopt;
    }
    const std::size_t number = readNumber(datagram.subspan(layout_.headerSize));
    return number < numbers() ? std::optional(number) : std::nullopt;
}

void DatagramPool::fill(std::vector<std::byte>& images, bool replies, std::uint64_t seed) {
    images.resize(numbers() * datagramSize());
    std::mt19937_64 random(seed);
    for (std::size_t number = 0; number < numbers(); ++number) {
        const auto datagram = std::span(images).subspan(number * datagramSize(), datagramSize());
        const FlowPlan& plan = planOf(number);
        writeHeaderLength(layout_, datagram);
        // A service replies with the label under which the flow is declared.
        writeLabel(layout_, datagram, plan.label);
        const auto payload = datagram.subspan(layout_.headerSize);
        for (std::byte& byte : payload) {
            byte = static_cast<std::byte>(random());
        }
        writeNumber(payload, static_cast<std::uint32_t>(number));
        OneCallHmac hmac(replies ? plan.upIn : plan.downIn);
        signDatagram(hmac, layout_, datagram, layout_.headerSize);
    }
}

}  // namespace vesk::bench
