// HLS playlists as servers write them (and as they should not), and the
// segment cache's least-recently-used bound.
#include <cstdio>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gtest/gtest.h>

#include "korvalen_types.h"
#include "source/hls/hls_cache.h"
#include "source/hls/hls_playlist.h"
#include "test_env.h"

namespace {

uint32_t Parse(const std::string& text, HLS_PLAYLIST* p, const std::string& base = "http://h:8080/a/b/index.m3u8")
{
    return HLS_ParsePlaylist(text.data(), text.size(), base, p);
}

TEST(HlsPlaylist, MediaPlaylistsGiveSegmentsTimesAndAbsoluteAddresses)
{
    HLS_PLAYLIST p;
    ASSERT_EQ(Parse("\xEF\xBB\xBF#EXTM3U\r\n#EXT-X-TARGETDURATION:2\r\n#EXT-X-MEDIA-SEQUENCE:41\r\n"
                    "#EXT-X-PROGRAM-DATE-TIME:2026-11-22T10:00:00.500+01:00\r\n"
                    "#EXTINF:2.0,\r\nseg41.ts?k=v\r\n#EXTINF:1.5,title\r\n/root/seg42.ts\r\n"
                    "#EXT-X-MAP:URI=\"init.mp4\"\r\n#EXTINF:2,\r\n//cdn/seg43.m4s\r\n"
                    "#EXTINF:2,\r\nhttps://x/seg44.m4s\r\n",
                    &p),
              KORVALEN_OK);
    EXPECT_FALSE(p.master);
    EXPECT_FALSE(p.ended) << "live: no end list";
    ASSERT_EQ(p.segments.size(), 4u);
    EXPECT_EQ(p.segments[0].url, "http://h:8080/a/b/seg41.ts?k=v");
    EXPECT_EQ(p.segments[1].url, "http://h:8080/root/seg42.ts");
    EXPECT_EQ(p.segments[2].url, "http://cdn/seg43.m4s");
    EXPECT_EQ(p.segments[3].url, "https://x/seg44.m4s");
    EXPECT_TRUE(p.segments[1].initUrl.empty());
    EXPECT_EQ(p.segments[3].initUrl, "http://h:8080/a/b/init.mp4");
    EXPECT_EQ(p.segments[2].sequence, 43);
    EXPECT_DOUBLE_EQ(p.segments[2].start, 3.5);
    EXPECT_DOUBLE_EQ(p.total, 7.5);
    // 10:00:00.5 at +01:00 is 09:00:00.5 UTC; each segment follows on.
    const int64_t t0 = 1795338000500; // 2026-11-22T09:00:00.5Z
    EXPECT_EQ(p.segments[0].utcMs, t0);
    EXPECT_EQ(p.segments[1].utcMs, t0 + 2000);

    EXPECT_EQ(HLS_FindSegmentByTime(p, 0), 0);
    EXPECT_EQ(HLS_FindSegmentByTime(p, 3.49), 1);
    EXPECT_EQ(HLS_FindSegmentByTime(p, 3.5), 2);
    EXPECT_EQ(HLS_FindSegmentByTime(p, 7.5), -1) << "the end is no segment";
    EXPECT_EQ(HLS_FindSegmentByUtc(p, t0 + 3000), 1);
    EXPECT_EQ(HLS_FindSegmentByUtc(p, t0 - 1), -1);

    ASSERT_EQ(Parse("#EXTM3U\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXTINF:1,\na.ts\n", &p), KORVALEN_OK);
    EXPECT_TRUE(p.ended) << "a VOD playlist never grows";

    ASSERT_EQ(Parse("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=800000,CODECS=\"avc1.4d401e,mp4a.40.2\"\nlow.m3u8\n"
                    "#EXT-X-STREAM-INF:BANDWIDTH=2500000\nhttp://o/high.m3u8\n",
                    &p),
              KORVALEN_OK);
    ASSERT_TRUE(p.master);
    ASSERT_EQ(p.variants.size(), 2u);
    EXPECT_EQ(p.variants[0].bandwidth, 800000u) << "a quoted comma does not end the attribute";
    EXPECT_EQ(p.variants[0].url, "http://h:8080/a/b/low.m3u8");
}

TEST(HlsPlaylist, BrokenOrUnplayablePlaylistsAreRefused)
{
    HLS_PLAYLIST p;
    const std::vector<std::string> broken = {
        "",
        "<html>404</html>",
        "#EXTM3U\nseg.ts\n",                                    // address without duration
        "#EXTM3U\n#EXTINF:-1,\nseg.ts\n",                       // negative duration
        "#EXTM3U\n#EXTINF:nan,\nseg.ts\n",                      // not a number
        "#EXTM3U\n#EXT-X-ENDLIST\n",                            // a finished playlist of nothing
        "#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\n",             // variant without its address
        "#EXTM3U\n#EXT-X-PROGRAM-DATE-TIME:yesterday\n",        // not a date
        "#EXTM3U\n#EXTINF:1,\na.ts\n#EXT-X-MEDIA-SEQUENCE:5\n", // sequence after segments
        "#EXTM3U\n#EXT-X-MAP:BYTERANGE=\"10@0\"\n",             // map without address
    };
    for (const std::string& text : broken) {
        EXPECT_EQ(Parse(text, &p), KORVALEN_ERR_HLS_PLAYLIST) << text;
    }
    EXPECT_EQ(Parse("#EXTM3U\n#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n#EXTINF:1,\na.ts\n", &p),
              KORVALEN_ERR_HLS_UNSUPPORTED);
    EXPECT_EQ(Parse("#EXTM3U\n#EXTINF:1,\n#EXT-X-BYTERANGE:100@0\na.ts\n", &p), KORVALEN_ERR_HLS_UNSUPPORTED);
    EXPECT_EQ(Parse("#EXTM3U\n#EXT-X-KEY:METHOD=NONE\n#EXTINF:1,\na.ts\n", &p), KORVALEN_OK);
    std::string huge = "#EXTM3U\n";
    huge.resize(kHlsMaxPlaylistBytes + 1, '\n');
    EXPECT_EQ(Parse(huge, &p), KORVALEN_ERR_HLS_PLAYLIST);
}

std::vector<std::string> CachedNames(const std::string& dir)
{
    std::vector<std::string> out;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string n = e->d_name;
            if (n != "." && n != "..") {
                out.push_back(n);
            }
        }
        closedir(d);
    }
    return out;
}

