#include "ovani/ovani_ubus.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include <arpa/inet.h>

#include "ovani/ovani_announce.h"
#include "ovani/ovani_commdef.h"
#include "ovani/ovani_event_arp.h"
#include "ovani/ovani_event_dhcp.h"
#include "ovani/ovani_event_discovery.h"
#include "ovani/ovani_event_mac.h"
#include "ovani/ovani_event_port.h"
#include "ovani/ovani_event_wifi.h"
#include "ovani/ovani_host_config.h"
#include "ovani/ovani_lan_port_config.h"
#include "ovani/ovani_log.h"
#include "ovani/ovani_operator.h"
#include "ovani/ovani_port_mgr.h"

namespace {

blob_buf s_buf;
ubus_event_handler listener;

int ovani_devfuc_port_cfg_handle(ubus_context *ctx, ubus_object *obj, ubus_request_data *req,
                                 const char *method, blob_attr *msg);
int ovani_devfuc_lanhost_cfg_handle(ubus_context *ctx, ubus_object *obj, ubus_request_data *req,
                                    const char *method, blob_attr *msg);

// The path of the object that changed, and its changed parameters.
enum { CONFIG_PORT_SET_URL_STRING, CONFIG_PORT_SET_PARAM_TABLE, __CONFIG_PORT_SET_MAX };
constexpr blobmsg_policy CONFIG_PORT_POLICY[__CONFIG_PORT_SET_MAX] = {
    {"url", BLOBMSG_TYPE_STRING},
    {"data", BLOBMSG_TYPE_TABLE},
};

constexpr ubus_method make_method(const char *name, ubus_handler_t handler)
{
    ubus_method method{};
    method.name = name;
    method.handler = handler;
    method.policy = CONFIG_PORT_POLICY;
    method.n_policy = __CONFIG_PORT_SET_MAX;
    return method;
}

constexpr ubus_method OVANI_METHODS[] = {
    make_method("ovani_devfuc_port_cfg", ovani_devfuc_port_cfg_handle),
    make_method("set_lanhost_config", ovani_devfuc_lanhost_cfg_handle),
};

ubus_object_type make_object_type()
{
    ubus_object_type type{};
    type.name = "ovani";
    type.methods = OVANI_METHODS;
    type.n_methods = std::size(OVANI_METHODS);
    return type;
}

ubus_object make_object(ubus_object_type *type)
{
    ubus_object object{};
    object.name = "ovani";
    object.type = type;
    object.methods = OVANI_METHODS;
    object.n_methods = std::size(OVANI_METHODS);
    return object;
}

ubus_object_type s_ovani_object_type = make_object_type();
ubus_object ovani_object = make_object(&s_ovani_object_type);

} // namespace

// --- Decoding

