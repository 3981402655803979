// HLS playback through the C API from a local web server (Python's
// http.server, plain and behind TLS with a certificate made here), serving
// playlists and segments ffmpeg made: every picture matches ffmpeg's own
// decode, the segment cache stays under its limit and is cleaned, and a
// missing segment or a server that goes away is reported without a crash.
#include <arpa/inet.h>
#include <atomic>
#include <filesystem>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "decoded_pictures.h"
#include "heap/qmx_heap.h"
#include "korvalen.h"
#include "port_fixture.h"
#include "run_messages.h"
#include "test_env.h"

namespace {

const char* kServerScript = R"(
import functools, http.server, ssl, sys
port, root = int(sys.argv[1]), sys.argv[2]
class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *args):
        pass
server = http.server.ThreadingHTTPServer(('127.0.0.1', port), functools.partial(Quiet, directory=root))
if len(sys.argv) > 4:
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(sys.argv[3], sys.argv[4])
    server.socket = ctx.wrap_socket(server.socket, server_side=True)
server.serve_forever()
)";

// The web server, a child process for as long as the object lives; with a
// certificate it speaks TLS.
struct WebServer {
    pid_t pid = -1;
    uint16_t port = 0;
    bool Start(const std::string& root, bool tls = false)
    {
        port = FreeLoopbackPort(SOCK_STREAM);
        const std::string script = root + "/server.py", p = std::to_string(port);
        const std::string cert = FixturePath("hls/cert.pem"), key = FixturePath("hls/key.pem");
        pid = fork();
        if (pid == 0) {
            execlp("python3", "python3", script.c_str(), p.c_str(), root.c_str(), tls ? cert.c_str() : nullptr,
                   key.c_str(), nullptr);
            _exit(127);
        }
        return WaitUntil(
            [&] {
                int s = socket(AF_INET, SOCK_STREAM, 0);
                sockaddr_in a{};
                a.sin_family = AF_INET;
                a.sin_port = htons(port);
                a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                const bool ok = connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
                close(s);
                return ok;
            },
            5000);
    }
    void Stop()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
            pid = -1;
        }
    }
    ~WebServer() { Stop(); }
    std::string Url(const std::string& path, bool tls = false) const
    {
        return (tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port) + path;
    }
};

std::atomic<uint32_t> g_soundBlocks{0};
void OnSound(uint32_t, const KORVALEN_DECODED_AUDIO* a, void*, uint32_t)
{
    g_soundBlocks += a->length > 0;
}

// Cached segment files and their total size.
std::pair<size_t, uint64_t> CacheFiles(const std::string& dir)
{
    size_t n = 0;
    uint64_t bytes = 0;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
        if (e.path().extension() == ".kseg") {
            ++n;
            bytes += e.file_size(ec);
        }
    }
    return {n, bytes};
}

KORVALEN_HLS_PLAY_INFO Info(const std::string& url)
{
    KORVALEN_HLS_PLAY_INFO info{};
    std::snprintf(info.url, sizeof info.url, "%s", url.c_str());
    return info;
}

// The web root: the fixture playlists, copies of them for a test to change,
// and the server script.
class HlsTest : public PortFixture {
protected:
    static void SetUpTestSuite()
    {
        root = TestHome() + "/hls";
        const std::string fx = FixturePath("hls");
        made =
            FixtureExists(fx + "/ts/index.m3u8") && FixtureExists(fx + "/fmp4/index.m3u8") &&
            std::system(("rm -rf " + root + " && mkdir -p " + root + " && ln -s " + fx + "/ts " + fx + "/fmp4 " + root)
                            .c_str()) == 0;
        if (FILE* f = std::fopen((root + "/server.py").c_str(), "w")) {
            std::fputs(kServerScript, f);
            std::fclose(f);
        }
    }
    void SetUp() override
    {
        if (!made) {
            GTEST_SKIP() << "missing HLS fixtures: run scripts/make_fixtures.sh " KORVALEN_FIXTURES;
        }
        ASSERT_EQ(Korvalen_Init(), 1);
        cache = root + "/cache-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        ASSERT_EQ(Korvalen_SetCachePath(cache.c_str()), 1);
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
        RunMessages::Install();
        ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &pictures), 1);
        g_soundBlocks = 0;
        ASSERT_EQ(Korvalen_SetDecodeAudioMediaDataCB(port, &OnSound, 1, nullptr), 1);
    }
    void TearDown() override
    {
        Korvalen_SetPlayerRunMsgCB(nullptr);
        PortFixture::TearDown();
    }
    // A copy of the TS playlist's segments in root/name.
    static void CopySegments(const std::string& name)
    {
        const std::string dir = root + "/" + name;
        ASSERT_EQ(std::system(("rm -rf " + dir + " && cp -r " + FixturePath("hls/ts") + " " + dir).c_str()), 0);
    }

    static inline std::string root;
    static inline bool made = false;
    std::string cache;
    DecodedPictures pictures;
    RunMessages& messages = RunMessages::Get();
};

