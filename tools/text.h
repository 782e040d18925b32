// Text for people, made from bytes nobody vouches for: host names, vendor classes, interface
// names.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using Mac = std::array<uint8_t, 6>;

// Six hexadecimal pairs, with ':' or '-' between all of them or none.
std::optional<Mac> parse_mac(std::string_view text);
std::string format_mac(const Mac &mac); // 02:00:5e:10:00:01

// A decimal number that fills the whole text and lies within the bounds.
std::optional<long> parse_number(std::string_view text, long min, long max);

// Pairs of hexadecimal digits; blanks and ':' between pairs are skipped.
std::optional<std::vector<uint8_t>> parse_hex(std::string_view text);

// eth0 is LAN port 1; 0 for an interface that is no Ethernet port.
unsigned lan_port_of(std::string_view ifname);

// What ports are called: LAN2; an SSID by its instance in the data model, with its interface: SSID 5 (rai0).
std::string lan_port_name(int64_t number);
std::string ssid_name(int64_t instance);

// Safe on a terminal: control characters, bidirectional overrides and bytes that are not UTF-8 become \xNN.
std::string printable(std::string_view bytes);

// A value on a line of its own: as printable(), with '\\' doubled and a blank at either end as \x20, so that
// unescape() gets every byte back. Nothing for text that escape() does not produce or that holds a NUL.
std::string escape(std::string_view bytes);
std::optional<std::string> unescape(std::string_view text);

// Printable text that takes at most `width` columns of a terminal, of which a Chinese character takes two. An
// ellipsis stands for what was cut off.
std::string cut(std::string_view printable_text, size_t width);

// 45 s, 12 min, 3 h 05, 2 d 04 h.
std::string format_duration(long seconds);

// Now: 2026-01-31 12:30:01, or only the time of day.
std::string date_text();
std::string clock_text();
