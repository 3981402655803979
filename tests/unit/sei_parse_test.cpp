// SEI units written by the shared writer, read back by the parser: framing,
// escapes, every content kind, and broken units that must be refused without
// reading past the access unit.
#include <gtest/gtest.h>

#include <cstring>

#include "codec_media.h"
#include "heap/qmx_heap.h"
#include "iva/iva_port.h"
#include "iva/iva_store.h"
#include "korvalen.h"
#include "korvalen_types.h"
#include "log_capture.h"
#include "pipeline/stream_decode.h"
#include "port/port_table.h"
#include "sei/sei_parse.h"
#include "sei_writer.h"
#include "test_env.h"

namespace {

// A slice unit to end the scan: H.264 IDR, H.265 IDR_W_RADL.
Bytes Slice(uint32_t codec)
{
    return codec == KORVALEN_CODEC_H264 ? Bytes{0, 0, 0, 1, 0x65, 0x88, 0x84, 0x21}
                                        : Bytes{0, 0, 0, 1, 0x26, 0x01, 0xAF, 0x12};
}

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

struct SeiFixture : ::testing::Test {
    IVA_STORE store;
    SEI_INFO info;
    void SetUp() override { IVA_AttachStore(&info, &store); }
    void TearDown() override
    {
        Sei_ReleaseInfo(&info);
        IVA_ReleaseStore(&store);
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }
    // Parses from an exactly sized heap copy so that a read past the end is
    // caught by the address sanitizer.
    uint32_t Parse(uint32_t codec, const Bytes& au)
    {
        std::unique_ptr<uint8_t[]> exact(new uint8_t[au.size()]);
        std::memcpy(exact.get(), au.data(), au.size());
        return Sei_Parse(codec, exact.get(), static_cast<uint32_t>(au.size()), &info);
    }
};

// {id, class, {left, top, right, bottom}, colour, track}. The second id is
// little-endian 00 03 next to zeros: escapes inside the entry.
std::vector<SEIW_TARGET> Targets()
{
    return {{7, 0, {1000, 2000, 3000, 4000}, 5, 1}, {0x0300, 1, {0, 3, 256, 9999}, 11, 0}};
}

// {kind, label, points, count (all), line colour, fill colour, line value, fill value}.
std::vector<SEIW_RULE> Rules()
{
    return {{1, 4, {{1000, 1000}, {9000, 1000}, {9000, 9000}, {1000, 9000}}, 0xFFFFFFFF, 6, 7, 100, 30},
            {0, 0, {{0, 5000}, {10000, 5000}}}};
}

std::vector<uint16_t> Fisheye(const SEI_INFO& info)
{
    return std::vector<uint16_t>(info.fisheyeParams, info.fisheyeParams + 3);
}

} // namespace

TEST(SeiSizeField, SumsFfBytesAndRefusesWhatDoesNotFit)
{
    LogCapture log;
    uint32_t size = 0, field = 0;
    Bytes big(600, 0x11);
    big[0] = 0xFF;
    big[1] = 0xFF;
    big[2] = 0x02;
    EXPECT_EQ(Sei_MathSeiLen(big.data(), static_cast<uint32_t>(big.size()), &size, &field), 0u);
    EXPECT_EQ(size, 512u);
    EXPECT_EQ(field, 3u);

    const uint8_t small[] = {0x04, 1, 2, 3, 4};
    EXPECT_EQ(Sei_MathSeiLen(small, 5, &size, &field), 0u); // exactly fits
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(Sei_MathSeiLen(small, 4, &size, &field), 2u); // one byte short
    EXPECT_TRUE(log.Has("Sei_MathSeiLen fail, BufferLen(4), SeiLen(4)"));
    const uint8_t zero[] = {0x00, 1};
    EXPECT_EQ(Sei_MathSeiLen(zero, 2, &size, &field), 2u);
    // A long field whose sum is below the bytes left but whose payload would
    // still run past them.
    Bytes tail(300, 0x22);
    tail[0] = 0xFF;
    tail[1] = 0x2C; // 255 + 44 = 299 bytes, 298 behind the field
    EXPECT_EQ(Sei_MathSeiLen(tail.data(), 300, &size, &field), 2u);
    const uint8_t allFf[] = {0xFF, 0xFF, 0xFF};
    size = 99;
    EXPECT_EQ(Sei_MathSeiLen(allFf, 3, &size, &field), 2u);
    EXPECT_EQ(size, 0u);
}

