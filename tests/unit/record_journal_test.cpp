// Recovery refuses what it cannot trust: no journal, a journal that is not
// ours, a writer that still runs, a file with nothing playable in it.
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "record/record_journal.h"
#include "test_env.h"

namespace {

void WriteBytes(const std::string& path, const void* data, size_t n)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(data, 1, n, f);
    std::fclose(f);
}

} // namespace

TEST(RecordJournal, RecoveryRefusals)
{
    const std::string dir = TestHome() + "/journal";
    mkdir(dir.c_str(), 0755);
    const std::string temp = dir + "/cam.temp";
    WriteBytes(temp, "x", 1);
    char final[kRecordNameMax];
    EXPECT_EQ(REC_RecoverFile(temp.c_str(), false, final), 262u) << "no journal";

    WriteBytes(temp + ".journal", "not a journal at all", 20);
    EXPECT_EQ(REC_RecoverFile(temp.c_str(), false, final), 271u);

    REC_JOURNAL_HEADER h{};
    std::memcpy(h.magic, "KRJ1", 4);
    h.pid = static_cast<uint32_t>(getpid());
    h.pidStart = REC_ProcessStart(h.pid);
    ASSERT_NE(h.pidStart, 0u);
    h.recordType = 0;
    h.container = REC_CONTAINER_MP4;
    std::snprintf(h.baseName, sizeof h.baseName, "%s/cam", dir.c_str());
    WriteBytes(temp + ".journal", &h, sizeof h);
    EXPECT_EQ(REC_RecoverFile(temp.c_str(), false, final), 537u) << "this process is its writer";
    EXPECT_EQ(REC_RecoverFile(temp.c_str(), true, final), 271u) << "taken, but no stream was ever set up";

    // The same process id with another start time is another process.
    h.pidStart += 1;
    WriteBytes(temp + ".journal", &h, sizeof h);
    EXPECT_EQ(REC_RecoverFile(temp.c_str(), false, final), 271u);
    EXPECT_EQ(std::string(final), dir + "/cam.mp4") << "the name its writer would have given";

    h.container = REC_CONTAINER_TS; // does not match record type 0
    WriteBytes(temp + ".journal", &h, sizeof h);
    EXPECT_EQ(REC_RecoverFile(temp.c_str(), true, final), 271u);
    EXPECT_EQ(REC_RecoverFolder(dir.c_str()), 0u);
    EXPECT_TRUE(FileExists(temp)) << "nothing is thrown away";
    RemoveTree(dir);
}
