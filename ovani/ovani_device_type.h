// What a host is, by what it tells about itself. All rules are case-sensitive substring searches; the first
// that matches wins.
#pragma once

// Written to a host object as decimal text. The spelling of the prefix is the one management software knows.
enum {
    DIVCIE_TYPE_UNKNOWN = 0,
    DIVCIE_TYPE_AGENT = 1,
    DIVCIE_TYPE_ROUTER = 2, // no rule gives it
    DIVCIE_TYPE_PHONE = 3,
    DIVCIE_TYPE_PAD = 4, // no rule gives it
    DIVCIE_TYPE_PC = 5,
    DIVCIE_TYPE_OTT = 6,
    DIVCIE_TYPE_CAMERA = 7,
    DIVCIE_TYPE_IOT = 8,
    DIVCIE_TYPE_SLAVEAP = 9,
    DIVCIE_TYPE_MAX = 10,
};

// The longest class word fits, terminator included.
inline constexpr unsigned DEVICE_CLASS_LEN = 16;

// Type number by host name, and by DHCP option 60, as text of at most `len` bytes with its terminator. Null
// pointers are ignored.
void trans_hostnametodevtype(const char *hostname, char *devtype, int len);
void trans_opt60todevtype(const char *option60, char *devtype, int len);

// Class word ("PC", "phone", "STB", "Camera", "OTHER") of the device type a DHCP server reports, into
// DEVICE_CLASS_LEN bytes. Returns 0.
int DevType_translate(const char *DeviceType, char *DevType);
