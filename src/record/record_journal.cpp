// Journal writing, and the recovery of record files whose writer died.
#include "record/record_journal.h"
#include "record/record_mux_av.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "demux/avi/avi_file.h"
#include "demux/mp4/mp4_reader.h"
#include "heap/qmx_heap.h"
#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr uint32_t kSampleMax = 0x800000; // larger entries are not ours

bool WriterAlive(uint32_t pid, uint64_t start)
{
    if (kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM) {
        return false;
    }
    // The process id may have been given to another process since; a file
    // of this very process may still be written by one of its ports.
    return start == 0 || REC_ProcessStart(pid) == start;
}

void FinalNameOf(const REC_JOURNAL_HEADER& h, const char* tempPath, time_t when, char* finalName)
{
    char base[kRecordNameMax];
    std::snprintf(base, sizeof base, "%s", h.baseName);
    uint32_t part = h.partCounter;
    REC_NAMING n{h.recordType, base, tempPath, &part, h.callerStart, h.callerEnd, when, 0};
    REC_NameClosedFile(&n, finalName);
    if (REC_MakesUnique(h.recordType)) {
        Player_IsFileExist(h.recordType, finalName, kRecordNameMax);
    }
}

uint32_t RebuildMp4(const REC_JOURNAL_HEADER& h, std::FILE* journal, const char* tempPath, const char* finalName)
{
    std::FILE* in = std::fopen(tempPath, "rb");
    if (!in) {
        return KORVALEN_ERR_FILE_OPEN;
    }
    struct stat st;
    const uint64_t have = fstat(fileno(in), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
    auto* buf = static_cast<uint8_t*>(QMX_HeapMalloc(kSampleMax));
    REC_MUX* mux = nullptr;
    const REC_MUX_NAMING naming{h.recordType, h.baseName, h.partCounter, h.callerStart, h.callerEnd};
    uint32_t err = buf ? MUX_Open(REC_CONTAINER_MP4, finalName, &naming, &mux) : KORVALEN_ERR_NO_MEMORY;
    if (err == KORVALEN_OK) {
        REC_MUX_SETUP s{h.videoCodec, h.width, h.height, h.frameRate, h.params, h.paramLen, h.audio};
        err = MUX_Start(mux, &s);
    }
    REC_JOURNAL_ENTRY e;
    uint32_t written = 0;
    while (err == KORVALEN_OK && std::fread(&e, sizeof e, 1, journal) == 1) {
        if (e.size == 0 || e.size > kSampleMax || e.offset + e.size > have) {
            break; // the rest never reached the disk
        }
        if (fseeko(in, static_cast<off_t>(e.offset), SEEK_SET) != 0 || std::fread(buf, 1, e.size, in) != e.size) {
            break;
        }
        if (e.flags & REC_ENTRY_AUDIO) {
            err = MUX_WriteAudio(mux, buf, e.size);
        } else {
            MP4_ToAnnexB(buf, e.size);
            err = MUX_WriteVideo(mux, buf, e.size, e.pts, (e.flags & REC_ENTRY_KEY) != 0, h.frameRate);
        }
        ++written;
    }
    const uint32_t closeErr = MUX_Close(mux);
    if (err == KORVALEN_OK) {
        err = closeErr;
    }
    QMX_HeapFree(buf);
    std::fclose(in);
    if (err != KORVALEN_OK) {
        unlink(finalName);
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "REC_RecoverFile %s: %u samples into %s, error(%u)", tempPath, written, finalName,
                 err);
    return err;
}

} // namespace

uint64_t REC_ProcessStart(uint32_t pid)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%u/stat", pid);
    std::FILE* f = std::fopen(path, "r");
    if (!f) {
        return 0;
    }
    char line[1024];
    const size_t n = std::fread(line, 1, sizeof line - 1, f);
    std::fclose(f);
    line[n] = 0;
    // Field 22, counted after the command name, which may hold blanks.
    const char* at = std::strrchr(line, ')');
    for (int field = 2; at && field < 22; ++field) {
        at = std::strchr(at + 1, ' ');
    }
    return at ? std::strtoull(at + 1, nullptr, 10) : 0;
}

void REC_JournalName(const char* path, char* out, size_t cap)
{
    std::snprintf(out, cap, "%s%s", path, kJournalSuffix);
}

