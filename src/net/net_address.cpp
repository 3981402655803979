// Address classification of the remote IP text.
#include <arpa/inet.h>

#include "log/log.h"
#include "net/net_socket.h"

uint32_t NET_IsIPV4(const char* text)
{
    if (!text) {
        return 0;
    }
    const char* p = text;
    for (int group = 0; group < 4; ++group) {
        if (group > 0) {
            if (*p != '.') {
                return 0;
            }
            ++p;
        }
        uint32_t value = 0;
        int digits = 0;
        while (*p >= '0' && *p <= '9') {
            value = value * 10 + static_cast<uint32_t>(*p - '0');
            if (value >= 256) {
                return 0;
            }
            ++digits;
            ++p;
        }
        if (digits == 0) {
            return 0;
        }
    }
    // A port or a path may follow the address.
    if (*p != '\0' && *p != ':' && *p != '/') {
        return 0;
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "NET_IsIPV4 is true, ip(%s)", text);
    return 1;
}

uint32_t NET_IsIPV6(const char* text)
{
    if (!text) {
        return 0;
    }
    uint32_t separators = 0;
    uint32_t value = 0;
    uint32_t digits = 0;
    const char* p = text;
    for (; *p && *p != '/'; ++p) {
        const char c = *p;
        uint32_t d;
        if (c >= '0' && c <= '9') {
            d = static_cast<uint32_t>(c - '0');
        } else if (c >= 'a' && c <= 'f') {
            d = static_cast<uint32_t>(c - 'a' + 10);
        } else if (c >= 'A' && c <= 'F') {
            d = static_cast<uint32_t>(c - 'A' + 10);
        } else if (c == ':') {
            if (++separators == 8) {
                break; // an eighth separator ends the address
            }
            value = 0;
            digits = 0;
            continue;
        } else {
            return 0;
        }
        value = value * 16 + d;
        if (value >= 0x10000) {
            return 0;
        }
        ++digits;
    }
    // Every textual IPv6 address has two separators at least; a bare hex
    // number is not one.
    if (separators < 2 || (separators < 8 && digits == 0)) {
        return 0;
    }
    KORVALEN_LOG(KORVALEN_LOG_INFO, "NET_IsIPV6 is true, ip(%s)", text);
    return 1;
}

uint32_t QMX_IsMulticast(const char* text)
{
    if (!text) {
        return 0;
    }
    // Only the address part: a port or a path may follow.
    char host[kNetIpLen] = {};
    for (uint32_t i = 0; i + 1 < kNetIpLen && text[i] && text[i] != ':' && text[i] != '/'; ++i) {
        host[i] = text[i];
    }
    in_addr a{};
    if (inet_pton(AF_INET, host, &a) != 1) {
        return 0;
    }
    return (ntohl(a.s_addr) + 0x20000000u) < 0x10000000u ? 1 : 0;
}
