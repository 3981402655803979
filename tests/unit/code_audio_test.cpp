#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "codec/code_manager.h"
#include "codec/g711.h"
#include "codec_media.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log_capture.h"
#include "test_env.h"

namespace {

std::vector<int16_t> ToSamples(const Bytes& b)
{
    std::vector<int16_t> s(b.size() / 2);
    std::memcpy(s.data(), b.data(), s.size() * 2);
    return s;
}

std::vector<int16_t> Tone(uint32_t rate, double freq, double amplitude, size_t count)
{
    std::vector<int16_t> s(count);
    for (size_t i = 0; i < count; ++i) {
        s[i] = static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * freq * static_cast<double>(i) / rate)));
    }
    return s;
}

// Decodes every packet; PCM of the calls that gave 0, their formats checked.
std::vector<int16_t> DecodeAudio(uint32_t type, const std::vector<Bytes>& packets, uint32_t rate, uint32_t channels)
{
    CODE_HANDLE h{};
    EXPECT_EQ(CODE_CreateCode(CODE_DIR_DECODER, type, nullptr, &h), KORVALEN_OK);
    std::vector<int16_t> pcm;
    CODE_OUTPUT out;
    for (const Bytes& p : packets) {
        CODE_INPUT in = CodeInput(p);
        uint32_t r = CODE_Decoder(&h, &in, &out);
        if (r == KORVALEN_ERR_DECODE_NO_OUTPUT) {
            continue;
        }
        EXPECT_EQ(r, KORVALEN_OK);
        if (r != KORVALEN_OK) {
            break;
        }
        EXPECT_EQ((std::vector<uint32_t>{out.sampleRate, out.channels, out.sampleSize}),
                  (std::vector<uint32_t>{rate, channels, 16}));
        const auto* s = reinterpret_cast<const int16_t*>(out.data);
        pcm.insert(pcm.end(), s, s + out.length / 2);
    }
    CODE_FreeCode(&h);
    return pcm;
}

// Signal-to-noise ratio of b against a, in dB.
double Snr(const std::vector<int16_t>& a, const std::vector<int16_t>& b)
{
    double sig = 0, noise = 0;
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        sig += static_cast<double>(a[i]) * a[i];
        double d = static_cast<double>(a[i]) - b[i];
        noise += d * d;
    }
    return 10 * std::log10(sig / std::max(noise, 1.0));
}

double Db(double ratio)
{
    return 20 * std::log10(ratio);
}

} // namespace

// Our coder against ffmpeg's pcm_mulaw / pcm_alaw on a chirp with noise that
// reaches every segment: decoding is identical, and encoding picks the same
// code except where ffmpeg's table rounds to the other neighbour at a segment
// edge, which is never more than one step.
TEST(G711, MatchesFfmpegTables)
{
    std::string src = FixturePath("g711_src.s16");
    REQUIRE_FIXTURE(src);
    auto pcm = ToSamples(RunCommand("cat '" + src + "'"));
    ASSERT_EQ(pcm.size(), 8000u);
    for (auto [law, ext, fmt] :
         {std::tuple{G711Law::MuLaw, "ulaw", "mulaw"}, std::tuple{G711Law::ALaw, "alaw", "alaw"}}) {
        std::string coded = FixturePath(std::string("g711_src.") + ext);
        REQUIRE_FIXTURE(coded);
        Bytes ffCodes = RunCommand("cat '" + coded + "'");
        ASSERT_EQ(ffCodes.size(), pcm.size());

        // Every code decodes as ffmpeg decodes it.
        Bytes all(256);
        for (int i = 0; i < 256; ++i) {
            all[static_cast<size_t>(i)] = static_cast<uint8_t>(i);
        }
        const std::string allPath = SaveScratch(std::string("all.") + ext, all);
        auto ffDecoded = ToSamples(
            RunCommand(std::string("ffmpeg -v quiet -f ") + fmt + " -ar 8000 -ac 1 -i '" + allPath + "' -f s16le -"));
        ASSERT_EQ(ffDecoded.size(), 256u);
        std::vector<int16_t> ours(256);
        G711_DecodeBlock(law, all.data(), 256, ours.data());
        EXPECT_EQ(ours, ffDecoded) << ext;

        // Each code's own value encodes back to it.
        for (int c = 0; c < 256; ++c) {
            uint8_t back = G711_Encode(law, ours[static_cast<size_t>(c)]);
            EXPECT_EQ(G711_Decode(law, back), ours[static_cast<size_t>(c)]) << ext << " code " << c;
        }

        Bytes ourCodes(pcm.size());
        G711_EncodeBlock(law, pcm.data(), static_cast<uint32_t>(pcm.size()), ourCodes.data());
        size_t differ = 0;
        for (size_t i = 0; i < pcm.size(); ++i) {
            if (ourCodes[i] == ffCodes[i]) {
                continue;
            }
            ++differ;
            int a = G711_Decode(law, ourCodes[i]), b = G711_Decode(law, ffCodes[i]);
            int errOurs = std::abs(a - pcm[i]), errFf = std::abs(b - pcm[i]);
            // Neighbouring levels, and ours is never the worse by more than
            // the half-step difference of the two segment sizes.
            EXPECT_LE(std::abs(a - b), 2 * std::max(std::abs(a), std::abs(b)) / 16 + 16) << ext << " sample " << i;
            EXPECT_LE(errOurs, errFf + std::abs(a - b) / 2 + 8) << ext << " sample " << i;
        }
        EXPECT_LT(differ, pcm.size() / 50) << ext;
    }
}

