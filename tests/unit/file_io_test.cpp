// The file wrapper: error codes and log lines of each failure, short reads
// at the end of a file, and folder creation on the way to a written file.
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fileio/qmx_file.h"
#include "korvalen_types.h"
#include "log_capture.h"
#include "test_env.h"

TEST(FileIo, OpenRefusesBadArgumentsAndNamesTheCause)
{
    LogCapture log;
    uint32_t err = 0;
    EXPECT_EQ(QMX_FileOpen("x", "ab", &err), nullptr);
    EXPECT_EQ(err, 2u);
    EXPECT_TRUE(log.Has("QMX_FileOpen fail, func not support type:ab"));
    EXPECT_EQ(QMX_FileOpen("", "rb", &err), nullptr);
    EXPECT_EQ(err, 2u);
    EXPECT_TRUE(log.Has("QMX_FileOpen fail, File name is empty"));
    EXPECT_EQ(QMX_FileOpen((TestHome() + "/missing/file").c_str(), "rb", &err), nullptr);
    EXPECT_EQ(err, 13u);
    EXPECT_FALSE(FileExists(TestHome() + "/missing")) << "reading never makes folders";
    if (geteuid() != 0) { // root reads everything
        std::string locked = TestHome() + "/locked";
        FILE* f = QMX_FileOpen(locked.c_str(), "wb", &err);
        ASSERT_NE(f, nullptr);
        QMX_FileClose(f);
        chmod(locked.c_str(), 0);
        EXPECT_EQ(QMX_FileOpen(locked.c_str(), "rb", &err), nullptr);
        EXPECT_EQ(err, 12u);
        EXPECT_TRUE(log.Has("QMX_FileOpen fail, File is eacces"));
    }
    for (const auto& line : log.Lines()) {
        EXPECT_EQ(line.source, "module_file");
    }
}

TEST(FileIo, WritingMakesTheFolderChainAndReadingEndsWith263)
{
    const std::string path = TestHome() + "/rec/a/b/c/clip.bin";
    uint32_t err = 99;
    FILE* f = QMX_FileOpen(path.c_str(), "wb", &err);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(err, 0u);
    EXPECT_TRUE(FileExists(TestHome() + "/rec/a/b/c"));
    uint8_t data[300];
    for (int i = 0; i < 300; ++i) {
        data[i] = static_cast<uint8_t>(i);
    }
    EXPECT_EQ(QMX_FileWrite(f, data, sizeof data), 0u);
    QMX_FileClose(f);

    f = QMX_FileOpen(path.c_str(), "rb", &err);
    ASSERT_NE(f, nullptr);
    uint8_t buf[188];
    uint32_t n = 188;
    ASSERT_EQ(QMX_FileRead(f, buf, &n), 0u);
    EXPECT_EQ(n, 188u);
    n = 188;
    ASSERT_EQ(QMX_FileRead(f, buf, &n), 0u); // a short read near the end is success
    EXPECT_EQ(n, 112u);
    EXPECT_EQ(buf[111], static_cast<uint8_t>(299));
    LogCapture log;
    n = 188;
    EXPECT_EQ(QMX_FileRead(f, buf, &n), KORVALEN_ERR_FILE_END);
    EXPECT_TRUE(log.Has("QMX_FileRead info, File read end"));
    n = 0;
    EXPECT_EQ(QMX_FileRead(f, buf, &n), 2u);
    EXPECT_EQ(QMX_FileRead(nullptr, buf, &n), 2u);
    EXPECT_TRUE(log.Has("QMX_FileRead fail, input param is invalid"));
    QMX_FileClose(f);

    EXPECT_EQ(QMX_CreateDir(""), 2u);
    EXPECT_EQ(QMX_CreateDir("no_separator"), 1u);
    EXPECT_TRUE(log.Has("QMX_CreateDir fail, not find '\\'"));
}

TEST(FileIo, WriteToAFullDiskIs264)
{
    FILE* f = std::fopen("/dev/full", "wb");
    if (!f) {
        GTEST_SKIP() << "no /dev/full";
    }
    std::setvbuf(f, nullptr, _IONBF, 0); // unbuffered, so the write itself fails
    LogCapture log;
    uint8_t data[64] = {};
    EXPECT_EQ(QMX_FileWrite(f, data, sizeof data), KORVALEN_ERR_DISK_FULL);
    EXPECT_TRUE(log.Has("QMX_FileWrite fail, disk space full"));
    std::fclose(f);
}
