// Record file names and the division check: the names of successive divided
// files in each scheme, caller times counted from 1900, the AVI size cap and
// unique names on disk.
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "record/record_naming.h"
#include "test_env.h"

namespace {

// 2024-01-02 03:04:05 UTC.
constexpr time_t kNow = 1704164645;

struct UtcZone {
    std::string saved;
    bool had = false;
    UtcZone()
    {
        if (const char* tz = std::getenv("TZ")) {
            saved = tz;
            had = true;
        }
        setenv("TZ", "UTC", 1);
        tzset();
    }
    ~UtcZone()
    {
        if (had) {
            setenv("TZ", saved.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
};

struct Divider {
    uint32_t type;
    char base[kRecordNameMax] = {};
    char temp[kRecordNameMax] = {};
    uint32_t part = 0;
    uint32_t callerStart = 0;
    uint32_t callerEnd = 0;
    Divider(uint32_t t, const char* b) : type(t)
    {
        std::snprintf(base, sizeof base, "%s", b);
        REC_TempName(base, temp);
    }
    // One division: the closed file's final name; the next temporary name.
    std::string Divide(time_t now = kNow)
    {
        char final[kRecordNameMax];
        REC_NAMING n{type, base, temp, &part, callerStart, callerEnd, now, 7};
        REC_NameClosedFile(&n, final);
        REC_TempName(base, temp);
        return final;
    }
};

void Touch(const std::string& path)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    std::fclose(f);
}

} // namespace

TEST(RecordNaming, PlainSchemesNumberTheParts)
{
    Divider mp4(0, "/rec/cam");
    EXPECT_EQ(mp4.Divide(), "/rec/cam.mp4");
    EXPECT_STREQ(mp4.temp, "/rec/cam_part1.temp");
    EXPECT_EQ(mp4.Divide(), "/rec/cam_part1.mp4");
    EXPECT_EQ(mp4.Divide(), "/rec/cam_part2.mp4");
    EXPECT_EQ(mp4.part, 3u);

    Divider avi(14, "cam");
    EXPECT_EQ(avi.Divide(), "cam.avi");
    EXPECT_EQ(avi.Divide(), "cam_part1.avi");

    // MPEG-TS keeps the percent sign in front of "_part" once a part exists.
    Divider ts(1, "cam");
    EXPECT_EQ(ts.Divide(), "cam.ts");
    EXPECT_EQ(ts.Divide(), "cam_part1.ts");
    EXPECT_EQ(ts.Divide(), "cam%_part2.ts");
}

TEST(RecordNaming, TimeSchemes)
{
    UtcZone utc;
    Divider end(3, "/rec/cam_1");
    EXPECT_EQ(end.Divide(), "/rec/cam_1_E20240102030405.ts");
    EXPECT_STREQ(end.base, "/rec/cam_S20240102030405");
    EXPECT_EQ(end.Divide(kNow + 61), "/rec/cam_S20240102030405_E20240102030506.ts");

    LogCapture log;
    Divider noUnderscore(2, "cam");
    EXPECT_EQ(noUnderscore.Divide(), "cam_E20240102030405.mp4");
    EXPECT_STREQ(noUnderscore.base, "cam") << "stays as it is";
    EXPECT_TRUE(log.Has("Port [007] Player_CreateNewFile warm, not find file name"));

    // Caller times replace the temporary name from its last "_"; a time
    // counted from 1900 names the same moment as its 1970 form.
    Divider caller(12, "/rec/cam_1");
    caller.callerStart = kNow;
    caller.callerEnd = static_cast<uint32_t>(kNow + 3600 + kRecordCallerEpochShift);
    EXPECT_EQ(caller.Divide(), "/rec/cam_S20240102030405_E20240102040405.mp4");
    // Without both times the end-time scheme applies.
    Divider half(20, "/rec/cam_1");
    half.callerStart = kNow;
    EXPECT_EQ(half.Divide(), "/rec/cam_1_E20240102030405.avi");

    const std::tm t1900 = REC_CallerTime(static_cast<uint32_t>(kNow + kRecordCallerEpochShift), kNow);
    const std::tm t1970 = REC_CallerTime(static_cast<uint32_t>(kNow), kNow);
    EXPECT_EQ(std::mktime(const_cast<std::tm*>(&t1900)), std::mktime(const_cast<std::tm*>(&t1970)));
}

TEST(RecordNaming, DivisionCheck)
{
    constexpr uint64_t MiB = 1048576;
    // MP4 and TS: at the size limit; no limit, no division by size.
    EXPECT_EQ(REC_NeedDivide(0, 10 * MiB, 0, 10 * MiB - 1, kNow, kNow), 0u);
    EXPECT_EQ(REC_NeedDivide(0, 10 * MiB, 0, 10 * MiB, kNow, kNow), 1u);
    EXPECT_EQ(REC_NeedDivide(1, 0, 0, 5000 * MiB, kNow, kNow), 0u);
    // AVI never passes 2000 MiB, whatever the limit.
    EXPECT_EQ(REC_NeedDivide(14, 4000 * MiB, 0, kRecordAviSizeMax - 1, kNow, kNow), 0u);
    EXPECT_EQ(REC_NeedDivide(14, 4000 * MiB, 0, kRecordAviSizeMax, kNow, kNow), 1u);
    EXPECT_EQ(REC_NeedDivide(18, 100 * MiB, 0, 100 * MiB, kNow, kNow), 1u);
    // Time: strictly more than the limit.
    EXPECT_EQ(REC_NeedDivide(0, 0, 60, 0, kNow + 60, kNow), 0u);
    EXPECT_EQ(REC_NeedDivide(0, 0, 60, 0, kNow + 61, kNow), 1u);
    // Unknown record types have no size rule.
    EXPECT_EQ(REC_NeedDivide(5, 10 * MiB, 0, 20 * MiB, kNow, kNow), 0u);
}

TEST(RecordNaming, UniqueNamesOnDisk)
{
    const std::string dir = TestHome() + "/unique";
    mkdir(dir.c_str(), 0755);
    Touch(dir + "/a.mp4");
    Touch(dir + "/a(1).mp4");
    char name[kRecordNameMax];
    std::snprintf(name, sizeof name, "%s/a.mp4", dir.c_str());
    EXPECT_EQ(Player_IsFileExist(8, name, sizeof name), 0u);
    EXPECT_EQ(std::string(name), dir + "/a(2).mp4");

    std::snprintf(name, sizeof name, "%s/a.mp4", dir.c_str());
    EXPECT_EQ(Player_IsFileExist(0, name, sizeof name), 0u) << "type 0 names are not made unique";
    EXPECT_EQ(std::string(name), dir + "/a.mp4");

    Touch(dir + "/b.temp");
    std::snprintf(name, sizeof name, "%s/b.temp", dir.c_str());
    EXPECT_EQ(Player_IsFileExist(21, name, sizeof name), 0u);
    EXPECT_EQ(std::string(name), dir + "/b(1).temp");

    LogCapture log;
    Touch(dir + "/c.avi");
    std::snprintf(name, sizeof name, "%s/c.avi", dir.c_str());
    EXPECT_EQ(Player_IsFileExist(8, name, sizeof name), 2u) << "an MP4 type with another extension";
    EXPECT_TRUE(log.Has("Player_IsFileExist fail, not mp4 file, file path: "));
    EXPECT_EQ(Player_IsFileExist(18, name, static_cast<uint32_t>(std::strlen(name) + 3)), 2u);
    EXPECT_TRUE(log.Has("Player_IsFileExist fail, file path size not enough"));
    EXPECT_EQ(Player_IsFileExist(8, nullptr, 10), 2u);
    RemoveTree(dir);
}