// The manager refuses a G.711 frame beyond 1500 bytes before the coder runs
// (the codes themselves are checked against ffmpeg above).
TEST(AudioDecode, G711FrameLimit)
{
    LogCapture log;
    for (uint32_t type : {KORVALEN_CODEC_G711U, KORVALEN_CODEC_G711A}) {
        CODE_HANDLE h{};
        ASSERT_EQ(CODE_CreateCode(CODE_DIR_DECODER, type, nullptr, &h), KORVALEN_OK);
        Bytes big(1501, 0x55);
        CODE_INPUT in = CodeInput(big);
        CODE_OUTPUT out;
        EXPECT_EQ(CODE_Decoder(&h, &in, &out), KORVALEN_ERR_DECODE);
        EXPECT_EQ(out.data, nullptr);
        in.length = 1500;
        EXPECT_EQ(CODE_Decoder(&h, &in, &out), KORVALEN_OK);
        EXPECT_EQ(out.length, 3000u);
        CODE_FreeCode(&h);
    }
    EXPECT_TRUE(log.Has("G711Decoder failed size(1501) out of max"));
}

// AAC at every rate a camera sends: the PCM is ffmpeg's decode, converted to
// 16 bits the same way.
TEST(AudioDecode, AacMatchesFfmpeg)
{
    for (uint32_t rate : {8000u, 16000u, 44100u, 48000u}) {
        std::string path = FixturePath("aac_" + std::to_string(rate) + ".aac");
        REQUIRE_FIXTURE(path);
        auto packets = ReadPackets(path);
        ASSERT_GT(packets.size(), 5u);
        auto ref = ToSamples(RunCommand("ffmpeg -v quiet -i '" + path + "' -f s16le -"));
        auto pcm = DecodeAudio(KORVALEN_CODEC_AAC, packets, rate, 1);
        ASSERT_EQ(pcm.size(), ref.size()) << rate;
        EXPECT_EQ(pcm, ref) << rate;
    }
}

