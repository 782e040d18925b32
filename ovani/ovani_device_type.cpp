#include "ovani/ovani_device_type.h"

#include <cstdio>
#include <cstring>
#include <span>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"

namespace {

struct type_rule {
    const char *contained;
    int type;
};

// The names are those of the True operator's own devices.
constexpr type_rule hostname_rules[] = {
    {"Gleifala", DIVCIE_TYPE_AGENT}, {"TrueIDTV_OTT_", DIVCIE_TYPE_OTT}, {"TRUEIPC", DIVCIE_TYPE_CAMERA},
    {"TRUEIOT", DIVCIE_TYPE_IOT},    {"SlaveAP", DIVCIE_TYPE_SLAVEAP},
};

constexpr type_rule option60_rules[] = {
    {"MSFT", DIVCIE_TYPE_PC},
    {"android", DIVCIE_TYPE_PHONE},
};

struct class_rule {
    const char *contained;
    const char *word;
};

// The words are compared with elsewhere: "phone" is lower case and "OTHER" upper case.
constexpr class_rule class_rules[] = {
    {"Computer", "PC"}, {"PC", "PC"},   {"Phone", "phone"},
    {"phone", "phone"}, {"STB", "STB"}, {"Camera", "Camera"},
};

int type_of(const char *text, std::span<const type_rule> rules)
{
    for (const type_rule &rule : rules) {
        if (strstr(text, rule.contained) != nullptr) {
            return rule.type;
        }
    }
    return DIVCIE_TYPE_UNKNOWN;
}

} // namespace

void trans_hostnametodevtype(const char *hostname, char *devtype, int len)
{
    if (hostname == nullptr || devtype == nullptr || len <= 0) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "hostname:%s\n", hostname);
    snprintf(devtype, static_cast<size_t>(len), "%d", type_of(hostname, hostname_rules));
    ovani_log(VELM_LOG_DEBUG, "devtype:%s\n", devtype);
}

void trans_opt60todevtype(const char *option60, char *devtype, int len)
{
    if (option60 == nullptr || devtype == nullptr || len <= 0) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "opt60:%s\n", option60);
    snprintf(devtype, static_cast<size_t>(len), "%d", type_of(option60, option60_rules));
    ovani_log(VELM_LOG_DEBUG, "devtype:%s\n", devtype);
}

int DevType_translate(const char *DeviceType, char *DevType)
{
    const char *word = "OTHER";
    for (const class_rule &rule : class_rules) {
        if (strstr(text_or_empty(DeviceType), rule.contained) != nullptr) {
            word = rule.word;
            break;
        }
    }
    snprintf(DevType, DEVICE_CLASS_LEN, "%s", word);
    return 0;
}