TEST(SeiUnescape, DropsEveryEmulationByteOnce)
{
    Bytes d{0, 0, 3, 0, 0, 0, 3, 1, 0, 0, 3, 0, 0, 3};
    uint32_t n = Sei_Unescape(d.data(), static_cast<uint32_t>(d.size()));
    d.resize(n);
    EXPECT_EQ(d, (Bytes{0, 0, 0, 0, 0, 1, 0, 0, 0, 0}));
    EXPECT_EQ(SeiWriter_Escape(Bytes{0, 0, 0, 0, 0, 1, 0, 0, 0, 0}), (Bytes{0, 0, 3, 0, 0, 3, 0, 1, 0, 0, 3, 0, 0}));
}

TEST_F(SeiFixture, EveryContentKindOfOneH264AccessUnit)
{
    SeiBytes fisheye = Cat({SeiWriter_Be16(0), SeiWriter_Be16(3), SeiWriter_Be16(0x0102)}); // escapes needed
    Bytes watermark(32);
    for (int i = 0; i < 32; ++i) {
        watermark[i] = static_cast<uint8_t>(i < 16 ? 'A' + i : 0);
    }
    const Bytes debug{0, 0, 3, 9}; // kept as it came
    Bytes au = Cat({
        Bytes{0, 0, 0, 1, 0x67, 0x42, 0, 0x1E}, // a parameter set is stepped over
        SeiWriter_Nal(SEIW_H264, 5, SeiWriter_UserData(32, SeiWriter_IvaResults(Targets()))),
        SeiWriter_Nal(SEIW_H264, 5, SeiWriter_UserData(33, SeiWriter_IvaRules(Rules()))),
        SeiWriter_Nal(SEIW_H264, 34, fisheye),
        SeiWriter_Nal(SEIW_H264, 5, SeiWriter_UserData(25, SeiWriter_Be16(0x0300))),
        SeiWriter_Nal(SEIW_H264, 33, Bytes{0x73}),
        SeiWriter_Nal(SEIW_H264, 26, watermark),
        SeiWriter_Nal(SEIW_H264, 25, debug),
        Slice(KORVALEN_CODEC_H264),
    });
    info.codingFlags = 0x31; // bits 0, 4 and 5 are not the SEI's to change
    EXPECT_EQ(Parse(KORVALEN_CODEC_H264, au), 0u);
    EXPECT_EQ(info.flags, 127u);
    EXPECT_EQ(Fisheye(info), (std::vector<uint16_t>{0, 3, 0x0102}));
    EXPECT_EQ(info.voicePosition, 0x0300u);
    // 0x73 = 0111 0011: bits 5-6 (3) -> bits 1-2, bit 4 (1) -> bit 3, bits 0-1 (3) -> bits 6-7.
    EXPECT_EQ(info.codingFlags, 0x31 | 0x06 | 0x08 | 0xC0);
    EXPECT_EQ(std::memcmp(info.watermarkFields[0], "ABCDEFGHIJKLMNOP", 16), 0);
    EXPECT_EQ(Bytes(info.debug.data, info.debug.data + info.debug.length), SeiWriter_Escape(debug));
    EXPECT_EQ(info.ivaVersion, 2u);

    ASSERT_EQ(store.results.ready, 1u);
    ASSERT_EQ(store.results.count, 2u);
    IVA_TARGET a = IVA_GetTarget(store.results, 0), b = IVA_GetTarget(store.results, 1);
    EXPECT_EQ((std::vector<uint32_t>{a.id, a.cls, a.color, a.track}), (std::vector<uint32_t>{7, 0, 5, 1}));
    EXPECT_EQ((std::vector<int>(a.box, a.box + 4)), (std::vector<int>{1000, 2000, 3000, 4000}));
    EXPECT_EQ(b.id, 0x0300u);
    EXPECT_EQ((std::vector<int>(b.box, b.box + 4)), (std::vector<int>{0, 3, 256, 9999}));
    ASSERT_EQ(store.rules.ready, 1u);
    ASSERT_EQ(store.rules.count, 2u);
    IVA_RULE r = IVA_GetRule(store.rules, 0);
    EXPECT_EQ((std::vector<uint32_t>{r.kind, r.labelType, r.pointCount, r.lineColor, r.fillColor, r.fillValue}),
              (std::vector<uint32_t>{1, 4, 4, 6, 7, 30}));
    EXPECT_EQ((std::vector<int>(r.points[1], r.points[1] + 2)), (std::vector<int>{9000, 1000})); // x, y
    EXPECT_EQ(IVA_GetRule(store.rules, 1).points[0][1], 5000);

    // The next access unit without SEI clears the flags but keeps the store.
    EXPECT_EQ(Parse(KORVALEN_CODEC_H264, Slice(KORVALEN_CODEC_H264)), 0u);
    EXPECT_EQ(info.flags, 0u);
    EXPECT_EQ(store.results.count, 2u);
}

