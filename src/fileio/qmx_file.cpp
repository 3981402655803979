#include "fileio/qmx_file.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "korvalen_types.h"
#include "log/log.h"

namespace {

constexpr size_t kPathMax = 256;

bool IsSeparator(char c)
{
    return c == '/'; // a backslash is an ordinary character of a file name here
}

} // namespace

FILE* QMX_FileOpen(const char* name, const char* mode, uint32_t* error)
{
    uint32_t dummy = 0;
    uint32_t& err = error ? *error : dummy;
    const bool write = mode && std::strcmp(mode, "wb") == 0;
    if (!mode || (!write && std::strcmp(mode, "rb") != 0)) {
        FILE_LOG(KORVALEN_LOG_ERROR, "QMX_FileOpen fail, func not support type:%s", mode ? mode : "(null)");
        err = KORVALEN_ERR_INVALID_PARAM;
        return nullptr;
    }
    if (!name || name[0] == '\0') {
        FILE_LOG(KORVALEN_LOG_ERROR, "QMX_FileOpen fail, File name is empty");
        err = KORVALEN_ERR_INVALID_PARAM;
        return nullptr;
    }
    FILE* f = std::fopen(name, mode);
    if (f) {
        err = KORVALEN_OK;
        return f;
    }
    if (errno == EACCES) {
        FILE_LOG(KORVALEN_LOG_ERROR, "QMX_FileOpen fail, File is eacces");
        err = kFileErrAccess;
        return nullptr;
    }
    if (!write) {
        FILE_LOG(KORVALEN_LOG_ERROR, "QMX_FileOpen fail, File not find");
        err = kFileErrNotFound;
        return nullptr;
    }
    uint32_t dirErr = QMX_CreateDir(name);
    if (dirErr != KORVALEN_OK) {
        FILE_LOG(KORVALEN_LOG_ERROR, "QMX_FileOpen fail, QMX_CreateDir fail, error(%d)", dirErr);
        err = dirErr;
        return nullptr;
    }
    f = std::fopen(name, mode);
    if (!f) {
        FILE_LOG(KORVALEN_LOG_ERROR, "QMX_FileOpen fail, fopen fail, systemerror(%d)", errno);
        err = kFileErrGeneral;
        return nullptr;
    }
    err = KORVALEN_OK;
    return f;
}

uint32_t QMX_FileRead(FILE* file, void* buffer, uint32_t* length)
{
    if (!file || !buffer || !length || *length == 0) {
        FILE_LOG(KORVALEN_LOG_ERROR, "QMX_FileRead fail, input param is invalid");
        return KORVALEN_ERR_INVALID_PARAM;
    }
    size_t n = std::fread(buffer, 1, *length, file);
    if (n == 0) {
        FILE_LOG(KORVALEN_LOG_INFO, "QMX_FileRead info, File read end");
        return KORVALEN_ERR_FILE_END;
    }
    *length = static_cast<uint32_t>(n);
    return KORVALEN_OK;
}

uint32_t QMX_FileWrite(FILE* file, const void* buffer, uint32_t length)
{
    if (!file || !buffer) {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    if (std::fwrite(buffer, 1, length, file) != length) {
        FILE_LOG(KORVALEN_LOG_ERROR, "QMX_FileWrite fail, disk space full");
        return KORVALEN_ERR_DISK_FULL;
    }
    return KORVALEN_OK;
}

uint32_t QMX_CreateDir(const char* path)
{
    if (!path || path[0] == '\0') {
        return KORVALEN_ERR_INVALID_PARAM;
    }
    char dir[kPathMax + 1] = {};
    std::strncpy(dir, path, kPathMax);
    char* cut = nullptr;
    for (char* p = dir; *p; ++p) {
        if (IsSeparator(*p)) {
            cut = p;
        }
    }
    if (!cut) {
        FILE_LOG(KORVALEN_LOG_ERROR, "QMX_CreateDir fail, not find '\\'");
        return kFileErrGeneral;
    }
    *cut = '\0';
    if (dir[0] == '\0') {
        return kFileErrGeneral; // the root cannot be made
    }
    if (mkdir(dir, 0755) != 0) {
        uint32_t err = QMX_CreateDir(dir);
        if (err != KORVALEN_OK) {
            return err;
        }
        if (mkdir(dir, 0755) != 0) {
            FILE_LOG(KORVALEN_LOG_ERROR, "QMX_CreateDir fail, _mkdir fail");
            return kFileErrGeneral;
        }
    }
    return KORVALEN_OK;
}

uint32_t QMX_FileSeek(FILE* file, int64_t offset, int whence)
{
    if (!file || fseeko(file, static_cast<off_t>(offset), whence) != 0) {
        return KORVALEN_ERR_FILE_READ;
    }
    return KORVALEN_OK;
}

int64_t QMX_FileTell(FILE* file)
{
    return file ? static_cast<int64_t>(ftello(file)) : -1;
}

void QMX_FileClose(FILE* file)
{
    if (file) {
        std::fclose(file);
    }
}
