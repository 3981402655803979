#include "source/push/push_source.h"

#include "heap/qmx_heap.h"
#include "net/net_socket.h"

namespace {

// The caller's thread waits up to a second for room in a full packet buffer.
constexpr uint32_t kFullRetries = 100;
constexpr uint32_t kFullLogEvery = 1000;

struct PushSource {
    SOURCE_SINK sink;
    NET_BITRATE bitrate{};
};

uint32_t Open(const void*, const SOURCE_SINK* sink, void** state)
{
    PushSource* src = QMX_New<PushSource>();
    if (!src) {
        return KORVALEN_ERR_NO_MEMORY;
    }
    src->sink = *sink;
    NET_StatClock(&src->bitrate.startSec, &src->bitrate.startMs);
    *state = src;
    return KORVALEN_OK;
}

void Close(void* state)
{
    QMX_Delete(static_cast<PushSource*>(state));
}

void Stats(void* state, SOURCE_STATS* out)
{
    out->bitRate = NET_Published(static_cast<PushSource*>(state)->bitrate.average);
}

} // namespace

const SOURCE_OPS kPushSourceOps = {"push", SOURCE_INPUT_STREAM, Open, nullptr, nullptr, Close, Stats, false};

uint32_t PUSHSRC_Input(void* state, const uint8_t* data, uint32_t length)
{
    auto* src = static_cast<PushSource*>(state);
    NET_CalcBitRate(length, &src->bitrate);
    return src->sink.packet(src->sink.ctx, data, length, nullptr, kFullLogEvery, kFullRetries);
}
