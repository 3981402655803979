// HLS playback through the C API from a local web server (Python's
// http.server, plain and behind TLS with a certificate made here), serving
// playlists and segments ffmpeg made: every picture matches ffmpeg's own
// decode, the segment cache stays under its limit and is cleaned, and a
// missing segment or a server that goes away is reported without a crash.
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <dirent.h>
#include <mutex>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "decoded_pictures.h"
#include "korvalen.h"
#include "platform/qmx_heap.h"
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

uint16_t FreePort()
{
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    close(s);
    return ntohs(a.sin_port);
}

bool Accepts(uint16_t port)
{
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(s);
    return ok;
}

// The web server, a child process for as long as the object lives.
struct WebServer {
    pid_t pid = -1;
    uint16_t port = 0;
    bool Start(const std::string& script, const std::string& root, const std::string& cert = "",
               const std::string& key = "")
    {
        port = FreePort();
        const std::string p = std::to_string(port);
        pid = fork();
        if (pid == 0) {
            if (cert.empty()) {
                execlp("python3", "python3", script.c_str(), p.c_str(), root.c_str(), nullptr);
            } else {
                execlp("python3", "python3", script.c_str(), p.c_str(), root.c_str(), cert.c_str(), key.c_str(),
                       nullptr);
            }
            _exit(127);
        }
        for (int i = 0; i < 500; ++i) {
            if (Accepts(port)) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
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
};

struct RunMessages {
    std::mutex lock;
    std::vector<KORVALEN_RUN_MSG> got;
    bool Has(uint32_t type, uint32_t code, uint32_t value)
    {
        std::lock_guard<std::mutex> g(lock);
        for (const auto& m : got) {
            if (m.type == type && m.code == code && m.value == value) {
                return true;
            }
        }
        return false;
    }
    bool WaitFor(uint32_t type, uint32_t code, uint32_t value, int ms)
    {
        for (int i = 0; i < ms / 10; ++i) {
            if (Has(type, code, value)) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return Has(type, code, value);
    }
};
RunMessages* g_messages = nullptr;

std::atomic<uint32_t> g_soundBlocks{0};
void OnSound(uint32_t, const KORVALEN_DECODED_AUDIO* a, void*, uint32_t)
{
    g_soundBlocks += a->length > 0;
}
void OnRunMessage(const KORVALEN_RUN_MSG* m)
{
    if (g_messages) {
        std::lock_guard<std::mutex> g(g_messages->lock);
        g_messages->got.push_back(*m);
    }
}

// Cached segment files and their total size.
std::pair<size_t, uint64_t> CacheFiles(const std::string& dir)
{
    size_t n = 0;
    uint64_t bytes = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            struct stat st;
            if (name.size() > 5 && name.substr(name.size() - 5) == ".kseg" &&
                stat((dir + "/" + name).c_str(), &st) == 0) {
                ++n;
                bytes += static_cast<uint64_t>(st.st_size);
            }
        }
        closedir(d);
    }
    return {n, bytes};
}

KORVALEN_HLS_PLAY_INFO Info(const std::string& url)
{
    KORVALEN_HLS_PLAY_INFO info{};
    std::snprintf(info.url, sizeof info.url, "%s", url.c_str());
    return info;
}

class HlsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        root = TestHome() + "/hls";
        RemoveTree(root);
        mkdir(root.c_str(), 0755);
        const std::string src = "-f lavfi -i testsrc2=size=320x240:rate=25,noise=alls=30:allf=t "
                                "-f lavfi -i sine=frequency=440:sample_rate=44100 -t 4 -pix_fmt yuv420p "
                                "-c:a aac -b:a 64k ";
        const std::string quiet = "ffmpeg -hide_banner -loglevel error -y ";
        made = std::system(
                   ("mkdir -p " + root + "/ts " + root + "/fmp4 && " + quiet + src +
                    "-c:v libx264 -preset ultrafast -g 25 -crf 30 -f hls -hls_time 1 -hls_playlist_type vod "
                    "-hls_segment_filename " +
                    root + "/ts/seg%03d.ts " + root + "/ts/index.m3u8 && " + quiet + src +
                    "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=25:min-keyint=25:bframes=0 "
                    "-crf 24 -tag:v hvc1 -f hls -hls_time 1 -hls_playlist_type vod -hls_segment_type fmp4 "
                    "-hls_fmp4_init_filename init.mp4 -hls_segment_filename " +
                    root + "/fmp4/seg%03d.m4s " + root +
                    "/fmp4/index.m3u8 && "
                    "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -keyout " +
                    root + "/key.pem -out " + root + "/cert.pem 2>/dev/null")
                       .c_str()) == 0;
        FILE* f = std::fopen((root + "/server.py").c_str(), "w");
        if (f) {
            std::fputs(kServerScript, f);
            std::fclose(f);
        }
    }
    void SetUp() override
    {
        ASSERT_TRUE(made) << "ffmpeg or openssl could not make the test media";
        ASSERT_EQ(Korvalen_Init(), 1);
        cache = root + "/cache-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        ASSERT_EQ(Korvalen_SetCachePath(cache.c_str()), 1);
        ASSERT_EQ(Korvalen_AllocPort(&port), 1);
        g_messages = &messages;
        ASSERT_EQ(Korvalen_SetPlayerRunMsgCB(&OnRunMessage), 1);
        ASSERT_EQ(Korvalen_SetDecodeVideoMediaDataCB(port, &DecodedPictures::OnDecoded, 1, &pictures), 1);
        g_soundBlocks = 0;
        ASSERT_EQ(Korvalen_SetDecodeAudioMediaDataCB(port, &OnSound, 1, nullptr), 1);
    }
    void TearDown() override
    {
        Korvalen_SetPlayerRunMsgCB(nullptr);
        Korvalen_Cleanup();
        g_messages = nullptr;
        EXPECT_EQ(QMX_HeapLiveBytes(), 0u);
    }
    size_t WaitPictures(size_t n, int seconds)
    {
        for (int i = 0; i < seconds * 100; ++i) {
            {
                std::lock_guard<std::mutex> g(pictures.lock);
                if (pictures.md5s.size() >= n) {
                    break;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::lock_guard<std::mutex> g(pictures.lock);
        return pictures.md5s.size();
    }
    std::string Script() const { return root + "/server.py"; }

    static inline std::string root;
    static inline bool made = false;
    std::string cache;
    uint32_t port = 0;
    DecodedPictures pictures;
    RunMessages messages;
};

TEST_F(HlsTest, MpegTsOverHttpMatchesFfmpegAndTheCacheStaysUnderItsLimit)
{
    const std::vector<std::string> want = FfmpegFrameMd5(root + "/ts/index.m3u8", "", "-an");
    ASSERT_EQ(want.size(), 100u);
    WebServer server;
    ASSERT_TRUE(server.Start(Script(), root));
    const std::string url = "http://127.0.0.1:" + std::to_string(server.port) + "/ts/index.m3u8";

    KORVALEN_HLS_PLAY_INFO info = Info(url);
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
    for (int i = 0; i < 1500 && WaitPictures(100, 0) < 100; ++i) {
        most = std::max(most, CacheFiles(cache).second);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(WaitPictures(100, 5), 100u);
    {
        std::lock_guard<std::mutex> g(pictures.lock);
        EXPECT_EQ(pictures.md5s, want);
    }
    EXPECT_TRUE(messages.WaitFor(15, 542, 4, 3000)) << "the end of the playlist is reported";
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

TEST_F(HlsTest, Fmp4H265OverHttpsMatchesFfmpegAndSeeksBySegment)
{
    const std::vector<std::string> want = FfmpegFrameMd5(root + "/fmp4/index.m3u8", "", "-an");
    ASSERT_EQ(want.size(), 100u);
    WebServer server;
    ASSERT_TRUE(server.Start(Script(), root, root + "/cert.pem", root + "/key.pem"));
    const std::string url = "https://127.0.0.1:" + std::to_string(server.port) + "/fmp4/index.m3u8";
    ASSERT_EQ(Korvalen_OpenHlsStream(port), 1);
    KORVALEN_HLS_PLAY_INFO info = Info(url);
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    ASSERT_EQ(WaitPictures(100, 15), 100u);
    {
        std::lock_guard<std::mutex> g(pictures.lock);
        EXPECT_EQ(pictures.md5s, want);
        pictures.md5s.clear();
    }
    EXPECT_GT(g_soundBlocks.load(), 100u) << "raw AAC from fMP4 gets its ADTS headers";
    // Second 2.5 lies in the third segment: its 25 pictures, then the fourth's.
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 2), 1);
    ASSERT_EQ(WaitPictures(50, 10), 50u);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::lock_guard<std::mutex> g(pictures.lock);
    EXPECT_EQ(pictures.md5s, std::vector<std::string>(want.begin() + 50, want.end()));
}

TEST_F(HlsTest, PausedStartDeliversNothingUntilResumed)
{
    WebServer server;
    ASSERT_TRUE(server.Start(Script(), root));
    ASSERT_EQ(Korvalen_OpenHlsStream(port), 1);
    KORVALEN_HLS_PLAY_INFO info = Info("http://127.0.0.1:" + std::to_string(server.port) + "/ts/index.m3u8");
    info.flags = 1;
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_EQ(WaitPictures(1, 0), 0u);
    ASSERT_EQ(Korvalen_PausePlay(port, 0), 1);
    EXPECT_GE(WaitPictures(10, 5), 10u);
    ASSERT_EQ(Korvalen_PausePlay(port, 1), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500)); // what was queued drains
    const size_t held = WaitPictures(0, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_EQ(WaitPictures(0, 0), held) << "paused: nothing more arrives";
    EXPECT_LT(held, 100u);
}

TEST_F(HlsTest, MissingSegmentIsSkippedAndAServerThatGoesAwayIsReported)
{
    // A copy of the playlist with its second segment gone.
    const std::string dir = root + "/holes";
    ASSERT_EQ(
        std::system(("rm -rf " + dir + " && cp -r " + root + "/ts " + dir + " && rm " + dir + "/seg001.ts").c_str()),
        0);
    WebServer server;
    ASSERT_TRUE(server.Start(Script(), root));
    ASSERT_EQ(Korvalen_OpenHlsStream(port), 1);
    KORVALEN_HLS_PLAY_INFO info = Info("http://127.0.0.1:" + std::to_string(server.port) + "/holes/index.m3u8");
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    EXPECT_TRUE(messages.WaitFor(16, KORVALEN_ERR_HLS_HTTP, 1, 8000)) << "404 for segment 1";
    EXPECT_EQ(WaitPictures(75, 10), 75u) << "the other three segments play";
    EXPECT_TRUE(messages.WaitFor(15, 542, 4, 3000));

    // Start again from the first segment, then take the server away: the
    // segments not fetched yet fail as "not reachable".
    ASSERT_EQ(Korvalen_CleanCache(), 1);
    info = Info("http://127.0.0.1:" + std::to_string(server.port) + "/ts/index.m3u8");
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    server.Stop();
    bool reported = false;
    for (int i = 0; i < 1500 && !reported; ++i) {
        std::lock_guard<std::mutex> g(messages.lock);
        for (const auto& m : messages.got) {
            reported = reported || (m.type == 16 && m.code == KORVALEN_ERR_HLS_CONNECT);
        }
        if (!reported) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    EXPECT_TRUE(reported);
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
    const std::string dir = root + "/live";
    ASSERT_EQ(std::system(("rm -rf " + dir + " && mkdir -p " + dir + " && cp " + root + "/ts/*.ts " + dir).c_str()), 0);
    auto writePlaylist = [&](int segments, bool ended) {
        std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:0\n";
        for (int i = 0; i < segments; ++i) {
            char line[64];
            std::snprintf(line, sizeof line, "#EXTINF:1.000000,\nseg%03d.ts\n", i);
            text += line;
        }
        text += ended ? "#EXT-X-ENDLIST\n" : "";
        const std::string tmp = dir + "/index.m3u8.tmp";
        FILE* f = std::fopen(tmp.c_str(), "w");
        ASSERT_NE(f, nullptr);
        std::fputs(text.c_str(), f);
        std::fclose(f);
        ASSERT_EQ(std::rename(tmp.c_str(), (dir + "/index.m3u8").c_str()), 0);
    };
    writePlaylist(2, false);
    WebServer server;
    ASSERT_TRUE(server.Start(Script(), root));
    ASSERT_EQ(Korvalen_OpenHlsStream(port), 1);
    KORVALEN_HLS_PLAY_INFO info = Info("http://127.0.0.1:" + std::to_string(server.port) + "/live/index.m3u8");
    ASSERT_EQ(Korvalen_UpdatePlayInfo(port, &info, 0), 1);
    ASSERT_GE(WaitPictures(30, 10), 30u);
    writePlaylist(3, false);
    ASSERT_GE(WaitPictures(60, 10), 60u);
    writePlaylist(4, false);
    ASSERT_EQ(WaitPictures(100, 10), 100u) << "every segment as it appeared";
    {
        std::lock_guard<std::mutex> g(pictures.lock);
        EXPECT_EQ(pictures.md5s, want);
    }
    // Nothing more comes: after three target durations that is a stall.
    EXPECT_TRUE(messages.WaitFor(16, KORVALEN_ERR_HLS_STALLED, 4, 15000));
    EXPECT_FALSE(messages.Has(15, 542, 4)) << "a live playlist has no end";
}

} // namespace
