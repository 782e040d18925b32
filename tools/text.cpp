#include "tools/text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <cwchar>

#include "ovani/ovani_interface.h"
#include "platform/host/utf8.h"

namespace {

// Characters that move the cursor, end the line or turn the text around.
bool disturbs_terminal(char32_t c)
{
    return c < 0x20 || (c >= 0x7f && c < 0xa0) || c == 0x061c || (c >= 0x200e && c <= 0x200f) ||
           (c >= 0x2028 && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069);
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::string hex_escape(std::string_view bytes)
{
    std::string out;
    for (const char c : bytes) {
        char text[8];
        snprintf(text, sizeof text, "\\x%02X", static_cast<unsigned>(static_cast<uint8_t>(c)));
        out += text;
    }
    return out;
}

} // namespace

std::optional<Mac> parse_mac(std::string_view text)
{
    const bool separated = text.size() == 17;
    if (!separated && text.size() != 12) {
        return std::nullopt;
    }
    Mac mac{};
    for (size_t i = 0; i < mac.size(); ++i) {
        const size_t at = i * (separated ? 3 : 2);
        const auto byte = parse_hex(text.substr(at, 2));
        if (!byte || byte->size() != 1 ||
            (separated && i > 0 && text[at - 1] != ':' && text[at - 1] != '-')) {
            return std::nullopt;
        }
        mac[i] = byte->front();
    }
    return mac;
}

std::string format_mac(const Mac &mac)
{
    char text[18];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
             mac[5]);
    return text;
}

std::optional<long> parse_number(std::string_view text, long min, long max)
{
    long value = 0;
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, value);
    if (result.ec != std::errc() || result.ptr != end || value < min || value > max) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::vector<uint8_t>> parse_hex(std::string_view text)
{
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        while (i < text.size() && (text[i] == ' ' || text[i] == ':')) {
            ++i;
        }
        if (i == text.size()) {
            break;
        }
        if (i + 1 == text.size() || hex_digit(text[i]) < 0 || hex_digit(text[i + 1]) < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<uint8_t>(hex_digit(text[i]) * 16 + hex_digit(text[i + 1])));
    }
    return bytes;
}

unsigned lan_port_of(std::string_view ifname)
{
    if (!ifname.starts_with("eth")) {
        return 0;
    }
    const auto number = parse_number(ifname.substr(3), 0, 254);
    return number ? static_cast<unsigned>(*number) + 1 : 0;
}

std::string printable(std::string_view bytes)
{
    std::string out;
    while (!bytes.empty()) {
        const CodePoint c = decode_utf8(bytes);
        const size_t taken = std::max<size_t>(c.length, 1);
        if (c.length == 0 || disturbs_terminal(c.value)) {
            out += hex_escape(bytes.substr(0, taken));
        } else {
            out += bytes.substr(0, taken);
        }
        bytes.remove_prefix(taken);
    }
    return out;
}

std::string escape(std::string_view bytes)
{
    std::string doubled;
    for (const char c : bytes) {
        doubled.append(c == '\\' ? 2 : 1, c);
    }
    std::string out = printable(doubled);
    if (out.ends_with(' ')) {
        out.replace(out.size() - 1, 1, "\\x20");
    }
    if (out.starts_with(' ')) {
        out.replace(0, 1, "\\x20");
    }
    return out;
}

std::optional<std::string> unescape(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
        } else if (text.substr(i, 2) == "\\\\") {
            out += '\\';
            i += 1;
        } else {
            const auto byte = parse_hex(text.substr(std::min(i + 2, text.size()), 2));
            if (text.substr(i, 2) != "\\x" || !byte || byte->size() != 1 || byte->front() == 0) {
                return std::nullopt;
            }
            out += static_cast<char>(byte->front());
            i += 3;
        }
    }
    return printable(text) == text ? std::optional(out) : std::nullopt;
}

std::string cut(std::string_view printable_text, size_t width)
{
    size_t columns = 0;
    size_t kept = 0; // bytes that leave room for the ellipsis
    for (size_t at = 0; at < printable_text.size();) {
        const CodePoint c = decode_utf8(printable_text.substr(at));
        const int taken = wcwidth(static_cast<wchar_t>(c.value));
        columns += taken < 0 ? 1 : static_cast<size_t>(taken);
        if (columns > width) {
            return std::string(printable_text.substr(0, kept)) + (width > 0 ? "…" : "");
        }
        at += std::max<size_t>(c.length, 1);
        kept = columns < width ? at : kept;
    }
    return std::string(printable_text);
}

std::string format_duration(long seconds)
{
    char text[32];
    if (seconds < 60) {
        snprintf(text, sizeof text, "%ld s", std::max(seconds, 0L));
    } else if (seconds < 3600) {
        snprintf(text, sizeof text, "%ld min", seconds / 60);
    } else if (seconds < 86400) {
        snprintf(text, sizeof text, "%ld h %02ld", seconds / 3600, seconds / 60 % 60);
    } else {
        snprintf(text, sizeof text, "%ld d %02ld h", seconds / 86400, seconds / 3600 % 24);
    }
    return text;
}

std::string lan_port_name(int64_t number)
{
    return "LAN" + std::to_string(number);
}

std::string ssid_name(int64_t instance)
{
    constexpr int most = 8; // of a radio
    std::string name = "SSID " + std::to_string(instance);
    for (const WifiRadio &radio : WIFI_RADIOS) {
        for (int ssid = 0; ssid < most; ++ssid) {
            if (radio.port_number(ssid) == instance) {
                name.append(" (").append(radio.name).append(std::to_string(ssid)).append(")");
            }
        }
    }
    return name;
}

std::string date_text()
{
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char text[32] = "";
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string clock_text()
{
    return date_text().substr(sizeof "2026-01-31");
}
