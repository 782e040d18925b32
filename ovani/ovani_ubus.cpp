#include "ovani/ovani_ubus.h"

#include <cstring>
#include <iterator>

#include <arpa/inet.h>

#include "ovani/ovani_commdef.h"
#include "ovani/ovani_event.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_lan_port_config.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_port_mgr.h"

ubus_context *s_ovani_ctx;

namespace {

blob_buf s_buf;
ubus_event_handler listener;

int ovani_devfuc_port_cfg_handle(ubus_context *ctx, ubus_object *obj, ubus_request_data *req,
                                 const char *method, blob_attr *msg);
int ovani_devfuc_lanhost_cfg_handle(ubus_context *ctx, ubus_object *obj, ubus_request_data *req,
                                    const char *method, blob_attr *msg);

// The path of the object that changed, and its changed parameters.
enum { CONFIG_PORT_SET_URL_STRING, CONFIG_PORT_SET_PARAM_TABLE, __CONFIG_PORT_SET_MAX };
constexpr blobmsg_policy config_port_policy[__CONFIG_PORT_SET_MAX] = {
    {"url", BLOBMSG_TYPE_STRING},
    {"data", BLOBMSG_TYPE_TABLE},
};

constexpr ubus_method make_method(const char *name, ubus_handler_t handler)
{
    ubus_method method{};
    method.name = name;
    method.handler = handler;
    method.policy = config_port_policy;
    method.n_policy = __CONFIG_PORT_SET_MAX;
    return method;
}

constexpr ubus_method ovani_methods[] = {
    make_method("ovani_devfuc_port_cfg", ovani_devfuc_port_cfg_handle),
    make_method("set_lanhost_config", ovani_devfuc_lanhost_cfg_handle),
};

ubus_object_type make_object_type()
{
    ubus_object_type type{};
    type.name = "ovani";
    type.methods = ovani_methods;
    type.n_methods = std::size(ovani_methods);
    return type;
}

ubus_object make_object(ubus_object_type *type)
{
    ubus_object object{};
    object.name = "ovani";
    object.type = type;
    object.methods = ovani_methods;
    object.n_methods = std::size(ovani_methods);
    return object;
}

ubus_object_type s_ovani_object_type = make_object_type();
ubus_object ovani_object = make_object(&s_ovani_object_type);

} // namespace

// --- Decoding

namespace {

constexpr blobmsg_policy arp_struct_policy[] = {{"arp_struct", BLOBMSG_TYPE_UNSPEC}};
constexpr blobmsg_policy mac_struct_policy[] = {{"mac_struct", BLOBMSG_TYPE_UNSPEC}};
constexpr blobmsg_policy port_status_struct_policy[] = {{"port_status_struct", BLOBMSG_TYPE_UNSPEC}};
constexpr blobmsg_policy wifi_user_struct_policy[] = {{"wifi_user_struct", BLOBMSG_TYPE_UNSPEC}};
constexpr blobmsg_policy dhcp_user_struct_policy[] = {{"dhcp_user_string", BLOBMSG_TYPE_STRING}};

// The attribute a policy names; null, with `missing` logged as `function`, when the message lacks it.
blob_attr *take_attribute(const char *function, const blobmsg_policy *policy, const char *missing,
                          blob_attr *msg)
{
    blob_attr *attribute = nullptr;
    if (msg != nullptr) {
        blobmsg_parse(policy, 1, &attribute, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    }
    if (attribute == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "%s", missing);
    }
    return attribute;
}

// Copies the raw record of an event, whose fields end `wire_length` bytes into it. False, with the reason
// logged as `function`, when the message lacks it or it is cut short. A copy, because an attribute need not
// hold the padding behind the last field and its texts need not be terminated.
template <typename Record>
bool take_record(const char *function, const blobmsg_policy *policy, const char *missing, size_t wire_length,
                 blob_attr *msg, Record &record)
{
    blob_attr *attribute = take_attribute(function, policy, missing, msg);
    if (attribute == nullptr) {
        return false;
    }
    const void *data = lib_zk_blobmsg_get_struct(attribute);
    if (data == nullptr || blobmsg_data_len(attribute) < wire_length) {
        ovani_log_as(function, VELM_LOG_DEBUG, "bd is NULL\n");
        return false;
    }
    memcpy(&record, data, wire_length);
    return true;
}

template <size_t N>
void terminate(char (&text)[N])
{
    text[N - 1] = '\0';
}

void ovani_arp_ubus_handle_event(blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive arp event message.\n");
    ovani_arp_event event{};
    if (!take_record(__func__, arp_struct_policy, "ovani_arp_ubus_handle_event,data=0 error.\n",
                     OVANI_ARP_EVENT_WIRE_LEN, msg, event)) {
        return;
    }
    terminate(event.brname);
    ovani_log(VELM_LOG_DEBUG, "ntohl  begin arp_event->ipv4= %X\n", event.ipv4);
    event.ipv4 = ntohl(event.ipv4);
    ovani_log(VELM_LOG_DEBUG, "ntohl  end  arp_event->ipv4= %X\n", event.ipv4);
    ovani_log(VELM_LOG_DEBUG, "arp event message,action=%s,ip=%s, mac=%s.\n",
              event.action != 0 ? "ARP_ADD" : "ARP_DEL", ovani_ipv4_ltostr(event.ipv4),
              mac_colon_text(event.mac).data());
    ovani_arp_event_process(&event);
}

void ovani_mac_ubus_handle_event(blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive mac event message.\n");
    ovani_mac_event event{};
    if (!take_record(__func__, mac_struct_policy, "ovani_mac_ubus_handle_event,data=0 error.\n",
                     OVANI_MAC_EVENT_WIRE_LEN, msg, event)) {
        return;
    }
    terminate(event.eth_num);
    terminate(event.eth_state);
    terminate(event.brname);
    ovani_log(VELM_LOG_DEBUG, "mac event message,action=%s,br=%s, mac=%s.\n",
              event.action != 0 ? "MAC_ADD" : "MAC_DEL", event.brname, mac_colon_text(event.mac).data());
    if (strcmp(event.brname, OVANI_BR_NAME) == 0) {
        ovani_mac_event_process(&event);
    }
}

void ovani_port_status_ubus_handle_event(blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive port event message.\n");
    ovani_port_status_event event{};
    if (!take_record(__func__, port_status_struct_policy, "ovani_port_ubus_handle_event,data=0 error.\n",
                     OVANI_PORT_STATUS_EVENT_WIRE_LEN, msg, event)) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "port status event message,port=%d, action=%s.\n", event.port,
              event.status != 0 ? "UP" : "DOWN");
    ovani_port_status_event_process(&event);
}

