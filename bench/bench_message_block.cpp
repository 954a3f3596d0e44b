// Message blocks: create a 1500-byte block from a packet, share it with a copy,
// read it out; the peer is what an engine would otherwise pass around,
// std::shared_ptr<std::vector<uint8_t>>.
#include <cstring>
#include <memory>
#include <vector>

#include "bench_support.h"

namespace {

constexpr unsigned long kPacket = 1500;

struct Packet {
    Packet() {
        for (unsigned long i = 0; i < kPacket; ++i) bytes[i] = static_cast<unsigned char>(i * 7);
    }
    unsigned char bytes[kPacket];
};

using SharedBytes = std::shared_ptr<std::vector<uint8_t>>;

SharedBytes MakeShared(const Packet& aPacket) {
    return std::make_shared<std::vector<uint8_t>>(aPacket.bytes, aPacket.bytes + kPacket);
}

void CreateLib(benchmark::State& aState) {
    Packet packet;
    for (auto _ : aState) {
        ComMessageBlock block(packet.bytes, kPacket);
        benchmark::DoNotOptimize(block);
    }
}

void CreateShared(benchmark::State& aState) {
    Packet packet;
    for (auto _ : aState) {
        SharedBytes block = MakeShared(packet);
        benchmark::DoNotOptimize(block);
    }
}

void CopyLib(benchmark::State& aState) {
    Packet packet;
    ComMessageBlock block(packet.bytes, kPacket);
    for (auto _ : aState) {
        ComMessageBlock copy(block);
        benchmark::DoNotOptimize(copy);
    }
}

void CopyShared(benchmark::State& aState) {
    Packet packet;
    SharedBytes block = MakeShared(packet);
    for (auto _ : aState) {
        SharedBytes copy(block);
        benchmark::DoNotOptimize(copy);
    }
}

// Reads every byte out without consuming, so the block can be read again.
void ReadLib(benchmark::State& aState) {
    Packet packet;
    ComMessageBlock block(packet.bytes, kPacket);
    unsigned char out[kPacket];
    bool ok = true;
    for (auto _ : aState) {
        ok &= block.Read(out, kPacket, false) == kPacket;
        benchmark::DoNotOptimize(out);
    }
    BENCH_REQUIRE(aState, ok && memcmp(out, packet.bytes, kPacket) == 0);
}

void ReadShared(benchmark::State& aState) {
    Packet packet;
    SharedBytes block = MakeShared(packet);
    unsigned char out[kPacket];
    for (auto _ : aState) {
        memcpy(out, block->data(), block->size());
        benchmark::DoNotOptimize(out);
    }
    BENCH_REQUIRE(aState, memcmp(out, packet.bytes, kPacket) == 0);
}

const bool kRegistered = [] {
    using bench::Name;
    benchmark::RegisterBenchmark(Name("msgblock_create", bench::kLib).c_str(), CreateLib);
    benchmark::RegisterBenchmark(Name("msgblock_create", bench::kSharedPtr).c_str(), CreateShared);
    benchmark::RegisterBenchmark(Name("msgblock_copy", bench::kLib).c_str(), CopyLib);
    benchmark::RegisterBenchmark(Name("msgblock_copy", bench::kSharedPtr).c_str(), CopyShared);
    benchmark::RegisterBenchmark(Name("msgblock_read", bench::kLib).c_str(), ReadLib);
    benchmark::RegisterBenchmark(Name("msgblock_read", bench::kSharedPtr).c_str(), ReadShared);
    return true;
}();

}  // namespace