uint32_t REC_JournalWriteHeader(std::FILE* fp, const REC_JOURNAL_HEADER* h)
{
    if (fseeko(fp, 0, SEEK_SET) != 0 || std::fwrite(h, sizeof *h, 1, fp) != 1 || std::fflush(fp) != 0 ||
        fseeko(fp, 0, SEEK_END) != 0) {
        return KORVALEN_ERR_DISK_FULL;
    }
    return KORVALEN_OK;
}

uint32_t REC_JournalAppend(std::FILE* fp, const REC_JOURNAL_ENTRY* e)
{
    if (std::fwrite(e, sizeof *e, 1, fp) != 1 || std::fflush(fp) != 0) {
        return KORVALEN_ERR_DISK_FULL;
    }
    return KORVALEN_OK;
}

uint32_t REC_TrimTs(const char* path)
{
    struct stat st;
    if (stat(path, &st) != 0) {
        return KORVALEN_ERR_FILE_OPEN;
    }
    const off_t whole = st.st_size - st.st_size % 188;
    return whole == st.st_size || truncate(path, whole) == 0 ? KORVALEN_OK : KORVALEN_ERR_DISK_FULL;
}

uint32_t REC_RecoverFile(const char* tempPath, bool force, char* finalName)
{
    char journalName[kRecordNameMax + 16];
    REC_JournalName(tempPath, journalName, sizeof journalName);
    std::FILE* journal = std::fopen(journalName, "rb");
    struct stat st;
    if (!journal || stat(tempPath, &st) != 0) {
        if (journal) {
            std::fclose(journal);
        }
        return KORVALEN_ERR_FILE_OPEN;
    }
    REC_JOURNAL_HEADER h{};
    if (std::fread(&h, sizeof h, 1, journal) != 1 || std::memcmp(h.magic, "KRJ1", 4) != 0 ||
        h.paramLen > kRecordParamSetsMax || REC_Container(h.recordType) != h.container) {
        std::fclose(journal);
        return KORVALEN_ERR_FILE_INDEX;
    }
    h.baseName[kRecordNameMax - 1] = 0;
    if (!force && WriterAlive(h.pid, h.pidStart)) {
        std::fclose(journal);
        return KORVALEN_ERR_RECORD_STARTED;
    }
    FinalNameOf(h, tempPath, st.st_mtime, finalName);
    uint32_t err = KORVALEN_OK;
    if (!h.started) {
        err = KORVALEN_ERR_FILE_INDEX; // nothing playable was written
    } else if (h.container == REC_CONTAINER_MP4) {
        err = RebuildMp4(h, journal, tempPath, finalName);
        if (err == KORVALEN_OK) {
            unlink(tempPath);
        }
    } else {
        err = h.container == REC_CONTAINER_AVI ? AVIF_Repair(tempPath) : REC_TrimTs(tempPath);
        if (err == KORVALEN_OK && std::rename(tempPath, finalName) != 0) {
            err = KORVALEN_ERR_FILE_OPEN;
        }
    }
    std::fclose(journal);
    if (err == KORVALEN_OK) {
        unlink(journalName);
        KORVALEN_LOG(KORVALEN_LOG_INFO, "REC_RecoverFile success, %s -> %s", tempPath, finalName);
    } else {
        KORVALEN_LOG(KORVALEN_LOG_ERROR, "REC_RecoverFile fail, %s, error(%d)", tempPath, err);
    }
    return err;
}

uint32_t REC_RecoverFolder(const char* dir)
{
    DIR* d = opendir(dir);
    if (!d) {
        return 0;
    }
    uint32_t count = 0;
    const size_t suffix = std::strlen(kJournalSuffix);
    while (dirent* e = readdir(d)) {
        const size_t n = std::strlen(e->d_name);
        if (n <= suffix + 5 || std::strcmp(e->d_name + n - suffix, kJournalSuffix) != 0) {
            continue;
        }
        std::string temp = std::string(dir) + "/" + std::string(e->d_name, n - suffix);
        if (temp.size() < 5 || temp.compare(temp.size() - 5, 5, ".temp") != 0 || temp.size() >= kRecordNameMax) {
            continue;
        }
        char finalName[kRecordNameMax];
        if (REC_RecoverFile(temp.c_str(), false, finalName) == KORVALEN_OK) {
            ++count;
        }
    }
    closedir(d);
    return count;
}
