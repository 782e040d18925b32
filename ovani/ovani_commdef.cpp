#include "ovani/ovani_commdef.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <sys/sysinfo.h>

#include "ovani/ovani_log.h"

int decimal_value(const char *text)
{
    if (text == nullptr) {
        return 0;
    }
    long value = strtol(text, nullptr, 10);
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}

bool is_address_text(const char *text)
{
    std::string_view address{text_or_empty(text)};
    return !address.empty() && address.size() < INET6_ADDRSTRLEN &&
           std::ranges::all_of(address,
                               [](unsigned char c) { return isxdigit(c) != 0 || c == ':' || c == '.'; });
}

number_text decimal_text(long number)
{
    number_text text{};
    std::to_chars(text.begin(), text.end(), number);
    return text;
}

void ovani_strToLower(char *string)
{
    if (string == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_strToLower, string NULLP error.\r\n");
        return;
    }
    for (char *c = string; *c != '\0'; ++c) {
        *c = static_cast<char>(tolower(static_cast<unsigned char>(*c)));
    }
}

void ovani_strToUpper(char *string)
{
    if (string == nullptr) {
        ovani_log(VELM_LOG_ERR, "ovani_strToUpper, string NULLP error.\r\n");
        return;
    }
    for (char *c = string; *c != '\0'; ++c) {
        *c = static_cast<char>(toupper(static_cast<unsigned char>(*c)));
    }
}

void ovani_get_curr_time(char *szTime, unsigned int szTimeBuffLen)
{
    if (szTime == nullptr) {
        return;
    }
    if (szTimeBuffLen < OVANI_TIME_BUFF_LEN) {
        ovani_log(VELM_LOG_ERR, "szTimeBuffLen=%d,overrun error", static_cast<int>(szTimeBuffLen));
    }
    // Every event asks: within a second the answer is the same.
    thread_local time_t second = -1;
    thread_local char text[OVANI_TIME_BUFF_LEN];
    time_t now = time(nullptr);
    if (now != second) {
        second = now;
        tm local{};
        localtime_r(&now, &local);
        snprintf(text, sizeof text, "%4.4d-%2.2d-%2.2d#%2.2d:%2.2d:%2.2d", local.tm_year + 1900,
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    }
    if (szTimeBuffLen > 0) {
        szTime[std::string_view{text}.copy(szTime, szTimeBuffLen - 1)] = '\0';
    }
}

long ovani_get_system_uptime()
{
    struct sysinfo info {};
    return sysinfo(&info) == 0 ? info.uptime : 0;
}

char *ovani_ipv4_ltostr(unsigned long ip)
{
    static char text[INET_ADDRSTRLEN];
    char *out = text;
    for (unsigned shift = 32; shift > 0; shift -= 8) {
        if (out != text) {
            *out++ = '.';
        }
        out = std::to_chars(out, std::end(text), ip >> (shift - 8) & 0xff).ptr;
    }
    *out = '\0';
    return text;
}

unsigned long ovani_ipv4_strtol(const char *ipStr)
{
    return ntohl(ipStr == nullptr ? INADDR_NONE : inet_addr(ipStr));
}

namespace {

mac_text format_mac(const unsigned char *mac, std::string_view separator)
{
    constexpr char digits[] = "0123456789ABCDEF";
    mac_text text{};
    char *out = text.data();
    for (size_t i = 0; i < OVANI_MAC_LEN; ++i) {
        if (i > 0) {
            out = std::copy(separator.begin(), separator.end(), out);
        }
        *out++ = digits[mac[i] >> 4];
        *out++ = digits[mac[i] & 0xf];
    }
    return text;
}

} // namespace

mac_text mac_colon_text(const unsigned char *mac)
{
    return format_mac(mac, ":");
}

mac_text mac_bare_text(const unsigned char *mac)
{
    return format_mac(mac, "");
}

int ovani_mac_to_str(const unsigned char *mac_in, unsigned char *mac_str)
{
    std::ranges::copy(mac_colon_text(mac_in), mac_str);
    return R_OK;
}

int ovani_mac_to_upstr(const unsigned char *mac_in, unsigned char *mac_str)
{
    std::ranges::copy(mac_bare_text(mac_in), mac_str);
    return R_OK;
}

// Deliberately takes the whole alphabet: letters beyond F give 16 to 35.
static int ovani_hex2num(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'Z') {
        return c - 'A' + 10;
    }
    ovani_log(VELM_LOG_DEBUG, "unexpected char: %c", c);
    return 0;
}

int ovani_str2mac(const char *szMac, char *pMac)
{
    if (szMac == nullptr || pMac == nullptr) {
        return 0;
    }
    constexpr size_t last_index = 16;
    size_t o = 0;
    for (size_t i = 0; i <= last_index && szMac[i] != '\0'; ++i) {
        if (szMac[i] == ':') {
            continue;
        }
        if (szMac[i + 1] == '\0') {
            return 0;
        }
        pMac[o++] = static_cast<char>(16 * ovani_hex2num(szMac[i]) + ovani_hex2num(szMac[i + 1]));
        if (o == OVANI_MAC_LEN) {
            return 1;
        }
        ++i;
    }
    return 0;
}

int ovani_str2mac2(const char *szMac, char *pMac)
{
    std::string_view text{text_or_empty(szMac)};
    for (size_t i = 0; i < OVANI_MAC_LEN; ++i) {
        char pair[3] = {};
        if (2 * i < text.size()) {
            copy_text(pair, text.substr(2 * i, 2));
        }
        pMac[i] = static_cast<char>(strtoul(pair, nullptr, 16));
    }
    return 0;
}

namespace {

constexpr size_t BARE_MAC_LENGTH = 12;
constexpr size_t COLON_MAC_LENGTH = 17;

char *insert_colons(std::string_view bare, int (*change_case)(int), char *out)
{
    size_t written = 0;
    for (char c : bare) {
        if (written == COLON_MAC_LENGTH) {
            break;
        }
        if ((written + 1) % 3 == 0) {
            *out++ = ':';
            ++written;
        }
        *out++ = static_cast<char>(change_case(static_cast<unsigned char>(c)));
        ++written;
    }
    return out;
}

} // namespace

int mac_form_translate(const char *frommac, int type, char *tomac)
{
    std::string_view from{text_or_empty(frommac)};
    if (from.size() < BARE_MAC_LENGTH || from.size() > COLON_MAC_LENGTH) {
        return -1;
    }
    bool has_colons = from.find(':') != std::string_view::npos;
    char *end = tomac;
    if (has_colons && type == MAC_FORM_BARE_UPPER) {
        for (char c : from) {
            if (c != ':') {
                *end++ = static_cast<char>(toupper(static_cast<unsigned char>(c)));
            }
        }
    } else if (has_colons) {
        end = std::ranges::copy(from, tomac).out;
    } else if (type == MAC_FORM_COLON_UPPER) {
        end = insert_colons(from, toupper, tomac);
    } else if (type == MAC_FORM_COLON_LOWER) {
        end = insert_colons(from, tolower, tomac);
    } else {
        end = std::ranges::copy(from.substr(0, BARE_MAC_LENGTH), tomac).out;
    }
    *end = '\0';
    return 0;
}

bool is_bare_mac(const char *text)
{
    std::string_view mac{text_or_empty(text)};
    return mac.size() == BARE_MAC_LENGTH &&
           std::ranges::all_of(mac, [](unsigned char c) { return isxdigit(c) != 0; });
}
