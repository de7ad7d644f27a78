// The cost of the work on one datagram without system calls: parsing, relabelling, checking,
// signing.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <numeric>

#include "datapath/wire/authentication.h"
#include "datapath/wire/framing.h"
#include "datapath/wire/layout.h"
#include "flow/hmac_info.h"

namespace vesk::bench {
namespace {

using Buffer = std::array<std::uint8_t, maxDatagramSize>;

// A valid header of either framing, followed by arbitrary bytes.
Buffer makeDatagram(const FramingDescriptor& framing) {
    Buffer buffer;
    std::iota(buffer.begin(), buffer.end(), std::uint8_t{1});
    if (framing.headerLengthSize > 0) {
        buffer[framing.headerLengthOffset] = 0;
        buffer[framing.headerLengthOffset + 1] = static_cast<std::uint8_t>(framing.minHeaderSize);
    }
    return buffer;
}

HmacInfo makeKey(const HmacAlgorithm& algorithm) {
    HmacInfo key;
    std::array<std::uint8_t, 32> bytes;
    bytes.fill(0x5a);
    key.setKey(bytes);
    key.setAlgorithm(algorithm);
    return key;
}

void parse(benchmark::State& state, const FramingDescriptor& framing) {
    const Buffer buffer = makeDatagram(framing);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(parseDatagram(framing, buffer, 532));
    }
}

void relabel(benchmark::State& state) {
    Buffer buffer = makeDatagram(framingV2);
    for ([[maybe_unused]] auto _ : state) {
        rewriteLabel(framingV2, buffer, 0x12345678);
        benchmark::ClobberMemory();
    }
}

void sign(benchmark::State& state, const HmacAlgorithm& algorithm) {
    Buffer buffer = makeDatagram(framingV2);
    HmacInfo key = makeKey(algorithm);
    const std::size_t length = framingV2.minHeaderSize + static_cast<std::size_t>(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(
            signDatagram(framingV2, buffer, framingV2.minHeaderSize, length, key));
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void check(benchmark::State& state, const HmacAlgorithm& algorithm) {
    Buffer buffer = makeDatagram(framingV2);
    HmacInfo key = makeKey(algorithm);
    const std::size_t length = framingV2.minHeaderSize + static_cast<std::size_t>(state.range(0));
    signDatagram(framingV2, buffer, framingV2.minHeaderSize, length, key);
    for ([[maybe_unused]] auto _ : state) {
        if (!checkDatagram(framingV2, buffer, framingV2.minHeaderSize, length, key)) {
            state.SkipWithError("its own signature fails the check");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK_CAPTURE(parse, udpv1, framingV1);
BENCHMARK_CAPTURE(parse, udpv2, framingV2);
BENCHMARK(relabel);
BENCHMARK_CAPTURE(sign, sha1, hmacSha1)->Arg(64)->Arg(512)->Arg(1200);
BENCHMARK_CAPTURE(sign, sha256, hmacSha256)->Arg(64)->Arg(512)->Arg(1200);
BENCHMARK_CAPTURE(check, sha256, hmacSha256)->Arg(64)->Arg(512)->Arg(1200);

}  // namespace
}  // namespace vesk::bench
