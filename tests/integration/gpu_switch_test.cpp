// The GPU-decode switch through the C API. Whatever this machine has (a GPU
// device or none), the answers agree with each other and a port made while
// the switch is on still decodes every picture of a stream shown in a window.
// gtest first: Xlib's macros (None, Bool...) would clash with its names.
#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "decoded_pictures.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "x_window.h"

TEST(GpuSwitch, AnswersAgreeAndPortsDecodeEitherWay)
{
    const std::string path = FixturePath("h264_352x288_nob.h264");
    REQUIRE_FIXTURE(path);
    auto want = FfmpegFrameMd5(path);
    TestScreen screen;
    if (!screen.Open(352, 288)) {
        ASSERT_FALSE(XvfbServer::Installed()) << "Xvfb is installed but did not start";
        GTEST_SKIP() << "Xvfb is not installed";
    }
    ASSERT_EQ(Korvalen_Init(), 1);

    // A device that cannot exist: no GPU, whatever the machine has.
    KORVALEN_GPU_OPTIONS bogus{};
    bogus.device_kind = 1;
    bogus.max_sessions = 3;
    std::snprintf(bogus.device, sizeof bogus.device, "/nonexistent/renderD999");
    uint32_t kind = 99, sessions = 0;
    EXPECT_EQ(Korvalen_AbleGpuDecodeEx(1, &bogus, &kind, &sessions), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_NOT_SUPPORTED);
    EXPECT_EQ(kind, 0u);
    EXPECT_EQ(sessions, 3u);

    // The default device: the plain switch and the extended one agree.
    KORVALEN_GPU_OPTIONS any{};
    int32_t able = Korvalen_AbleGpuDecodeEx(1, &any, &kind, &sessions);
    EXPECT_EQ(able != 0, kind != 0) << "a device kind exactly when GPU decoding is possible";
    EXPECT_EQ(sessions, 0u);
    EXPECT_EQ(Korvalen_AbleGpuDecode(1), able);

    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    DecodedPictures got;
    ASSERT_EQ(Korvalen_SetPictureFluency(port, 0), 1);
    ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &got), 1);
    ASSERT_EQ(Korvalen_OpenInputStream(port, nullptr, 0, 0), 1);
    ASSERT_EQ(Korvalen_StartPlay(port, screen.win), 1);
    for (const auto& unit : ReadPackets(path)) {
        ASSERT_EQ(Korvalen_InputMediaData(port, unit.data(), static_cast<uint32_t>(unit.size())), 1);
    }
    got.Wait(want.size());
    EXPECT_EQ(got.Md5s(), want);
    ASSERT_EQ(Korvalen_CloseInputStream(port), 1);
    // Off: always accepted.
    EXPECT_EQ(Korvalen_AbleGpuDecode(0), 1);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}
