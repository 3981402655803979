// HTTP and HTTPS downloads through libavformat's protocols, stoppable from
// another thread, with failures as HLS error codes.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

// Once per process before the first download.
void HLS_NetworkInit();

// True for an http:// or https:// address.
bool HLS_IsHttpUrl(const std::string& url);

// Downloads url whole into data (at most maxBytes). stop, when not null,
// ends the download early when it becomes non-zero. 0, 1796 not reachable
// or lost, 1797 HTTP error status, 1802 time-out, 1803 TLS failure, 1800
// longer than maxBytes, 8 when stopped.
uint32_t HLS_Download(const std::string& url, std::vector<uint8_t>* data, size_t maxBytes,
                      const std::atomic<uint32_t>* stop, uint32_t timeoutMs);