// Broken AAC frames (junk behind an ADTS sync word, a frame cut short): 540
// for damaged stream data, and the decoder goes on with the next frame.
TEST(AudioDecode, AacDamagedFrames)
{
    std::string path = FixturePath("aac_16000.aac");
    REQUIRE_FIXTURE(path);
    auto packets = ReadPackets(path);
    CODE_HANDLE h{};
    ASSERT_EQ(CODE_CreateCode(CODE_DIR_DECODER, KORVALEN_CODEC_AAC, nullptr, &h), KORVALEN_OK);
    LogCapture log;
    CODE_OUTPUT out;
    Bytes junk(200, 0xFF);
    for (size_t i = 7; i < junk.size(); ++i) {
        junk[i] = static_cast<uint8_t>(i * 37);
    }
    const Bytes cut(packets[3].begin(), packets[3].begin() + 5);
    using Case = std::pair<const Bytes*, uint32_t>;
    for (auto [frame, want] :
         {Case{&junk, KORVALEN_ERR_AAC_DECODE}, Case{&cut, KORVALEN_ERR_AAC_DECODE}, Case{&packets[4], KORVALEN_OK}}) {
        CODE_INPUT in = CodeInput(*frame);
        EXPECT_EQ(CODE_Decoder(&h, &in, &out), want) << frame->size();
    }
    EXPECT_TRUE(log.Has("dsp_aac_dec_decode failed(retcode:"));
    EXPECT_EQ(out.sampleRate, 16000u);
    CODE_FreeCode(&h);
}

// MP2 comes out as 8 kHz mono in blocks of at least 1280 bytes: the same
// sound as ffmpeg's decode resampled to 8 kHz.
TEST(AudioDecode, Mp2ResampledBlocks)
{
    std::string path = FixturePath("mp2_44100.mp2");
    REQUIRE_FIXTURE(path);
    auto packets = ReadPackets(path);
    ASSERT_GT(packets.size(), 20u);
    CODE_HANDLE h{};
    ASSERT_EQ(CODE_CreateCode(CODE_DIR_DECODER, KORVALEN_CODEC_MP2, nullptr, &h), KORVALEN_OK);
    std::vector<int16_t> pcm;
    size_t blocks = 0, waits = 0;
    CODE_OUTPUT out;
    for (const Bytes& p : packets) {
        CODE_INPUT in = CodeInput(p);
        uint32_t r = CODE_Decoder(&h, &in, &out);
        if (r == KORVALEN_ERR_DECODE_NO_OUTPUT) {
            ++waits;
            continue;
        }
        ASSERT_EQ(r, KORVALEN_OK);
        ++blocks;
        EXPECT_GE(out.length, 1280u);
        EXPECT_LT(out.length, 1280u + 2000u);
        EXPECT_EQ(std::make_pair(out.sampleRate, out.channels), std::make_pair(8000u, 1u));
        const auto* s = reinterpret_cast<const int16_t*>(out.data);
        pcm.insert(pcm.end(), s, s + out.length / 2);
    }
    EXPECT_GT(waits, blocks) << "one 1152-sample frame gives ~418 bytes at 8 kHz";
    ToneInfo t = AnalyseTone(pcm, 8000, 800);
    EXPECT_NEAR(t.frequency, 1000.0, 5.0);
    auto ref = ToSamples(RunCommand("ffmpeg -v quiet -i '" + path + "' -ar 8000 -ac 1 -f s16le -"));
    ToneInfo tr = AnalyseTone(ref, 8000, 800);
    EXPECT_NEAR(Db(t.rms / tr.rms), 0.0, 0.5);
    // Same samples apart from the resampler's own filter.
    std::vector<int16_t> a(pcm.begin() + 800, pcm.end()), b(ref.begin() + 800, ref.begin() + 800 + a.size());
    EXPECT_GT(Snr(b, a), 25.0);

    LogCapture log;
    const Bytes junk(300, 0x11);
    CODE_INPUT in = CodeInput(junk);
    uint32_t r = CODE_Decoder(&h, &in, &out);
    EXPECT_TRUE(r == KORVALEN_ERR_DECODE_NO_OUTPUT || r == 1u) << r;
    CODE_FreeCode(&h);
}

