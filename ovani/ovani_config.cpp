#include "ovani/ovani_config.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_log.h"
#include "platform/zkcfgif.h"

namespace {

// A value that a later read would have no room for is not written: not every store bounds what it keeps.
bool can_be_read_back(const tConfigMap &row)
{
    return strnlen(static_cast<const char *>(row.datap), OVANI_VALUE_LEN) < OVANI_VALUE_LEN;
}

// Queues one row; the store's code, or -1 when the path does not fit.
int prepare_row(void *session, const char *url, const tConfigMap &row)
{
    std::string_view object{url};
    std::string_view parameter{row.paramName};
    char path[OVANI_URL_LEN];
    if (object.size() + parameter.size() >= sizeof path) {
        return -1;
    }
    char *end = std::ranges::copy(parameter, std::ranges::copy(object, path).out).out;
    *end = '\0';
    return zkapi_multinode_sessionprepare(session, path, row.datap);
}

int multi_config_process(tConfigMap *configmap, const char *url, OBJ_OP op_type)
{
    if (configmap == nullptr) {
        ovani_log(VELM_LOG_ERR, "error: param is null\n");
        return -1;
    }
    void *session = nullptr;
    int ret = zkapi_multinode_sessioncreate(&session, op_type, OVANI_STORE_WAIT_MS);
    if (ret != 0 || session == nullptr) {
        // No handle without an error counts as success: ret is 0 then.
        ovani_log(VELM_LOG_DEBUG, "zkapi_multimode_sessioncreate fail ret=%d\n", ret);
        return ret;
    }
    const bool writes = op_type == OBJ_SET_NO_OP;
    for (const tConfigMap *row = configmap; row->datap != nullptr && row->paramName != nullptr; ++row) {
        ret = writes && !can_be_read_back(*row) ? -1 : prepare_row(session, url, *row);
        if (ret != 0) {
            ovani_log(VELM_LOG_DEBUG, "ZKAPI_MultiNode_SeeionPrepare fail paramName=%s, ret=%d\n",
                      row->paramName, ret);
        }
    }
    ret = zkapi_multinode_sessionprocess(session);
    if (ret != 0) {
        ovani_log(VELM_LOG_DEBUG, "ZKAPI_MultiNode_SeeionProcess fail ret=%d\n", ret);
    }
    if (zkapi_multinode_sessiondestroy(session) != 0) {
        ovani_log(VELM_LOG_DEBUG, "ZKAPI_MultiNode_SeeionDestroy fail!\n");
    }
    return ret;
}

// KEPT: all it tells is that there is no table, which is then reported twice.
void printf_tconfigmap(const tConfigMap *configmap)
{
    if (configmap == nullptr) {
        ovani_log(VELM_LOG_ERR, "error: param is null\n");
    }
}

int process_and_print(tConfigMap *configmap, const char *url, OBJ_OP op_type)
{
    int ret = multi_config_process(configmap, url, op_type);
    printf_tconfigmap(configmap);
    return ret;
}

} // namespace

int write_multi_config_to_xml(tConfigMap *configMap, const char *url)
{
    return process_and_print(configMap, url, OBJ_SET_NO_OP);
}

int write_multi_config_to_xml_for_host_add(tConfigMap *configMap, const char *url)
{
    ovani_log(VELM_LOG_DEBUG, "*****start write_multi_config_to_xml %s *****\n", url);
    int ret = process_and_print(configMap, url, OBJ_SET_NO_OP);
    ovani_log(VELM_LOG_DEBUG, "*****end write_multi_config_to_xml ret:%d *****\n", ret);
    return ret;
}

int load_multi_config_from_xml(tConfigMap *configmap, const char *url)
{
    ovani_log(VELM_LOG_DEBUG, "start load_multi_config_from_xml %s \n", url);
    int ret = process_and_print(configmap, url, OBJ_GET_NO_OP);
    ovani_log(VELM_LOG_DEBUG, "end load_multi_config_from_xml ret :%d \n", ret);
    return ret;
}

int load_multi_config_from_xml_with_devfunc(tConfigMap *configmap, const char *url)
{
    return process_and_print(configmap, url, OBJ_GET);
}
