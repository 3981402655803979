// Packet buffer add+get next to the physical limit (memcpy of the same
// bytes), libavutil's AVFifo doing the same work, and what a quick
// implementation would do (std::deque<std::vector<uint8_t>> under a mutex).
// Sixteen packets in, sixteen out per iteration: the decode thread usually
// trails the receiver by a few packets. Allocations during the timed loop are
// counted (operator new for the baselines, the private heap for ours).
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

extern "C" {
#include <libavutil/fifo.h>
}

#include "heap/qmx_heap.h"
#include "queue/queue_packet.h"

namespace {
std::atomic<uint64_t> g_news{0};
}

// Counting replacements of the global allocation functions.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t n)
{
    ++g_news;
    if (void* p = std::malloc(n ? n : 1)) {
        return p;
    }
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept
{
    std::free(p);
}
void operator delete(void* p, size_t) noexcept
{
    std::free(p);
}
#pragma GCC diagnostic pop

namespace {

constexpr int kBurst = 16;

uint64_t Allocations()
{
    return g_news.load() + QMX_HeapAllocCount();
}

void Finish(benchmark::State& state, uint64_t allocsBefore)
{
    int64_t packets = state.iterations() * kBurst;
    state.SetItemsProcessed(packets);
    state.SetBytesProcessed(packets * state.range(0));
    state.counters["allocs/pkt"] = static_cast<double>(Allocations() - allocsBefore) / static_cast<double>(packets);
}

void BM_Memcpy(benchmark::State& state)
{
    const size_t size = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> src(size, 0x5A), mid(size * kBurst), dst(size);
    uint64_t before = Allocations();
    for (auto _ : state) {
        for (int i = 0; i < kBurst; ++i) {
            std::memcpy(mid.data() + i * size, src.data(), size);
        }
        for (int i = 0; i < kBurst; ++i) {
            std::memcpy(dst.data(), mid.data() + i * size, size);
            benchmark::DoNotOptimize(dst.data());
        }
    }
    Finish(state, before);
}

void BM_Korvalen(benchmark::State& state)
{
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    QUEUE_PACKET_BUFFER q;
    QUEUE_InitPacketBuffer(&q, 2048, 1000);
    std::vector<uint8_t> pkt(size, 0x5A);
    uint64_t before = Allocations();
    for (auto _ : state) {
        for (int i = 0; i < kBurst; ++i) {
            QUEUE_AddPacket(pkt.data(), size, &q);
        }
        for (int i = 0; i < kBurst; ++i) {
            uint8_t* out = nullptr;
            uint32_t len = 0;
            QUEUE_GetPacket(&q, &out, &len);
            benchmark::DoNotOptimize(out[len - 1]);
        }
    }
    Finish(state, before);
    QUEUE_ReleasePacketBuffer(&q);
}

void BM_AVFifo(benchmark::State& state)
{
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    AVFifo* f = av_fifo_alloc2(1000 * 2052, 1, 0);
    std::vector<uint8_t> pkt(size, 0x5A), out(size + 10000);
    uint64_t before = Allocations();
    for (auto _ : state) {
        for (int i = 0; i < kBurst; ++i) {
            av_fifo_write(f, &size, sizeof size);
            av_fifo_write(f, pkt.data(), size);
        }
        for (int i = 0; i < kBurst; ++i) {
            uint32_t len = 0;
            av_fifo_read(f, &len, sizeof len);
            av_fifo_read(f, out.data(), len);
            benchmark::DoNotOptimize(out[len - 1]);
        }
    }
    Finish(state, before);
    av_fifo_freep2(&f);
}

void BM_DequeMutex(benchmark::State& state)
{
    const size_t size = static_cast<size_t>(state.range(0));
    std::mutex m;
    std::deque<std::vector<uint8_t>> q;
    std::vector<uint8_t> pkt(size, 0x5A), out;
    uint64_t before = Allocations();
    for (auto _ : state) {
        for (int i = 0; i < kBurst; ++i) {
            std::lock_guard<std::mutex> lock(m);
            q.emplace_back(pkt);
        }
        for (int i = 0; i < kBurst; ++i) {
            std::lock_guard<std::mutex> lock(m);
            out = std::move(q.front());
            q.pop_front();
            benchmark::DoNotOptimize(out.data());
        }
    }
    Finish(state, before);
}

BENCHMARK(BM_Memcpy)->Arg(60)->Arg(1400);
BENCHMARK(BM_Korvalen)->Arg(60)->Arg(1400);
BENCHMARK(BM_AVFifo)->Arg(60)->Arg(1400);
BENCHMARK(BM_DequeMutex)->Arg(60)->Arg(1400);

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& r : runs) {
            std::string name = r.benchmark_name();
            std::string who = name.substr(3, name.find('/') - 3);
            int64_t arg = std::stoll(name.substr(name.find('/') + 1));
            nsPerPacket[{who, arg}] = r.GetAdjustedRealTime() / kBurst;
        }
    }
    std::map<std::pair<std::string, int64_t>, double> nsPerPacket;
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto& t = reporter.nsPerPacket;
    std::printf("\n%6s %12s %12s %10s %10s %14s %12s\n", "bytes", "Mpkt/s", "GB/s", "memcpy x", "AVFifo x",
                "deque+mutex x", "(x = time / korvalen time)");
    for (int64_t size : {60, 1400}) {
        double k = t[{"Korvalen", size}];
        if (k <= 0) {
            continue;
        }
        std::printf("%6lld %12.2f %12.2f %10.2f %10.2f %14.2f\n", static_cast<long long>(size), 1e3 / k, size / k,
                    t[{"Memcpy", size}] / k, t[{"AVFifo", size}] / k, t[{"DequeMutex", size}] / k);
    }
    std::printf("goal for 1400 bytes: memcpy x >= 0.5 (within 2x of memcpy), deque+mutex x >= 3\n");
    benchmark::Shutdown();
    return 0;
}