TEST_F(SeiFixture, H265UnitsAndWhereTheScanStops)
{
    Bytes trailN{0, 0, 1, 0x00, 0x01, 0xAA}; // type 0: scanned past
    Bytes fish = SeiWriter_Nal(SEIW_H265, 231, Cat({SeiWriter_Be16(10), SeiWriter_Be16(20), SeiWriter_Be16(30)}));
    Bytes after = SeiWriter_Nal(SEIW_H265, 230, Bytes{0xFF});
    EXPECT_EQ(Parse(KORVALEN_CODEC_H265, Cat({trailN, fish, Slice(KORVALEN_CODEC_H265), after})), 0u);
    EXPECT_EQ(info.flags, static_cast<uint32_t>(SEI_FLAG_FISHEYE)); // the unit behind the slice is not read
    EXPECT_EQ(Fisheye(info), (std::vector<uint16_t>{10, 20, 30}));
    // H.264 numbers mean nothing special in H.265: 33 is unknown there.
    LogCapture log;
    EXPECT_EQ(Parse(KORVALEN_CODEC_H265, Cat({SeiWriter_Nal(SEIW_H265, 33, Bytes{1}), Slice(KORVALEN_CODEC_H265)})),
              2u);
    EXPECT_TRUE(log.Has("Sei_H265_Parse fail, unknown sei value type(0x21), count(1)"));
    // IVA in H.265 user data.
    EXPECT_EQ(Parse(KORVALEN_CODEC_H265,
                    Cat({SeiWriter_Nal(SEIW_H265, 5, SeiWriter_UserData(32, SeiWriter_IvaResults(Targets()))),
                         Slice(KORVALEN_CODEC_H265)})),
              0u);
    EXPECT_EQ(info.flags, static_cast<uint32_t>(SEI_FLAG_IVA_RESULT));
    EXPECT_EQ(IVA_GetTarget(store.results, 1).color, 11u);
}

