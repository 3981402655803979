// A recorder that runs out of disk space, or is killed, leaves files that
// play: each case runs the recorder in a child process (a file size limit
// stands in for a full disk; SIGKILL for a crash) and judges its files here.
#include <csignal>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "../unit/codec_media.h"
#include "demux/avi/avi.h"
#include "korvalen.h"
#include "record/record_journal.h"
#include "record_support.h"
#include "test_env.h"

using namespace record_support;

namespace {

constexpr rlim_t kFileLimit = 300000;

struct SurvivalTest : ::testing::Test {
    std::string dir = TestHome() + "/survive";
    std::string src = FixturePath("h264_1280x720_nob.h264");
    std::vector<Bytes> aus;
    std::vector<std::string> want;
    void SetUp() override
    {
        REQUIRE_FIXTURE(src);
        RemoveTree(dir);
        mkdir(dir.c_str(), 0755);
        aus = ReadPackets(src);
        want = FfmpegFrameMd5(src);
        ASSERT_EQ(want.size(), 25u);
    }
    void TearDown() override { RemoveTree(dir); }

    // The recorder in a child process: records every access unit into name
    // with the record type, then runs tail(port) and exits with its result.
    template <class Tail> pid_t Spawn(const std::string& name, uint32_t type, rlim_t fileLimit, Tail tail)
    {
        const pid_t pid = fork();
        if (pid == 0) {
            if (fileLimit) {
                rlimit rl{fileLimit, fileLimit};
                setrlimit(RLIMIT_FSIZE, &rl);
                signal(SIGXFSZ, SIG_IGN); // a write past the limit fails instead
            }
            uint32_t port = 0;
            if (Korvalen_Init() != 1 || Korvalen_AllocPort(&port) != 1 ||
                Korvalen_SetPlayerRunMsgCB(&RunMessages::On) != 1 ||
                Korvalen_OpenInputStream(port, nullptr, 0, 0) != 1 ||
                Korvalen_StartRecord(port, (dir + "/" + name).c_str(), type, nullptr) != 1) {
                _exit(100);
            }
            for (const Bytes& au : aus) {
                Korvalen_InputMediaData(port, au.data(), static_cast<uint32_t>(au.size()));
            }
            _exit(tail(port));
        }
        return pid;
    }
    template <class Tail> int RunChild(const std::string& name, uint32_t type, rlim_t fileLimit, Tail tail)
    {
        const pid_t pid = Spawn(name, type, fileLimit, tail);
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // The decoded pictures of path are the source's first ones; the last
    // may be cut (its data ended with the disk), so it is not compared.
    void ExpectPrefix(const std::string& path, size_t atLeast)
    {
        ExpectPicturesPrefix(FfmpegFrameMd5(path), path, atLeast, "ffmpeg");
        // The library's own readers play it too; a TS file's last frame
        // waits for a next one that never comes.
        ASSERT_EQ(Korvalen_Init(), 1);
        RunMessages::Install();
        ExpectPicturesPrefix(PlayedByLibrary(path).pictures, path, atLeast - 1, "library");
        Korvalen_Cleanup();
    }
    void ExpectPicturesPrefix(const std::vector<std::string>& got, const std::string& path, size_t atLeast,
                              const char* player)
    {
        EXPECT_GE(got.size(), atLeast) << player << ": " << path;
        ASSERT_LE(got.size(), want.size());
        for (size_t i = 0; i + 1 < got.size(); ++i) {
            EXPECT_EQ(got[i], want[i]) << player << ": " << path << " picture " << i;
        }
    }
};

// Disk full: the stop reports 264, the caller got run message 264, and the
// file holds what fitted.
int StopAfterDiskFull(uint32_t port, const std::string& temp)
{
    const int stopped = Korvalen_StopRecord(port);
    const uint32_t err = Korvalen_GetLastError();
    const bool reported = RunMessages::Get().Has(264, temp);
    return (stopped == 0 && err == 264 ? 1 : 0) | (reported ? 2 : 0);
}

} // namespace

TEST_F(SurvivalTest, DiskFullLeavesPlayableFiles)
{
    // MP4 gets its index in the space its samples held: the last ones go.
    for (uint32_t type : {0u, 14u, 1u}) {
        const std::string name = "full" + std::to_string(type);
        const int code = RunChild(name, type, kFileLimit,
                                  [&](uint32_t port) { return StopAfterDiskFull(port, dir + "/" + name + ".temp"); });
        EXPECT_EQ(code, 3) << name << ": 1 = stop answered 264, 2 = run message 264";
        const std::string file = dir + "/" + name + (type == 0 ? ".mp4" : (type == 14 ? ".avi" : ".ts"));
        struct stat st;
        ASSERT_EQ(stat(file.c_str(), &st), 0) << file;
        EXPECT_LE(static_cast<rlim_t>(st.st_size), kFileLimit);
        ExpectPrefix(file, 3);
        EXPECT_FALSE(FileExists(dir + "/" + name + ".temp.journal"));
        if (type == 14) {
            AVI_HANDLE avi = AVI_CreateAviParser(file.c_str());
            ASSERT_NE(avi, nullptr);
            EXPECT_GE(AVIF_VideoFrames(avi), 3u);
            AVI_FileClose(nullptr, avi);
        }
    }
}

TEST_F(SurvivalTest, KilledRecorderIsRecovered)
{
    // The child records, says so through a pipe, and waits to be killed.
    // AVI last: its left-over file is recovered by the next recording
    // started in its folder, in this process.
    for (uint32_t type : {0u, 1u, 14u}) {
        const std::string name = "killed" + std::to_string(type);
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        const pid_t pid = Spawn(name, type, 0, [&](uint32_t port) {
            WaitSizeSettles(port);
            const char ok = 'k';
            if (write(fds[1], &ok, 1) != 1) {
                return 1;
            }
            pause();
            return 0;
        });
        close(fds[1]);
        char c = 0;
        ASSERT_EQ(read(fds[0], &c, 1), 1);
        close(fds[0]);
        char final[kRecordNameMax];
        EXPECT_EQ(REC_RecoverFile((dir + "/" + name + ".temp").c_str(), false, final), 537u)
            << "its recorder still runs";
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        const std::string temp = dir + "/" + name + ".temp";
        ASSERT_TRUE(FileExists(temp));
        ASSERT_TRUE(FileExists(temp + ".journal"));
        if (type == 14) {
            uint32_t port = 0;
            ASSERT_EQ(Korvalen_Init(), 1);
            ASSERT_EQ(Korvalen_AllocPort(&port), 1);
            ASSERT_EQ(Korvalen_StartRecord(port, (dir + "/next").c_str(), 0, nullptr), 1);
            ASSERT_EQ(Korvalen_StopRecord(port), 1);
            Korvalen_Cleanup();
            std::snprintf(final, sizeof final, "%s/%s.avi", dir.c_str(), name.c_str());
        } else {
            ASSERT_EQ(REC_RecoverFile(temp.c_str(), false, final), 0u) << name;
        }
        ExpectPrefix(final, 20);
        EXPECT_FALSE(FileExists(temp));
    }
}