namespace {

// The attribute that an event's row names; null, with `missing` logged, when the message lacks it.
blob_attr *take_attribute(const EventKind &kind, enum blobmsg_type type, const char *missing, blob_attr *msg,
                          const char *function)
{
    const blobmsg_policy policy{kind.attribute, type};
    blob_attr *attribute = nullptr;
    if (msg != nullptr) {
        blobmsg_parse(&policy, 1, &attribute, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    }
    if (attribute == nullptr) {
        ovani_log_as(function, VELM_LOG_ERR, "%s", missing);
    }
    return attribute;
}

// Copies the raw record of an event. False, with the reason logged, when the message lacks it or it is cut
// short. A copy, because an attribute need not hold the padding behind the last field and its texts need not
// be terminated.
template <typename Record>
bool take_record(const EventKind &kind, const char *missing, blob_attr *msg, Record &record,
                 const char *function = __builtin_FUNCTION())
{
    blob_attr *attribute = take_attribute(kind, BLOBMSG_TYPE_UNSPEC, missing, msg, function);
    if (attribute == nullptr) {
        return false;
    }
    const void *data = lib_zk_blobmsg_get_struct(attribute);
    if (data == nullptr || blobmsg_data_len(attribute) < kind.wire_length) {
        ovani_log_as(function, VELM_LOG_DEBUG, "bd is NULL\n");
        return false;
    }
    memcpy(&record, data, std::min(kind.wire_length, sizeof record));
    return true;
}

template <size_t N>
void terminate(char (&text)[N])
{
    text[N - 1] = '\0';
}

void ovani_arp_ubus_handle_event(const EventKind &kind, blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive arp event message.\n");
    ovani_arp_event event{};
    if (!take_record(kind, "ovani_arp_ubus_handle_event,data=0 error.\n", msg, event)) {
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

void ovani_mac_ubus_handle_event(const EventKind &kind, blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive mac event message.\n");
    ovani_mac_event event{};
    if (!take_record(kind, "ovani_mac_ubus_handle_event,data=0 error.\n", msg, event)) {
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

void ovani_port_status_ubus_handle_event(const EventKind &kind, blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive port event message.\n");
    ovani_port_status_event event{};
    if (!take_record(kind, "ovani_port_ubus_handle_event,data=0 error.\n", msg, event)) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "port status event message,port=%d, action=%s.\n", event.port,
              event.status != 0 ? "UP" : "DOWN");
    ovani_port_status_event_process(&event);
}

void ovani_wifi_user_ubus_handle_event(const EventKind &kind, blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive wifi event message.\n");
    ovani_wifi_event event{};
    if (!take_record(kind, "ovani_wifi_ubus_handle_event,data=0 error.\n", msg, event)) {
        return;
    }
    ovani_log(VELM_LOG_DEBUG, "wifi user event event message,user mac=%s, action=%s.\n",
              mac_colon_text(event.mac).data(), event.action != 0 ? "UP" : "DOWN");
    ovani_wifi_user_event_process(&event);
}

void ovani_dhcpd_user_ubus_handle_event(const EventKind &kind, blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive dhcpd event message.\n");
    blob_attr *attribute = take_attribute(
        kind, BLOBMSG_TYPE_STRING, "ovani_dhcpd_user_ubus_handle_event,data=0 error.\n", msg, __func__);
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

void ovani_handle_wanchange_info(const EventKind &, blob_attr *)
{
    ovani_log(VELM_LOG_DEBUG, "Receive wanchange message.\n");
    ovani_rebind_port_vlan();
}

// The events, in the order in which they are subscribed and compared. Where a failed subscription drops the
// handler, it drops the names subscribed before it with it: they share the one handler.
struct Subscription {
    const EventKind *kind;
    void (*handle)(const EventKind &kind, blob_attr *msg);
    bool unregister_on_failure;
};

constexpr Subscription SUBSCRIPTIONS[] = {
    {find_event(UBUS_EVENT_ARP_INFO), ovani_arp_ubus_handle_event, false},
    {find_event(UBUS_EVENT_MAC_ADDR_INFO), ovani_mac_ubus_handle_event, true},
    {find_event(UBUS_EVENT_UNI_PORT_LINK_STATE), ovani_port_status_ubus_handle_event, false},
    {find_event(UBUS_EVENT_WIFI_ON_OFF), ovani_wifi_user_ubus_handle_event, true},
    {find_event(UBUS_EVENT_DHCP_USER_CONN), ovani_dhcpd_user_ubus_handle_event, true},
    {find_event(UBUS_EVENT_WAN_VLAN_INFO), ovani_handle_wanchange_info, true},
};

} // namespace

void ubus_handle_event_msg(ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "Receive event.\n");
    for (const Subscription &subscription : SUBSCRIPTIONS) {
        if (subscription.kind->name == type) {
            subscription.handle(*subscription.kind, msg);
            return;
        }
    }
}

// --- Methods

namespace {

// A request carries fewer pairs than this.
constexpr unsigned MAX_PARAM_NUM_IN_ONE_OBJ = 1000;

struct ConfigRequest {
    char *url;
    blob_attr *data;
};

// Takes a request apart. UBUS_STATUS_OK, or what the method is to return.
int take_config_request(blob_attr *msg, ConfigRequest &request, const char *function = __builtin_FUNCTION())
{
    blob_attr *attributes[__CONFIG_PORT_SET_MAX] = {};
    if (msg != nullptr) {
        blobmsg_parse(CONFIG_PORT_POLICY, __CONFIG_PORT_SET_MAX, attributes, blob_data(msg),
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

void offer_pairs(const ConfigRequest &request, ubus_KV_Set_Func parser, void *priv)
{
    ubus_parse_kv_config(blobmsg_data(request.data), static_cast<int>(blobmsg_data_len(request.data)), parser,
                         priv);
}

int ovani_devfuc_port_cfg_handle(ubus_context *, ubus_object *, ubus_request_data *, const char *,
                                 blob_attr *msg)
{
    ovani_log(VELM_LOG_DEBUG, "ovani_devfuc_eth_cfg_handle start!\n");
    LanEthInterfaceParam param{};
    ConfigRequest request{};
    int status = take_config_request(msg, request);
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
    ConfigRequest request{};
    int status = take_config_request(msg, request);
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
    for (const Subscription &subscription : SUBSCRIPTIONS) {
        if (lib_zk_ubus_register_event_handler(ctx, &listener, subscription.kind->name.data()) != 0) {
            if (subscription.unregister_on_failure) {
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