TEST_F(SeiFixture, BrokenFramingIsRefusedAndLogged)
{
    LogCapture log;
    Bytes good = SeiWriter_Nal(SEIW_H264, 34, Cat({SeiWriter_Be16(1), SeiWriter_Be16(2), SeiWriter_Be16(3)}));
    SEIW_NAL_OPTIONS noStop;
    noStop.noStopBit = true;
    // Flags already set stay set when a later message fails.
    EXPECT_EQ(Parse(KORVALEN_CODEC_H264,
                    Cat({good, SeiWriter_Nal(SEIW_H264, 5, SeiWriter_UserData(25, SeiWriter_Be16(9)), noStop),
                         Slice(KORVALEN_CODEC_H264)})),
              2u);
    EXPECT_TRUE(log.Has("Sei_H264_Parse fail, sei (len:3) data not complete"));
    EXPECT_EQ(info.flags, static_cast<uint32_t>(SEI_FLAG_FISHEYE));
    EXPECT_EQ(info.voicePosition, 0u);

    // A size beyond the access unit, and a unit cut short in its payload:
    // both end at the buffer's end, with nothing behind them.
    SEIW_NAL_OPTIONS over;
    over.sizeDelta = 40;
    EXPECT_EQ(Parse(KORVALEN_CODEC_H264,
                    SeiWriter_Nal(SEIW_H264, 5, SeiWriter_UserData(32, SeiWriter_IvaResults(Targets())), over)),
              2u);
    EXPECT_TRUE(log.Has("Sei_H264Parse fail, Sei_MathSeiLen fail, error(2)"));
    SEIW_NAL_OPTIONS cut;
    cut.cutTail = 20;
    EXPECT_EQ(Parse(KORVALEN_CODEC_H265,
                    SeiWriter_Nal(SEIW_H265, 5, SeiWriter_UserData(33, SeiWriter_IvaRules(Rules())), cut)),
              2u);
    EXPECT_TRUE(log.Has("Sei_H265Parse fail, Sei_MathSeiLen fail, error(2)"));
    // A size field of 0xFF bytes up to the end.
    EXPECT_EQ(Parse(KORVALEN_CODEC_H264, Bytes{0, 0, 1, 6, 5, 0xFF, 0xFF}), 2u);
    // Units too short to hold a message at all.
    EXPECT_EQ(Parse(KORVALEN_CODEC_H264, Bytes{0, 0, 1, 6}), 0u);
    EXPECT_EQ(Parse(KORVALEN_CODEC_H265, Bytes{0, 0, 1, 0x4E, 1}), 0u);
    EXPECT_EQ(store.results.ready + store.rules.ready, 0u);

    EXPECT_EQ(Sei_Parse(KORVALEN_CODEC_MJPEG, good.data(), static_cast<uint32_t>(good.size()), &info), 2u);
    EXPECT_TRUE(log.Has("Sei_Parse fail, invalid param, Payload(4) Buffer(1) BufferLen(" + std::to_string(good.size()) +
                        ") SeiInfo(1)"));
    EXPECT_EQ(Sei_Parse(KORVALEN_CODEC_H264, good.data(), 0, &info), 2u);
    EXPECT_EQ(Sei_Parse(KORVALEN_CODEC_H264, good.data(), 3, nullptr), 2u);
}

TEST_F(SeiFixture, ErrorsAreCountedAndLoggedOncePerHundred)
{
    LogCapture log;
    const Bytes unknownType = Cat({SeiWriter_Nal(SEIW_H264, 99, Bytes{1, 2}), Slice(KORVALEN_CODEC_H264)});
    const Bytes unknownSub = Cat({SeiWriter_Nal(SEIW_H264, 5, Bytes{77, 1}), Slice(KORVALEN_CODEC_H264)});
    const Bytes shortFish = Cat({SeiWriter_Nal(SEIW_H264, 34, Bytes{1, 2}), Slice(KORVALEN_CODEC_H264)});
    std::vector<uint32_t> results;
    for (int i = 0; i < 101; ++i) {
        results.push_back(Parse(KORVALEN_CODEC_H264, i == 0 ? unknownSub : unknownType));
    }
    EXPECT_EQ(info.errorCount, 101u);
    EXPECT_EQ(results[0], 2u);   // count 1: logged and failed
    EXPECT_EQ(results[1], 0u);   // skipped quietly
    EXPECT_EQ(results[100], 2u); // count 101
    EXPECT_TRUE(log.Has("Sei_H264_Parse fail, unknown SEI_subtype value type(0x4d), count(1)"));
    EXPECT_EQ(log.Count("unknown sei value type(0x63)"), 1u);
    EXPECT_TRUE(log.Has("Sei_H264_Parse fail, unknown sei value type(0x63), count(101)"));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(Parse(KORVALEN_CODEC_H264, shortFish), 2u); // content failures fail, logged or not
    }
    EXPECT_TRUE(log.Has("Sei_H264Parse fail, Sei_FisheyeParse fail, error(0x2), count(201)"));
    EXPECT_EQ(log.Count("Sei_FisheyeParse fail"), 1u);
    // IVA failures are logged every time.
    const Bytes emptyIva = Cat({SeiWriter_Nal(SEIW_H264, 5, Bytes{32}), Slice(KORVALEN_CODEC_H264)});
    EXPECT_EQ(Parse(KORVALEN_CODEC_H264, emptyIva), 2u);
    EXPECT_EQ(Parse(KORVALEN_CODEC_H264, emptyIva), 2u);
    EXPECT_EQ(log.Count("Sei_IvaV2Parse fail, SEI data len is: 0"), 2u);
    EXPECT_EQ(log.Count("Sei_H264Parse fail, Sei_IvaV2Parse fail, error(0x2)"), 2u);
}