namespace {

// Encodes the tone perCall samples at a time; MP2 frames come through the
// callback, the others as each call's output.
std::vector<Bytes> EncodeTone(uint32_t type, const CODE_PARAM& p, const std::vector<int16_t>& tone, size_t perCall)
{
    std::vector<Bytes> frames;
    CODE_HANDLE enc{};
    EXPECT_EQ(CODE_CreateCode(CODE_DIR_ENCODER, type, &p, &enc), KORVALEN_OK);
    if (type == KORVALEN_CODEC_MP2) {
        EXPECT_EQ(CODE_SetMp2DataCallBack(
                      &enc,
                      [](const uint8_t* data, uint32_t length, void* user) {
                          static_cast<std::vector<Bytes>*>(user)->emplace_back(data, data + length);
                      },
                      &frames),
                  KORVALEN_OK);
    }
    for (size_t i = 0; i + perCall <= tone.size(); i += perCall) {
        CODE_INPUT in{};
        in.data = reinterpret_cast<const uint8_t*>(tone.data() + i);
        in.length = static_cast<uint32_t>(perCall * 2);
        CODE_OUTPUT out;
        EXPECT_EQ(CODE_Encoder(&enc, &in, &out), KORVALEN_OK);
        if (type != KORVALEN_CODEC_MP2 && out.length) {
            frames.emplace_back(out.data, out.data + out.length);
        }
    }
    CODE_FreeCode(&enc);
    return frames;
}

} // namespace

// Encoders keep a 1 kHz tone: encode, decode with the matching decoder,
// check frequency and level. G.711 gives one byte a sample; AAC comes as ADTS
// frames straight into the AAC decoder; MP2 from an 8 kHz mono capture is
// decoded back to 8 kHz (2 s at 44.1 kHz: 76 frames less the remainder).
TEST(AudioEncode, RoundTripsKeepTone)
{
    uint64_t liveBefore = QMX_HeapLiveBytes();
    const double amp = 8000;
    const double inputRms = amp / std::sqrt(2.0);
    struct Case {
        uint32_t type, rate, seconds, perCall;
        size_t minFrames, skip;
        double freqTol, dbTol;
    };
    for (const Case& c : {Case{KORVALEN_CODEC_G711U, 8000, 1, 160, 50, 0, 2.0, 0.3},
                          Case{KORVALEN_CODEC_G711A, 8000, 1, 160, 50, 0, 2.0, 0.3},
                          Case{KORVALEN_CODEC_AAC, 16000, 1, 1024, 11, 2048, 3.0, 1.0},
                          Case{KORVALEN_CODEC_MP2, 8000, 2, 320, 74, 1600, 3.0, 1.0}}) {
        SCOPED_TRACE(c.type);
        auto tone = Tone(c.rate, 1000, amp, c.rate * c.seconds);
        CODE_PARAM p{};
        p.sampleRate = c.rate;
        p.channels = c.type == KORVALEN_CODEC_MP2 ? 1 : 0;
        auto frames = EncodeTone(c.type, p, tone, c.perCall);
        EXPECT_GE(frames.size(), c.minFrames);
        if (c.type != KORVALEN_CODEC_AAC && c.type != KORVALEN_CODEC_MP2) {
            EXPECT_EQ(frames.size(), 50u);
            EXPECT_TRUE(std::all_of(frames.begin(), frames.end(), [](const Bytes& f) { return f.size() == 160; }));
        }
        auto pcm = DecodeAudio(c.type, frames, c.rate, 1);
        ToneInfo t = AnalyseTone(pcm, c.rate, c.skip);
        EXPECT_NEAR(t.frequency, 1000.0, c.freqTol);
        EXPECT_NEAR(Db(t.rms / inputRms), 0.0, c.dbTol);
        if (c.skip == 0) {
            EXPECT_GT(Snr(tone, pcm), 30.0);
        }
    }
    EXPECT_EQ(QMX_HeapLiveBytes(), liveBefore);
}

