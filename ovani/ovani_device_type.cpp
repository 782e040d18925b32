#include "ovani/ovani_device_type.h"

#include <cstdio>
#include <cstring>
#include <span>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"

namespace {

struct TypeRule {
    const char *contained;
    int type;
};

// The names are those of the True operator's own devices.
constexpr TypeRule HOSTNAME_RULES[] = {
    {"Gleifala", DIVCIE_TYPE_AGENT}, {"TrueIDTV_OTT_", DIVCIE_TYPE_OTT}, {"TRUEIPC", DIVCIE_TYPE_CAMERA},
    {"TRUEIOT", DIVCIE_TYPE_IOT},    {"SlaveAP", DIVCIE_TYPE_SLAVEAP},
};

constexpr TypeRule OPTION60_RULES[] = {
    {"MSFT", DIVCIE_TYPE_PC},
    {"android", DIVCIE_TYPE_PHONE},
};

struct ClassRule {
    const char *contained;
    const char *word;
};

// The words are compared with elsewhere: "phone" is lower case and "OTHER" upper case.
constexpr ClassRule CLASS_RULES[] = {
    {"Computer", "PC"}, {"PC", "PC"},   {"Phone", "phone"},
    {"phone", "phone"}, {"STB", "STB"}, {"Camera", "Camera"},
};

int type_of(const char *text, std::span<const TypeRule> rules)
{
    for (const TypeRule &rule : rules) {
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
    snprintf(devtype, static_cast<size_t>(len), "%d", type_of(hostname, HOSTNAME_RULES));
    ovani_log(VELM_LOG_DEBUG, "devtype:%s\n", devtype);
}

void trans_opt60todevtype(const char *option60, char *devtype, int len)
{
    if (option60 == nullptr || devtype == nullptr || len <= 0) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "opt60:%s\n", option60);
    snprintf(devtype, static_cast<size_t>(len), "%d", type_of(option60, OPTION60_RULES));
    ovani_log(VELM_LOG_DEBUG, "devtype:%s\n", devtype);
}

int DevType_translate(const char *DeviceType, char *DevType)
{
    const char *word = "OTHER";
    for (const ClassRule &rule : CLASS_RULES) {
        if (strstr(text_or_empty(DeviceType), rule.contained) != nullptr) {
            word = rule.word;
            break;
        }
    }
    snprintf(DevType, DEVICE_CLASS_LEN, "%s", word);
    return 0;
}