TEST_F(SeiFixture, BuffersGrowWithMarginKeepContentsWhenMemoryRunsOut)
{
    LogCapture log;
    auto iva = [&](size_t targets) {
        std::vector<SEIW_TARGET> t(targets);
        return Cat(
            {SeiWriter_Nal(SEIW_H264, 5, SeiWriter_UserData(32, SeiWriter_IvaResults(t))), Slice(KORVALEN_CODEC_H264)});
    };
    // The buffer takes the payload as it came (escapes included).
    auto wire = [](size_t targets) {
        return static_cast<uint32_t>(SeiWriter_Escape(SeiWriter_IvaResults(std::vector<SEIW_TARGET>(targets))).size());
    };
    ASSERT_EQ(Parse(KORVALEN_CODEC_H264, iva(2)), 0u);
    EXPECT_EQ(info.iva.length, 12u + 72u); // unescaped
    const uint32_t first = wire(2) + 1000;
    EXPECT_EQ(info.iva.capacity, first);
    ASSERT_EQ(Parse(KORVALEN_CODEC_H264, iva(1)), 0u);
    EXPECT_EQ(info.iva.capacity, first); // never shrinks
    const uint64_t blocks = QMX_HeapLiveBlocks();
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(Parse(KORVALEN_CODEC_H264, iva(2)), 0u);
    }
    EXPECT_EQ(QMX_HeapLiveBlocks(), blocks); // steady streams do not allocate
    // 30 targets reach the capacity: the buffer must grow, and cannot.
    ASSERT_GE(wire(30), first);
    QMX_HeapFailAt(1);
    EXPECT_EQ(Parse(KORVALEN_CODEC_H264, iva(30)), 3u);
    QMX_HeapFailAt(0);
    EXPECT_TRUE(log.Has("malloc (size:" + std::to_string(wire(30) + 1000) + ") failed"));
    EXPECT_TRUE(log.Has("Sei_H264Parse fail, Sei_IvaV2Parse fail, error(0x3)"));
    EXPECT_EQ(info.iva.capacity, first);
    EXPECT_EQ(store.results.count, 2u); // the last good record stays
    ASSERT_EQ(Parse(KORVALEN_CODEC_H264, iva(30)), 0u);
    EXPECT_EQ(info.iva.capacity, wire(30) + 1000);
    EXPECT_EQ(store.results.count, 30u);
}

TEST(IvaRecord, LengthAndHeaderChecks)
{
    LogCapture log;
    IVA_STORE store;
    SeiBytes results = SeiWriter_IvaResults(std::vector<SEIW_TARGET>(3));
    EXPECT_EQ(IvaV2Parse(IVA_KIND_RESULT, &store, results.data(), static_cast<uint32_t>(results.size() - 1)), 0u);
    EXPECT_TRUE(log.Has("IvaV2Parse: ulDataLen is valid, ulDataLen is (119)"));
    EXPECT_EQ(store.results.ready, 0u);
    // Results read as rules do not add up either.
    EXPECT_EQ(IvaV2Parse(IVA_KIND_RULE, &store, results.data(), static_cast<uint32_t>(results.size())), 0u);
    EXPECT_TRUE(log.Has("IvaV2Parse: ulDataLen is invalid, ulDataLen is (120)"));
    EXPECT_EQ(store.rules.ready, 0u);
    SeiBytes ignored = SeiWriter_IvaResults(std::vector<SEIW_TARGET>(1), 0);
    EXPECT_EQ(IvaV2Parse(IVA_KIND_RESULT, &store, ignored.data(), static_cast<uint32_t>(ignored.size())), 0u);
    EXPECT_EQ(store.results.ready, 0u);
    EXPECT_EQ(IvaV2Parse(IVA_KIND_RESULT, nullptr, results.data(), 120), KORVALEN_ERR_IVA_DRAW);
    EXPECT_EQ(IvaV2Parse(IVA_KIND_RESULT, &store, nullptr, 120), KORVALEN_ERR_IVA_DRAW);
    EXPECT_EQ(IvaV2Parse(IVA_KIND_RESULT, &store, results.data(), 5), 0u);

    ASSERT_EQ(IvaV2Parse(IVA_KIND_RESULT, &store, results.data(), 120), 0u);
    IVA_STORE copy;
    ASSERT_EQ(IVA_CopyStore(&copy, &store), 0u);
    EXPECT_EQ(copy.results.count, 3u);
    EXPECT_EQ(copy.version, 2u);
    EXPECT_EQ(std::memcmp(copy.results.entries, store.results.entries, 108), 0);
    IVA_ReleaseStore(&copy);
    IVA_ReleaseStore(&store);
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}