TEST_F(HlsTest, MpegTsOverHttpMatchesFfmpegAndTheCacheStaysUnderItsLimit)
{
    const std::vector<std::string> want = FfmpegFrameMd5(root + "/ts/index.m3u8", "", "-an");
    ASSERT_EQ(want.size(), 100u);
    WebServer server;
    ASSERT_TRUE(server.Start(root));
    KORVALEN_HLS_PLAY_INFO info = Info(server.Url("/ts/index.m3u8"));
    EXPECT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_HLS_NOT_OPEN);
    ASSERT_EQ(Korvalen_OpenHlsStream(port), 1);
    ASSERT_EQ(Korvalen_SetCachePath(""), 1);
    EXPECT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_HLS_NO_CACHE_PATH);
    ASSERT_EQ(Korvalen_SetCachePath(cache.c_str()), 1);
    EXPECT_EQ(Korvalen_UpdatePlayInfo(port, &info, 4), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_HLS_TIME_NODE) << "the playlist is 4 s long";

    // The segments are about 0.4 MB each: a 1 MB cache keeps two.
    ASSERT_EQ(Korvalen_SetMaxCache(1), 1);
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    uint64_t most = 0;
    WaitUntil(
        [&] {
            most = std::max(most, CacheFiles(cache).second);
            return pictures.Count() >= 100;
        },
        15000);
    EXPECT_EQ(pictures.Md5s(), want);
    EXPECT_TRUE(messages.WaitFor(15, 542, 4)) << "the end of the playlist is reported";
    EXPECT_GT(g_soundBlocks.load(), 100u) << "the AAC sound decodes too";
    auto [files, bytes] = CacheFiles(cache);
    EXPECT_GT(files, 0u);
    EXPECT_LE(std::max(most, bytes), 1u << 20);
    EXPECT_LT(files, 4u) << "the oldest segments were evicted";

    // The playlist itself is never cached: without the server there is
    // nothing to seek in.
    server.Stop();
    EXPECT_EQ(Korvalen_UpdatePlayInfo(port, &info, 3), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_HLS_CONNECT);

    ASSERT_EQ(Korvalen_CleanCache(), 1);
    EXPECT_EQ(CacheFiles(cache).first, 0u);
    ASSERT_EQ(Korvalen_CloseHlsStream(port), 1);
}

// Also a paused start: nothing is delivered until play resumes.
TEST_F(HlsTest, Fmp4H265OverHttpsMatchesFfmpegAndSeeksBySegment)
{
    const std::vector<std::string> want = FfmpegFrameMd5(root + "/fmp4/index.m3u8", "", "-an");
    ASSERT_EQ(want.size(), 100u);
    WebServer server;
    ASSERT_TRUE(server.Start(root, true));
    ASSERT_EQ(Korvalen_OpenHlsStream(port), 1);
    KORVALEN_HLS_PLAY_INFO info = Info(server.Url("/fmp4/index.m3u8", true));
    info.flags = 1;
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    SleepMs(600);
    EXPECT_EQ(pictures.Count(), 0u) << "started paused";
    ASSERT_EQ(Korvalen_PausePlay(port, 0), 1);
    ASSERT_EQ(pictures.Wait(100, 15000), 100u);
    EXPECT_EQ(pictures.Md5s(), want);
    pictures.Clear();
    EXPECT_GT(g_soundBlocks.load(), 100u) << "raw AAC from fMP4 gets its ADTS headers";
    // Second 2.5 lies in the third segment: its 25 pictures, then the fourth's.
    info.flags = 0;
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 2), 1);
    ASSERT_EQ(pictures.Wait(50, 10000), 50u);
    SleepMs(300);
    EXPECT_EQ(pictures.Md5s(), std::vector<std::string>(want.begin() + 50, want.end()));
}

