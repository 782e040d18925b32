// What the bus says: a profile, how often the platform fails, then steps of a kind, a number and a block.
#include <sstream>

#include "fuzz/fuzz.h"
#include "ovani/ovani_event.h"
#include "ovani/ovani_ubus.h"
#include "tests/fake/fake_platform.h"

namespace {

constexpr struct {
    const char *name;
    const char *attribute;
    int type;
} events[] = {
    {UBUS_EVENT_ARP_INFO, "arp_struct", BLOBMSG_TYPE_UNSPEC},
    {UBUS_EVENT_MAC_ADDR_INFO, "mac_struct", BLOBMSG_TYPE_UNSPEC},
    {UBUS_EVENT_UNI_PORT_LINK_STATE, "port_status_struct", BLOBMSG_TYPE_UNSPEC},
    {UBUS_EVENT_WIFI_ON_OFF, "wifi_user_struct", BLOBMSG_TYPE_UNSPEC},
    {UBUS_EVENT_DHCP_USER_CONN, "dhcp_user_string", BLOBMSG_TYPE_STRING},
    {UBUS_EVENT_WAN_VLAN_INFO, "nothing", BLOBMSG_TYPE_UNSPEC},
};
constexpr size_t receivers = std::size(events) + 2; // the methods come behind the events

void deliver(size_t receiver, const blob_attr *message)
{
    auto bytes = copy_of({reinterpret_cast<const uint8_t *>(message), blob_raw_len(message)});
    auto *copy = reinterpret_cast<blob_attr *>(bytes.data());
    if (receiver < std::size(events)) {
        ubus_handle_event_msg(nullptr, nullptr, events[receiver].name, copy);
        return;
    }
    ubus_object *object = fake::platform().object;
    const ubus_method &method = object->methods[receiver - std::size(events)];
    int status = method.handler(nullptr, object, nullptr, method.name, copy);
    PROMISE(status == UBUS_STATUS_OK || status == UBUS_STATUS_INVALID_ARGUMENT || status == -1);
}

// The block as the payload of the event's attribute.
void add_payload(blob_buf &message, size_t event, Bytes block)
{
    auto data = events[event].type == BLOBMSG_TYPE_STRING ? text_of(block) : copy_of(block);
    blobmsg_add_field(&message, events[event].type, events[event].attribute, data.data(),
                      static_cast<unsigned>(data.size()));
}

// The block as lines: the path, then names and values by turns.
void add_request(blob_buf &message, Bytes block)
{
    std::istringstream lines{text_of(block).data()};
    std::string url;
    std::getline(lines, url);
    blobmsg_add_string(&message, "url", url.c_str());
    void *table = blobmsg_open_table(&message, "data");
    for (std::string name, value; std::getline(lines, name) && std::getline(lines, value);) {
        blobmsg_add_string(&message, name.c_str(), value.c_str());
    }
    blobmsg_close_table(&message, table);
}

void take_step(unsigned kind, unsigned number, Bytes block)
{
    enum { event, request, members, output };
    blob_buf message{};
    blob_buf_init(&message, 0);
    switch (kind % 4) {
    case event:
        add_payload(message, number % std::size(events), block);
        deliver(number % std::size(events), message.head);
        break;
    case request:
        add_request(message, block);
        deliver(std::size(events) + number % 2, message.head);
        break;
    case members:
        deliver(number % receivers, blob_put(&message, 0, block.data(), static_cast<unsigned>(block.size())));
        break;
    case output:
        set_command_output(block);
        break;
    }
    blob_buf_free(&message);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input{{data, size}};
    start_daemon(input.byte());
    ovani_ubus_init_main(nullptr);
    unsigned interval = input.byte(); // every so many calls of the platform fail; 0 for none
    unsigned calls = 0;
    fake::platform().fail = [&](const std::string &) {
        return interval > 0 && ++calls % interval == 0 ? 1 : 0;
    };
    while (!input.rest.empty()) {
        unsigned kind = input.byte();
        unsigned number = input.byte();
        take_step(kind, number, input.block());
        check_daemon();
        fake::platform().log.clear();
        fake::platform().calls.clear();
    }
    fake::platform().fail = nullptr;
    return 0;
}
