#include "ovani/ovani_br_mgr.h"

#include <cstring>

#include "ovani/ovani_log.h"
#include "platform/zk_sys_mgr.h"
#include "platform/zkcfgif.h"

char g_ovani_areacode[32];
unsigned int g_ovani_ponflag;
ovani_br_info g_ovani_br;

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
