// Packet buffer throughput next to libavutil's AVFifo doing the same work:
// add one length-prefixed packet, take it out again into a caller buffer.
// Prints the time ratio per packet size after the benchmark table.
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

#include <benchmark/benchmark.h>

extern "C" {
#include <libavutil/fifo.h>
}

#include "platform/qmx_heap.h"
#include "queue/queue_packet.h"

namespace {

void Record(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * 16);
    state.SetBytesProcessed(state.iterations() * 16 * state.range(0));
}

// Sixteen packets in, sixteen out per iteration: the decode thread usually
// trails the receiver by a few packets.
void BM_KorvalenQueue(benchmark::State& state)
{
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    QUEUE_PACKET_BUFFER q;
    QUEUE_InitPacketBuffer(&q, 2048, 1000);
    std::vector<uint8_t> pkt(size, 0x5A);
    for (auto _ : state) {
        for (int i = 0; i < 16; ++i) {
            QUEUE_AddPacket(pkt.data(), size, &q);
        }
        for (int i = 0; i < 16; ++i) {
            uint8_t* out = nullptr;
            uint32_t len = 0;
            QUEUE_GetPacket(&q, &out, &len);
            benchmark::DoNotOptimize(out[len - 1]);
        }
    }
    QUEUE_ReleasePacketBuffer(&q);
    Record(state);
}

void BM_FFmpegFifo(benchmark::State& state)
{
    const uint32_t size = static_cast<uint32_t>(state.range(0));
    AVFifo* f = av_fifo_alloc2(1000 * 2052, 1, 0);
    std::vector<uint8_t> pkt(size, 0x5A);
    std::vector<uint8_t> out(size + 10000);
    for (auto _ : state) {
        for (int i = 0; i < 16; ++i) {
            av_fifo_write(f, &size, sizeof size);
            av_fifo_write(f, pkt.data(), size);
        }
        for (int i = 0; i < 16; ++i) {
            uint32_t len = 0;
            av_fifo_read(f, &len, sizeof len);
            av_fifo_read(f, out.data(), len);
            benchmark::DoNotOptimize(out[len - 1]);
        }
    }
    av_fifo_freep2(&f);
    Record(state);
}

BENCHMARK(BM_KorvalenQueue)->Arg(188)->Arg(1400)->Arg(6000);
BENCHMARK(BM_FFmpegFifo)->Arg(188)->Arg(1400)->Arg(6000);

// Collects the per-iteration times so the ratio can be printed.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& r : runs) {
            std::string name = r.benchmark_name();
            std::string who = name.find("Korvalen") != std::string::npos ? "korvalen" : "ffmpeg";
            int64_t arg = std::stoll(name.substr(name.find('/') + 1));
            times[{who, arg}] = r.GetAdjustedRealTime() / 16.0;
        }
    }
    std::map<std::pair<std::string, int64_t>, double> times;
};

} // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\npacket size   korvalen ns/pkt   ffmpeg ns/pkt   ratio (korvalen / ffmpeg)\n");
    for (int64_t size : {188, 1400, 6000}) {
        auto k = reporter.times.find({"korvalen", size});
        auto f = reporter.times.find({"ffmpeg", size});
        if (k != reporter.times.end() && f != reporter.times.end() && f->second > 0) {
            std::printf("%11lld   %15.1f   %13.1f   %.2f\n", static_cast<long long>(size), k->second, f->second,
                        k->second / f->second);
        }
    }
    benchmark::Shutdown();
    return 0;
}