// Type and direction checks, and the refusals of the encoders.
TEST(CodecManager, TypesDirectionsAndRefusals)
{
    LogCapture log;
    for (uint32_t dir : {CODE_DIR_DECODER, CODE_DIR_ENCODER}) {
        for (uint32_t type : {KORVALEN_CODEC_IVA, KORVALEN_CODEC_NONE, 200u}) {
            CODE_HANDLE h{};
            EXPECT_EQ(CODE_CreateCode(dir, type, nullptr, &h), KORVALEN_ERR_INVALID_PARAM) << dir << " " << type;
            EXPECT_EQ(h.codecType, -1);
        }
    }
    for (uint32_t type : {KORVALEN_CODEC_H264, KORVALEN_CODEC_H265}) {
        CODE_HANDLE h{};
        EXPECT_EQ(CODE_CreateCode(CODE_DIR_ENCODER, type, nullptr, &h), KORVALEN_ERR_NOT_SUPPORTED);
    }

    CODE_HANDLE enc{}, dec{};
    ASSERT_EQ(CODE_CreateCode(CODE_DIR_ENCODER, KORVALEN_CODEC_G711U, nullptr, &enc), KORVALEN_OK);
    ASSERT_EQ(CODE_CreateCode(CODE_DIR_DECODER, KORVALEN_CODEC_G711U, nullptr, &dec), KORVALEN_OK);
    const Bytes data(3002, 0);
    CODE_INPUT in = CodeInput(data);
    CODE_OUTPUT out;
    EXPECT_EQ(CODE_Decoder(&enc, &in, &out), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("CODE_Decoder fail, not decord"));
    EXPECT_EQ(CODE_Encoder(&dec, &in, &out), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("CODE_Encoder fail, not encord"));
    EXPECT_EQ(CODE_Encoder(&enc, nullptr, &out), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("CODE_Encoder fail, Param is null"));
    EXPECT_EQ(CODE_Encoder(&enc, &in, &out), 1u) << "1501 samples do not fit the 1500-byte buffer";
    EXPECT_TRUE(log.Has("G711U Encoder failed(retcode:-1)"));
    CODE_FreeCode(&enc);
    CODE_FreeCode(&dec);

    EXPECT_EQ(CODE_SetMp2DataCallBack(&enc, nullptr, nullptr), KORVALEN_ERR_INVALID_PARAM);
    EXPECT_TRUE(log.Has("CODE_SetMp2DataCallBack fail, Param is null"));

    // Out of memory while creating: 3 with the log line, nothing kept.
    uint64_t liveBefore = QMX_HeapLiveBytes();
    QMX_HeapFailAt(1);
    EXPECT_EQ(CODE_CreateCode(CODE_DIR_DECODER, KORVALEN_CODEC_G711A, nullptr, &dec), KORVALEN_ERR_NO_MEMORY);
    EXPECT_TRUE(log.Has("QMX_HeapMalloc failed"));
    QMX_HeapFailAt(2);
    EXPECT_EQ(CODE_CreateCode(CODE_DIR_DECODER, KORVALEN_CODEC_MP2, nullptr, &dec), KORVALEN_ERR_NO_MEMORY);
    QMX_HeapFailAt(2);
    CODE_PARAM p{};
    p.sampleRate = 8000;
    p.channels = 1;
    EXPECT_EQ(CODE_CreateCode(CODE_DIR_ENCODER, KORVALEN_CODEC_MP2, &p, &enc), 1u);
    QMX_HeapFailAt(0);
    EXPECT_EQ(QMX_HeapLiveBytes(), liveBefore);

    // MP2 takes at most 6000 bytes a call.
    p.sampleRate = 8000;
    p.channels = 1;
    ASSERT_EQ(CODE_CreateCode(CODE_DIR_ENCODER, KORVALEN_CODEC_MP2, &p, &enc), KORVALEN_OK);
    const Bytes pcm(6001, 0);
    in = CodeInput(pcm);
    EXPECT_EQ(CODE_Encoder(&enc, &in, &out), KORVALEN_ERR_INVALID_PARAM);
    in.length = 6000;
    EXPECT_EQ(CODE_Encoder(&enc, &in, &out), KORVALEN_OK);
    CODE_FreeCode(&enc);

    // Encoder set-up refusals.
    p.sampleRate = 12345;
    EXPECT_EQ(CODE_CreateCode(CODE_DIR_ENCODER, KORVALEN_CODEC_AAC, &p, &enc), 1u);
    EXPECT_TRUE(log.Has("CODE_CreateCode fail, dsp_faac_enc_init fail, dsp_error("));
    p.channels = 0;
    p.sampleRate = 8000;
    EXPECT_EQ(CODE_CreateCode(CODE_DIR_ENCODER, KORVALEN_CODEC_MP2, &p, &enc), 1u);
    EXPECT_TRUE(log.Has("resample init failed, error code is "));
    EXPECT_EQ(QMX_HeapLiveBytes(), liveBefore);
}
