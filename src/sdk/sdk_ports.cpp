// Exported port functions: allocation, release and packet-buffer settings.
#include "korvalen.h"
#include "port/port_table.h"
#include "sdk/sdk_frame.h"

extern "C" {

int32_t Korvalen_AllocPort(uint32_t* port)
{
    if (!port) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Korvalen_AllocPort fail, invalid param");
        return SDK_Fail(KORVALEN_ERR_INVALID_PARAM);
    }
    uint32_t err = Player_AllocPort(port);
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Call Korvalen_AllocPort fail, Player_AllocPort fail, error(0x%x)", err);
        return SDK_Fail(err);
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Korvalen_AllocPort Success, GetPort[%03d]", *port);
    return 1;
}

void Korvalen_FreePort(uint32_t port)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_FreePort", port);
    if (port >= kPortCount) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "Get Port[%d] fail", static_cast<int>(port));
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(Port_Lock(port));
    Player_FreePort(port);
}

int32_t Korvalen_SetPacketBuffer(uint32_t port, uint32_t buffer_size, uint32_t delay_render_ms)
{
    KORVALEN_LOG(KORVALEN_LOG_INFO, "Call Port[%03d] Korvalen_SetPacketBuffer BufferSize[%d] DelayRenderTime[%d]", port,
                 buffer_size, delay_render_ms);
    SdkCall c{"Korvalen_SetPacketBuffer", "Player_SetPacketBuffer", SDK_OWN_CALL_LINE,
              "Call Port[%03d] Korvalen_SetPacketBuffer failed"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetPacketBuffer(port, buffer_size, delay_render_ms); });
}

int32_t Korvalen_SetBufferCtrl(uint32_t port, uint32_t buffer_ctrl)
{
    SdkCall c{"Korvalen_SetBufferCtrl", "Player_SetBufferCtrl", SDK_STANDARD,
              "Call Port[%03d] Player_SetBufferCtrl failed"};
    return SDK_PortCall(port, c, true, [&] { return Player_SetBufferCtrl(port, buffer_ctrl); });
}

int32_t Korvalen_GetPacketQueueStart(uint32_t port, uint32_t* frame_count, uint32_t* occupied)
{
    // Polled often and from any thread: no lock, and the inner call is safe
    // for any port number.
    uint32_t err = (frame_count && occupied) ? Player_GetPacketQueueStart(port, frame_count, occupied)
                                             : KORVALEN_ERR_INVALID_PARAM;
    if (err != KORVALEN_OK) {
        KORVALEN_LOG(KORVALEN_LOG_ERROR,
                     "Call Port[%03d] Korvalen_GetPacketQueueStart fail, Player_GetPacketQueueStart fail, error(0x%x)",
                     port, err);
        return SDK_Fail(err);
    }
    return 1;
}

} // extern "C"