void ovani_wifi_user_ubus_handle_event(blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive wifi event message.\n");
    ovani_wifi_event event{};
    if (!take_record(__func__, wifi_user_struct_policy, "ovani_wifi_ubus_handle_event,data=0 error.\n",
                     OVANI_WIFI_EVENT_WIRE_LEN, msg, event)) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "wifi user event event message,user mac=%s, action=%s.\n",
              mac_colon_text(event.mac).data(), event.action != 0 ? "UP" : "DOWN");
    ovani_wifi_user_event_process(&event);
}

void ovani_dhcpd_user_ubus_handle_event(blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive dhcpd event message.\n");
    blob_attr *attribute = take_attribute(__func__, dhcp_user_struct_policy,
                                          "ovani_dhcpd_user_ubus_handle_event,data=0 error.\n", msg);
    if (attribute == nullptr) {
        return;
    }
    char *text = blobmsg_get_string(attribute);
    if (text == nullptr) {
        ovani_log(VELM_LOG_DEBUG, "bd is NULL\n");
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "date_point = %s\n", text);
    ovani_dhcpd_user_event_process(text);
}

void ovani_handle_wanchange_info(blob_attr *)
{
    ovani_log(VELM_LOG_DEBUG, "Receive wanchange message.\n");
    ovani_rebind_port_vlan();
}

// The events, in the order in which they are subscribed and compared. Where a failed subscription drops the
// handler, it drops the names subscribed before it with it: they share the one handler.
struct event_entry {
    const char *name;
    void (*handle)(blob_attr *msg);
    bool unregister_on_failure;
};

constexpr event_entry events[] = {
    {UBUS_EVENT_ARP_INFO, ovani_arp_ubus_handle_event, false},
    {UBUS_EVENT_MAC_ADDR_INFO, ovani_mac_ubus_handle_event, true},
    {UBUS_EVENT_UNI_PORT_LINK_STATE, ovani_port_status_ubus_handle_event, false},
    {UBUS_EVENT_WIFI_ON_OFF, ovani_wifi_user_ubus_handle_event, true},
    {UBUS_EVENT_DHCP_USER_CONN, ovani_dhcpd_user_ubus_handle_event, true},
    {UBUS_EVENT_WAN_VLAN_INFO, ovani_handle_wanchange_info, true},
};

} // namespace

void ubus_handle_event_msg(ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive event.\n");
    for (const event_entry &event : events) {
        if (strcmp(type, event.name) == 0) {
            event.handle(msg);
            return;
        }
    }
}

// --- Methods