// A real encoder's stream with SEI written between its access units: every
// unit reads back, and the encoder's own SEI does not disturb ours.
TEST(SeiStream, InjectedIntoEncodedStreamsReadsBack)
{
    for (uint32_t codec : {KORVALEN_CODEC_H264, KORVALEN_CODEC_H265}) {
        const std::string path =
            FixturePath(codec == KORVALEN_CODEC_H264 ? "h264_352x288_nob.h264" : "hevc_352x288_nob.hevc");
        REQUIRE_FIXTURE(path);
        Bytes raw = RunCommand("cat " + path);
        std::vector<SEIW_STATEMENT> st;
        std::string error;
        ASSERT_TRUE(
            SeiWriter_ParseDescription("* rule polygon label=5 color=6 points=1000,1000;9000,1000;5000,9000\n"
                                       "0-9 target id=3 class=0 color=7 track=1 box=100,200,1100,2200 move=256,0\n"
                                       "4 fisheye 0 0 768\n",
                                       &st, &error))
            << error;
        Bytes injected = SeiWriter_Inject(codec, raw, st);
        const std::vector<Bytes> aus = SeiWriter_SplitAccessUnits(codec, injected);
        ASSERT_EQ(aus.size(), 25u);

        IVA_STORE store;
        SEI_INFO info;
        IVA_AttachStore(&info, &store);
        // The encoder's own user-data SEI (its version text, repeated at key
        // frames) is a subtype this system does not know: counted, not fatal.
        // The stream without our units tells how many there are.
        for (const Bytes& au : SeiWriter_SplitAccessUnits(codec, raw)) {
            Sei_Parse(codec, au.data(), static_cast<uint32_t>(au.size()), &info);
        }
        const uint32_t encoderErrors = info.errorCount;
        EXPECT_EQ(store.version, 0u);
        info.errorCount = 0;
        for (uint32_t n = 0; n < aus.size(); ++n) {
            Sei_Parse(codec, aus[n].data(), static_cast<uint32_t>(aus[n].size()), &info);
            const uint32_t want = SEI_FLAG_IVA_RULE | (n <= 9 ? 32u : 0u) | (n == 4 ? 8u : 0u);
            EXPECT_EQ(info.flags, want) << n;
            EXPECT_EQ(IVA_GetRule(store.rules, 0).labelType, 5u);
            if (n <= 9) {
                EXPECT_EQ(IVA_GetTarget(store.results, 0).box[0], 100 + 256 * n);
            }
        }
        EXPECT_EQ(Fisheye(info), (std::vector<uint16_t>{0, 0, 768}));
        EXPECT_EQ(info.errorCount, encoderErrors);
        Sei_ReleaseInfo(&info);
        IVA_ReleaseStore(&store);
    }
}