TEST_F(HlsTest, MissingSegmentIsSkippedAndAServerThatGoesAwayIsReported)
{
    // A copy of the playlist with its second segment gone.
    CopySegments("holes");
    ASSERT_EQ(std::remove((root + "/holes/seg001.ts").c_str()), 0);
    WebServer server;
    ASSERT_TRUE(server.Start(root));
    ASSERT_EQ(Korvalen_OpenHlsStream(port), 1);
    KORVALEN_HLS_PLAY_INFO info = Info(server.Url("/holes/index.m3u8"));
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    EXPECT_TRUE(messages.WaitFor(16, KORVALEN_ERR_HLS_HTTP, 1, 8000)) << "404 for segment 1";
    EXPECT_EQ(pictures.Wait(75, 10000), 75u) << "the other three segments play";
    EXPECT_TRUE(messages.WaitFor(15, 542, 4));

    // Start again from the first segment, then take the server away: the
    // segments not fetched yet fail as "not reachable".
    ASSERT_EQ(Korvalen_CleanCache(), 1);
    info = Info(server.Url("/ts/index.m3u8"));
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    SleepMs(200);
    server.Stop();
    EXPECT_TRUE(messages.WaitFor(
        [](const KORVALEN_RUN_MSG& m) { return m.type == 16 && m.code == KORVALEN_ERR_HLS_CONNECT; }, 15000));
    ASSERT_EQ(Korvalen_CloseHlsStream(port), 1);
    KORVALEN_HLS_PLAY_INFO bad = Info("ftp://127.0.0.1/x.m3u8");
    ASSERT_EQ(Korvalen_OpenHlsStream(port), 1);
    EXPECT_EQ(Korvalen_UpdatePlayInfo(port, &bad, 0), 0);
    EXPECT_EQ(Korvalen_GetLastError(), KORVALEN_ERR_HLS_URL);
}

// A live playlist, written here as a camera's server would: playback starts
// near its end, follows it as it grows, and a playlist that stops growing is
// reported.
TEST_F(HlsTest, LivePlaylistIsFollowedAsItGrowsAndAStallIsReported)
{
    const std::vector<std::string> want = FfmpegFrameMd5(root + "/ts/index.m3u8", "", "-an");
    ASSERT_EQ(want.size(), 100u);
    CopySegments("live");
    auto writePlaylist = [&](int segments) {
        std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:0\n";
        for (int i = 0; i < segments; ++i) {
            char line[64];
            std::snprintf(line, sizeof line, "#EXTINF:1.000000,\nseg%03d.ts\n", i);
            text += line;
        }
        const std::string tmp = root + "/live/index.m3u8.tmp";
        FILE* f = std::fopen(tmp.c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fputs(text.c_str(), f);
        std::fclose(f);
        ASSERT_EQ(std::rename(tmp.c_str(), (root + "/live/index.m3u8").c_str()), 0);
    };
    writePlaylist(2);
    WebServer server;
    ASSERT_TRUE(server.Start(root));
    ASSERT_EQ(Korvalen_OpenHlsStream(port), 1);
    KORVALEN_HLS_PLAY_INFO info = Info(server.Url("/live/index.m3u8"));
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    ASSERT_GE(pictures.Wait(30, 10000), 30u);
    writePlaylist(3);
    ASSERT_GE(pictures.Wait(60, 10000), 60u);
    writePlaylist(4);
    ASSERT_EQ(pictures.Wait(100, 10000), 100u) << "every segment as it appeared";
    EXPECT_EQ(pictures.Md5s(), want);
    // Nothing more comes: after three target durations that is a stall.
    EXPECT_TRUE(messages.WaitFor(16, KORVALEN_ERR_HLS_STALLED, 4, 15000));
    EXPECT_EQ(messages.Count([](const KORVALEN_RUN_MSG& m) { return m.type == 15 && m.code == 542; }), 0u)
        << "a live playlist has no end";
}

} // namespace
