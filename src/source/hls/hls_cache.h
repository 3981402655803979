// The process-wide HLS segment cache: one file per segment address in the
// caller's cache folder, bounded in bytes, the least recently used going
// first. Only files the cache itself wrote (".kseg") are ever removed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Library start-up: the limit goes back to 500 MB; the folder is kept.
void HLS_CacheStartup();

// Sets the folder, creating it; files a previous run left count against the
// limit; an empty path means no folder. 0, or 1801 when the folder cannot
// be made.
uint32_t HLS_CacheSetPath(const std::string& path);
bool HLS_CacheHasPath();
// Limit in MB (at least 1); evicts at once down to it. 0 or 2.
uint32_t HLS_CacheSetLimitMb(uint32_t mb);
// Removes every cached segment. 0, 1806 without a folder.
uint32_t HLS_CacheClean();

// The cached copy of url into data; false when not cached.
bool HLS_CacheGet(const std::string& url, std::vector<uint8_t>* data);
// Stores a segment and evicts older ones down to the limit; a segment
// larger than the limit is not kept. 0, 1806 without a folder, 1801 when
// the file cannot be written.
uint32_t HLS_CachePut(const std::string& url, const std::vector<uint8_t>& data);

// Bytes the cache holds now.
uint64_t HLS_CacheBytes();