// The fisheye view reads the lens parameters a port's stream carried.
TEST(SeiPort, FisheyeParametersPerPort)
{
    ASSERT_EQ(Korvalen_Init(), 1);
    uint32_t port = 0;
    ASSERT_EQ(Korvalen_AllocPort(&port), 1);
    uint16_t p[3] = {};
    EXPECT_EQ(IVA_GetFisheyeParam(Player_GetPort(port)->iva, p), KORVALEN_ERR_NOT_SUPPORTED);
    const Bytes au =
        Cat({SeiWriter_Nal(SEIW_H265, 231, Cat({SeiWriter_Be16(960), SeiWriter_Be16(540), SeiWriter_Be16(500)})),
             Slice(KORVALEN_CODEC_H265)});
    // Through the pipeline's frame hand-over, which also gives the fisheye view
    // the lens; a later unit without them keeps the last ones.
    const Bytes plain = Slice(KORVALEN_CODEC_H265);
    for (const Bytes* unit : {&au, &plain}) {
        Player_GetPort(port)->stream.frame =
            StreamFrame{unit->data(), static_cast<uint32_t>(unit->size()), 0, KORVALEN_CODEC_H265, 0};
        Stream_HandleFrame(Player_GetPort(port));
    }
    ASSERT_EQ(IVA_GetFisheyeParam(Player_GetPort(port)->iva, p), 0u);
    EXPECT_EQ((std::vector<uint16_t>(p, p + 3)), (std::vector<uint16_t>{960, 540, 500}));
    // And the port now plays a fisheye stream with that lens.
    EXPECT_EQ(Korvalen_IsFishEyeStream(port), 1);
    KORVALEN_FISHEYE_STATE st{};
    KORVALEN_POINT centre{};
    uint32_t radius = 0;
    ASSERT_EQ(Korvalen_GetFishEyeParam(port, &st, &centre, &radius), 1);
    EXPECT_EQ((std::vector<int64_t>{centre.x, centre.y, radius}), (std::vector<int64_t>{960, 540, 500}));
    Korvalen_FreePort(port);
    Korvalen_Cleanup();
    EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
}

TEST(SeiInjectTool, WritesTheDescriptionIntoAStreamAndRefusesBadLines)
{
    const std::string in = FixturePath("hevc_352x288_nob.hevc");
    REQUIRE_FIXTURE(in);
    const auto text = [](const std::string& t) { return Bytes(t.begin(), t.end()); };
    const std::string desc = SaveScratch(
        "sei_desc.txt", text("# two rules on every picture, a voice position on the third\n"
                             "*  rule line label=4 color=7 points=0,5000;10000,5000\n"
                             "*  rule polygon color=6 fill=7 fillv=50 points=1000,1000;9000,1000;9000,9000\n"
                             "2  voice 1234\n"));
    const std::string bad = SaveScratch("sei_bad.txt", text("* target id=1 box=1,2,3\n"));
    const std::string out = TestHome() + "/sei_out.hevc";
    const std::string tool = KORVALEN_SEI_INJECT;
    RunCommand(tool + " --codec h265 -i " + in + " -o " + out + " -d " + desc);
    const Bytes stream = RunCommand("cat " + out);
    const std::vector<Bytes> aus = SeiWriter_SplitAccessUnits(SEIW_H265, stream);
    ASSERT_EQ(aus.size(), 25u);
    IVA_STORE store;
    SEI_INFO info;
    IVA_AttachStore(&info, &store);
    ASSERT_EQ(Sei_Parse(KORVALEN_CODEC_H265, aus[2].data(), static_cast<uint32_t>(aus[2].size()), &info), 0u);
    EXPECT_EQ(info.flags, static_cast<uint32_t>(SEI_FLAG_IVA_RULE | SEI_FLAG_VOICE));
    EXPECT_EQ(info.voicePosition, 1234u);
    ASSERT_EQ(store.rules.count, 2u);
    EXPECT_EQ(IVA_GetRule(store.rules, 1).fillValue, 50u);
    EXPECT_EQ(IVA_GetRule(store.rules, 0).points[1][0], 10000);

    const Bytes err = RunCommand(tool + " --codec h265 -i " + in + " -o " + out + ".2 -d " + bad + " 2>&1; echo rc=$?");
    const std::string said(err.begin(), err.end());
    EXPECT_NE(said.find("line 1: bad box"), std::string::npos) << said;
    EXPECT_NE(said.find("rc=1"), std::string::npos) << said;
    Sei_ReleaseInfo(&info);
    IVA_ReleaseStore(&store);
}