TEST(HlsCache, LeastRecentlyUsedSegmentsGoFirstAndOnlyOurFilesAreRemoved)
{
    const std::string dir = TestHome() + "/hls-cache-unit";
    RemoveTree(dir);
    ASSERT_EQ(HLS_CacheSetPath(dir), KORVALEN_OK);
    FILE* own = std::fopen((dir + "/notes.txt").c_str(), "w");
    ASSERT_NE(own, nullptr);
    std::fputs("the caller's file", own);
    std::fclose(own);
    ASSERT_EQ(HLS_CacheSetLimitMb(1), KORVALEN_OK);

    const std::vector<uint8_t> a(400000, 'a'), b(400000, 'b'), c(400000, 'c');
    ASSERT_EQ(HLS_CachePut("http://s/a.ts", a), KORVALEN_OK);
    ASSERT_EQ(HLS_CachePut("http://s/b.ts", b), KORVALEN_OK);
    std::vector<uint8_t> got;
    ASSERT_TRUE(HLS_CacheGet("http://s/a.ts", &got)); // a is now the most recent
    EXPECT_EQ(got, a);
    ASSERT_EQ(HLS_CachePut("http://s/c.ts", c), KORVALEN_OK);
    EXPECT_TRUE(HLS_CacheGet("http://s/a.ts", &got));
    EXPECT_FALSE(HLS_CacheGet("http://s/b.ts", &got)) << "b was used least recently";
    EXPECT_TRUE(HLS_CacheGet("http://s/c.ts", &got));
    EXPECT_EQ(got, c);
    EXPECT_EQ(HLS_CacheBytes(), 800000u);
    EXPECT_EQ(CachedNames(dir).size(), 3u) << "two segments and the caller's file";

    // Too big for the limit: not kept, nothing else pushed out.
    ASSERT_EQ(HLS_CachePut("http://s/big.ts", std::vector<uint8_t>(1100000, 'x')), KORVALEN_OK);
    EXPECT_FALSE(HLS_CacheGet("http://s/big.ts", &got));
    EXPECT_EQ(HLS_CacheBytes(), 800000u);

    // A later run finds the files and counts them against a smaller limit.
    ASSERT_EQ(HLS_CacheSetPath(""), KORVALEN_OK);
    EXPECT_EQ(HLS_CacheClean(), KORVALEN_ERR_HLS_NO_CACHE_PATH);
    EXPECT_EQ(HLS_CachePut("http://s/d.ts", a), KORVALEN_ERR_HLS_NO_CACHE_PATH);
    ASSERT_EQ(HLS_CacheSetPath(dir), KORVALEN_OK);
    EXPECT_EQ(HLS_CacheBytes(), 800000u);
    EXPECT_TRUE(HLS_CacheGet("http://s/c.ts", &got));

    ASSERT_EQ(HLS_CacheClean(), KORVALEN_OK);
    EXPECT_EQ(HLS_CacheBytes(), 0u);
    EXPECT_EQ(CachedNames(dir), std::vector<std::string>{"notes.txt"});
    EXPECT_EQ(HLS_CacheSetLimitMb(0), KORVALEN_ERR_INVALID_PARAM);
    HLS_CacheSetLimitMb(500);
    HLS_CacheSetPath("");
    RemoveTree(dir);
}

} // namespace
