#include "ovani/ovani_br_mgr.h"

#include <cstring>

#include "ovani/ovani_log.h"
#include "platform/zk_sys_mgr.h"
#include "platform/zkcfgif.h"

unsigned int g_ovani_operator;
char g_ovani_areacode[32];
unsigned int g_ovani_ponflag;
ovani_br_info g_ovani_br;

// The underscore in the third name is as old as the names.
const char *const OvaniOpTypeStr[OPTYPE_MAX] = {"CHINA MOBILE", "CHINA TELECOM", "CHINA_UNICOM"};

int ovani_operator_type_init()
{
    // A system manager that does not answer leaves the first code: China Mobile.
    zk_carr_type carrier = CARR_CM;
    zk_sys_mgr_get_carrier(&carrier);
    // A code the enumeration does not have must not be read as one of its values.
    static_assert(sizeof carrier == sizeof g_ovani_operator);
    memcpy(&g_ovani_operator, &carrier, sizeof carrier);
    if (g_ovani_operator >= OPTYPE_MAX) {
        ovani_log(VELM_LOG_DEBUG, "Get Operator Type:%d err!\n", static_cast<int>(g_ovani_operator));
        return R_ERROR;
    }
    ovani_log(VELM_LOG_DEBUG, "Get Operator Type:%s!\n", ovani_operator_type_str_get());
    return R_OK;
}

unsigned int ovani_operator_type_code_get()
{
    return g_ovani_operator;
}

const char *ovani_operator_type_str_get()
{
    return OvaniOpTypeStr[g_ovani_operator];
}

int ovani_areacode_init()
{
    char areacode[OVANI_VALUE_LEN] = {};
    zk_sys_mgr_get_areacode(areacode);
    copy_text(g_ovani_areacode, areacode);
    ovani_log(VELM_LOG_DEBUG, "Get areacode:%s!\n", g_ovani_areacode);
    return R_OK;
}

const char *ovani_areacode_get()
{
    return g_ovani_areacode;
}

bool ovani_get_mesh_mode(char *meshmode)
{
    if (zkapi_singlevalue_get("InternetGatewayDevice.LANDevice.1.WLANMeshConfiguration.MeshMode", meshmode,
                              DEVFUNC_NOCALL_NOFLASH, OVANI_STORE_WAIT_MS) != 0) {
        ovani_log(VELM_LOG_DEBUG, "get meshmode fail\n");
        return false;
    }
    return true;
}

int ovani_br_mac_get(char *mac)
{
    char text[OVANI_VALUE_LEN] = {};
    zk_sys_mgr_get_brmac(text);
    ovani_log(VELM_LOG_DEBUG, "get br0 mac=%s!\n", text);
    memset(g_ovani_br.mac, 0, sizeof g_ovani_br.mac);
    ovani_str2mac(text, g_ovani_br.mac);
    memcpy(mac, g_ovani_br.mac, sizeof g_ovani_br.mac);
    return R_OK;
}
