#include "support/datagram_choice.h"

namespace vesk::fuzz {

Bytes nextDatagram(ByteReader& input, unsigned choice, int version, Towards side) {
    const std::size_t length = input.byte();
    Bytes payload = toBytes(input.take(length));
    if ((choice & paddedToTheLimit) != 0) {
        payload.resize(maxDatagramSize - length % 64, 0x5A);
    }
    if ((choice & asItIs) != 0) {
        return payload;
    }
    const std::uint32_t label = someLabels().at(choice % 8);
    Bytes framed = framedDatagram(version, label, payload);
    const auto flow = LoopbackForwarder::flowOf(label);
    const bool signable = readFramed(version, framed) && framed.size() <= maxDatagramSize;
    if ((choice & wellSigned) == 0 || !flow || !signable) {
        return framed;
    }
    return signedWith(version, framed, side == Towards::upstream ? *flow->down : *flow->up);
}

ReturnPath someReturnPath() {
    Bytes bytes(33, 0x77);
    bytes.front() = 32;
    return ReturnPath(bytes);
}

}  // namespace vesk::fuzz