namespace {

// A request carries fewer pairs than this.
constexpr unsigned MAX_PARAM_NUM_IN_ONE_OBJ = 1000;

struct config_request {
    char *url;
    blob_attr *data;
};

// Takes a request apart. UBUS_STATUS_OK, or what the method is to return, logged as `function`.
int take_config_request(const char *function, blob_attr *msg, config_request &request)
{
    blob_attr *attributes[__CONFIG_PORT_SET_MAX] = {};
    if (msg != nullptr) {
        blobmsg_parse(config_port_policy, __CONFIG_PORT_SET_MAX, attributes, blob_data(msg),
                      static_cast<unsigned>(blob_len(msg)));
    }
    if (attributes[CONFIG_PORT_SET_URL_STRING] == nullptr ||
        attributes[CONFIG_PORT_SET_PARAM_TABLE] == nullptr) {
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    request.url = blobmsg_get_string(attributes[CONFIG_PORT_SET_URL_STRING]);
    request.data = attributes[CONFIG_PORT_SET_PARAM_TABLE];
    unsigned tableNum =
        ubus_KV_size_get(blobmsg_data(request.data), static_cast<int>(blobmsg_data_len(request.data)));
    ovani_log_as(function, VELM_LOG_DEBUG, "tableNum=%d\n", static_cast<int>(tableNum));
    if (tableNum >= MAX_PARAM_NUM_IN_ONE_OBJ) {
        ovani_log_as(function, VELM_LOG_ERR, "tableNum(%d) error!\n", static_cast<int>(tableNum));
        return -1;
    }
    ovani_log_as(function, VELM_LOG_DEBUG, "get cfg!\n");
    return UBUS_STATUS_OK;
}

void offer_pairs(const config_request &request, ubus_KV_Set_Func parser, void *priv)
{
    ubus_parse_kv_config(blobmsg_data(request.data), static_cast<int>(blobmsg_data_len(request.data)), parser,
                         priv);
}

int ovani_devfuc_port_cfg_handle(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                                 blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_devfuc_eth_cfg_handle start!\n");
    LanEthInterfaceParam param{};
    config_request request{};
    int status = take_config_request(__func__, msg, request);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    offer_pairs(request, g_system_set_lan_config, &param);
    ovani_log(VELM_LOG_DEBUG, "obj_url = %s\n", request.url);
    ovani_set_lanport_cfg_process(request.url, &param);
    ovani_set_eth_cfg_process(request.url, &param);
    return UBUS_STATUS_OK;
}

int ovani_devfuc_lanhost_cfg_handle(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                                    blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_devfuc_lanhost_cfg_handle start!\n");
    config_request request{};
    int status = take_config_request(__func__, msg, request);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    offer_pairs(request, system_set_lanhost_config_param, request.url);
    return UBUS_STATUS_OK;
}

} // namespace

// --- Start-up and loop

void ovani_eventmgr_eventway_main(ubus_context *ctx)
{
    ovani_lanhost_info_init();
    listener = {};
    listener.cb = ubus_handle_event_msg;
    for (const event_entry &event : events) {
        if (lib_zk_ubus_register_event_handler(ctx, &listener, event.name) != 0) {
            if (event.unregister_on_failure) {
                lib_zk_ubus_unregister_event_handler(ctx, &listener);
            }
            ovani_log(VELM_LOG_ERR, "register event failed.\n");
        }
    }
    ovani_log(VELM_LOG_DEBUG, "register event finished.\n");
}

void ovani_ubus_init_main(ubus_context *ctx)
{
    int ret = lib_zk_ubus_add_object(ctx, &ovani_object);
    if (ret != 0) {
        ovani_log(VELM_LOG_ERR, "Failed to add object: %s\n", ubus_strerror(ret));
        return;
    }
    ovani_eventmgr_eventway_main(ctx);
}

void send_ready_msg_2_sysmgr()
{
    blob_buf_init(&s_buf, BLOBMSG_TYPE_TABLE);
    constexpr char name[] = "ovani";
    blobmsg_add_field(&s_buf, BLOBMSG_TYPE_STRING, "name", name, sizeof name);
    int ret = lib_zk_ubus_call_method(s_ovani_ctx, "sysmgr", "process_ready", s_buf, nullptr, nullptr, 0);
    ovani_log(VELM_LOG_DEBUG, "ovani send_ready_msg_2_sysmgr ret = %d .\n", ret);
}

int ovani_ubus_init()
{
    if (lib_zk_ubus_init(&s_ovani_ctx) != 0) {
        ovani_log(VELM_LOG_ERR, "lib_zk_ubus_init fail\n");
    }
    ovani_log(VELM_LOG_DEBUG, "lib_zk_ubus_init finish\n");
    ovani_ubus_init_main(s_ovani_ctx);
    ovani_log(VELM_LOG_DEBUG, "ovani_subscriber_main finish\n");
    send_ready_msg_2_sysmgr();
    lib_zk_ubus_run(UBUS_THREAD_MULTIPLE);
    ovani_log(VELM_LOG_DEBUG, "lib_zk_ubus_run finish\n");
    lib_zk_ubus_exit(s_ovani_ctx);
    s_ovani_ctx = nullptr;
    blob_buf_free(&s_buf);
    return 0;
}

int ovani_eventmgr_ubus_loop()
{
    ovani_log(VELM_LOG_DEBUG, "ovani event mgr ubus running\n");
    lib_zk_ubus_run(UBUS_THREAD_SINGLE);
    return 0;
}

void *ovani_handle_eventmgr_ubus_loop()
{
    ovani_eventmgr_ubus_loop();
    ovani_log(VELM_LOG_DEBUG, "Thread ovani_handle_eventmgr_ubus_loop running!!! \n");
    return nullptr;
}
