// Constants and small utilities shared by the whole daemon: result codes, texts, time, addresses. None of
// them allocates.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <unistd.h>

// Most functions return R_OK or R_ERROR. R_OK is the C library's own (4).
static_assert(R_OK == 4);
inline constexpr int R_ERROR = -1;

inline constexpr char OVANI_BR_NAME[] = "br0";
inline constexpr size_t OVANI_MAC_LEN = 6;

// "Attached to no known port", in a host's lanPortNo.
inline constexpr char OVANI_INVALID_VALUE = 0x7f;

inline constexpr size_t OVANI_MAC_STR_LEN = 32;   // what the MAC formatters fill
inline constexpr size_t OVANI_TIME_BUFF_LEN = 64; // what ovani_get_curr_time wants
inline constexpr size_t OVANI_VALUE_LEN = 256;    // a buffer handed to the configuration store for reading
inline constexpr size_t OVANI_URL_LEN = 256;      // a configuration path
inline constexpr int OVANI_STORE_WAIT_MS = 5000;  // wait for the store's lock: reads, writes, existence tests

// While this file exists, the host and MAC tables are listed to the log after events.
inline constexpr char OVANI_DEBUG_FILE[] = "/var/ovani_debug";

// --- Text

// Copies `src` into a fixed-size field, cut at its capacity and always terminated; null is empty text.
template <size_t N>
void copy_text(char (&dst)[N], std::string_view src)
{
    static_assert(N > 0);
    size_t length = src.copy(dst, N - 1);
    dst[length] = '\0';
}

template <size_t N>
void copy_text(char (&dst)[N], const char *src)
{
    copy_text(dst, src == nullptr ? std::string_view{} : std::string_view{src});
}

// A record's text pointers may be null; this is what they mean then.
inline const char *text_or_empty(const char *text)
{
    return text == nullptr ? "" : text;
}

// The decimal number at the beginning of a text, as atoi gives it on the gateway, where long is 32 bits: cut
// to the range of int. Null gives 0.
int decimal_value(const char *text);

// Whether `text` is non-empty, no longer than an IPv6 address can be, and holds nothing but hexadecimal
// digits, ':' and '.': what may be put into a command as an address.
bool is_address_text(const char *text);

// A number as decimal text: decimal_text(number).data().
using number_text = std::array<char, 24>;
number_text decimal_text(long number);

// The configuration path of an instance, or of a parameter of it: table, number, dot, parameter.
template <size_t N>
void instance_path(char (&path)[N], std::string_view table, int instance, std::string_view parameter = {})
{
    number_text number = decimal_text(instance);
    size_t length = 0;
    for (std::string_view part : {table, std::string_view{number.data()}, std::string_view{"."}, parameter}) {
        length += part.copy(path + length, N - 1 - length);
    }
    path[length] = '\0';
}

// Null is logged and ignored.
void ovani_strToLower(char *string);
void ovani_strToUpper(char *string);

// --- Time

// Writes the local time as "YYYY-MM-DD#hh:mm:ss". A length of 63 or less is logged as an overrun and still
// written to, as far as it goes.
void ovani_get_curr_time(char *szTime, unsigned int szTimeBuffLen);

// Seconds since boot; 0 when the kernel does not say.
long ovani_get_system_uptime();

// --- IPv4 addresses: numbers in host order, first octet most significant

// Dotted text in a static buffer, overwritten by the next call.
char *ovani_ipv4_ltostr(unsigned long ip);

// Malformed or null text gives 255.255.255.255, as inet_addr does.
unsigned long ovani_ipv4_strtol(const char *ipStr);

// --- MAC addresses: six bytes, colon text AA:BB:CC:DD:EE:FF, bare text AABBCCDDEEFF

// Upper-case colon and bare text. Both fill 32 bytes of `mac_str` and return R_OK.
int ovani_mac_to_str(const unsigned char *mac_in, unsigned char *mac_str);
int ovani_mac_to_upstr(const unsigned char *mac_in, unsigned char *mac_str);

// The same by value: mac_colon_text(mac).data().
using mac_text = std::array<char, OVANI_MAC_STR_LEN>;
mac_text mac_colon_text(const unsigned char *mac);
mac_text mac_bare_text(const unsigned char *mac);

// Parses colon or bare text into six bytes. Lenient: any letter counts as a digit (g is 16), and a separator
// other than ':' is only skipped where it happens to fall. Returns 1 when six bytes came out, 0 when the text
// ended first.
int ovani_str2mac(const char *szMac, char *pMac);

// Parses bare text, without validation: a pair that is not hexadecimal gives what its first digits say.
// Returns 0.
int ovani_str2mac2(const char *szMac, char *pMac);

// How mac_form_translate rewrites a text; any other number copies it.
inline constexpr int MAC_FORM_BARE_UPPER = 1;
inline constexpr int MAC_FORM_COLON_UPPER = 2;
inline constexpr int MAC_FORM_COLON_LOWER = 3;

// Converts between MAC texts. Form 1 only strips colons and forms 2 and 3 only insert them: a text that
// already has its form is copied as it is, case included. `tomac` holds at least 18 bytes. Returns 0, or -1
// when `frommac` is not 12 to 17 characters long.
int mac_form_translate(const char *frommac, int type, char *tomac);

// Whether `text` is exactly 12 hexadecimal digits.
bool is_bare_mac(const char *text);
