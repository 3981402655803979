#include "source/hls/hls_fetch.h"

#include <cerrno>
#include <mutex>

extern "C" {
#include <libavformat/avformat.h>
#include <libavformat/avio.h>
#include <libavutil/error.h>
}

#include "korvalen_types.h"

namespace {

constexpr size_t kReadChunk = 64 * 1024;

int Interrupted(void* opaque)
{
    const auto* stop = static_cast<const std::atomic<uint32_t>*>(opaque);
    return stop && stop->load() ? 1 : 0;
}

uint32_t MapError(int err, bool https, bool stopped)
{
    if (stopped || err == AVERROR_EXIT) {
        return KORVALEN_ERR_THREAD_CREATE; // asked to stop: not the server's fault
    }
    switch (err) {
    case AVERROR_HTTP_BAD_REQUEST:
    case AVERROR_HTTP_UNAUTHORIZED:
    case AVERROR_HTTP_FORBIDDEN:
    case AVERROR_HTTP_NOT_FOUND:
    case AVERROR_HTTP_OTHER_4XX:
    case AVERROR_HTTP_SERVER_ERROR:
        return KORVALEN_ERR_HLS_HTTP;
    case AVERROR(ETIMEDOUT):
    case AVERROR(EAGAIN):
        return KORVALEN_ERR_HLS_TIMEOUT;
    case AVERROR(ECONNREFUSED):
    case AVERROR(ECONNRESET):
    case AVERROR(EHOSTUNREACH):
    case AVERROR(ENETUNREACH):
    case AVERROR(EPIPE):
        return KORVALEN_ERR_HLS_CONNECT;
    default:
        // The TLS layer reports its own failures as I/O errors.
        return https && err == AVERROR(EIO) ? KORVALEN_ERR_HLS_TLS : KORVALEN_ERR_HLS_CONNECT;
    }
}

} // namespace

void HLS_NetworkInit()
{
    static std::once_flag once;
    std::call_once(once, [] { avformat_network_init(); });
}

bool HLS_IsHttpUrl(const std::string& url)
{
    return url.rfind("http://", 0) == 0 || url.rfind("https://", 0) == 0;
}

uint32_t HLS_Download(const std::string& url, std::vector<uint8_t>* data, size_t maxBytes,
                      const std::atomic<uint32_t>* stop, uint32_t timeoutMs)
{
    HLS_NetworkInit();
    data->clear();
    const bool https = url.rfind("https://", 0) == 0;
    AVIOInterruptCB cb{&Interrupted, const_cast<std::atomic<uint32_t>*>(stop)};
    AVDictionary* opts = nullptr;
    const std::string us = std::to_string(static_cast<uint64_t>(timeoutMs) * 1000);
    av_dict_set(&opts, "rw_timeout", us.c_str(), 0);
    av_dict_set(&opts, "timeout", us.c_str(), 0);
    av_dict_set(&opts, "reconnect", "0", 0);
    AVIOContext* io = nullptr;
    int err = avio_open2(&io, url.c_str(), AVIO_FLAG_READ, &cb, &opts);
    av_dict_free(&opts);
    if (err < 0) {
        return MapError(err, https, Interrupted(cb.opaque));
    }
    uint32_t result = KORVALEN_OK;
    for (;;) {
        const size_t at = data->size();
        if (at >= maxBytes) {
            result = KORVALEN_ERR_HLS_SEGMENT;
            break;
        }
        data->resize(at + kReadChunk);
        const int n = avio_read(io, data->data() + at, static_cast<int>(kReadChunk));
        if (n == AVERROR_EOF || n == 0) {
            data->resize(at);
            break;
        }
        if (n < 0) {
            data->resize(at);
            result = MapError(n, https, Interrupted(cb.opaque));
            break;
        }
        data->resize(at + static_cast<size_t>(n));
    }
    avio_closep(&io);
    return result;
}
