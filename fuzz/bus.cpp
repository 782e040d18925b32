// What the bus says: a profile, how often the platform fails, then steps of a kind and what goes
// with it.
#include <string>

#include "fuzz/daemon.h"
#include "fuzz/fuzz.h"
#include "ovani/ovani_event.h"
#include "ovani/ovani_ubus.h"

namespace {

struct Event {
    const char *name;
    const char *attribute;
    int type;
};

constexpr Event events[] = {
    {UBUS_EVENT_ARP_INFO, "arp_struct", BLOBMSG_TYPE_UNSPEC},
    {UBUS_EVENT_MAC_ADDR_INFO, "mac_struct", BLOBMSG_TYPE_UNSPEC},
    {UBUS_EVENT_UNI_PORT_LINK_STATE, "port_status_struct", BLOBMSG_TYPE_UNSPEC},
    {UBUS_EVENT_WIFI_ON_OFF, "wifi_user_struct", BLOBMSG_TYPE_UNSPEC},
    {UBUS_EVENT_DHCP_USER_CONN, "dhcp_user_string", BLOBMSG_TYPE_STRING},
    {UBUS_EVENT_WAN_VLAN_INFO, "nothing", BLOBMSG_TYPE_UNSPEC},
};

// Hands over a message in memory of exactly its size.
void deliver(uint8_t to, Bytes message)
{
    auto bytes = copy_of(message);
    auto *blob = reinterpret_cast<blob_attr *>(bytes.data());
    const ubus_object &object = *fake::platform().object;
    size_t receiver = to % (std::size(events) + static_cast<size_t>(object.n_methods));
    if (receiver < std::size(events)) {
        ubus_handle_event_msg(nullptr, nullptr, events[receiver].name, blob);
        return;
    }
    const ubus_method &method = object.methods[receiver - std::size(events)];
    int status = method.handler(nullptr, fake::platform().object, nullptr, method.name, blob);
    PROMISE(status == UBUS_STATUS_OK || status == UBUS_STATUS_INVALID_ARGUMENT || status == -1);
}

// The members as they come, under a head that tells their length.
void deliver_members(uint8_t to, Bytes members)
{
    blob_buf message{};
    blob_buf_init(&message, 0);
    blob_attr *attr = blob_put(&message, 0, members.data(), static_cast<unsigned>(members.size()));
    deliver(to, {reinterpret_cast<const uint8_t *>(attr), blob_raw_len(attr)});
    blob_buf_free(&message);
}

void deliver_built(uint8_t to, blob_buf &message)
{
    deliver(to, {reinterpret_cast<const uint8_t *>(message.head), blob_raw_len(message.head)});
    blob_buf_free(&message);
}

// An event whose attribute holds these bytes.
void deliver_event(uint8_t number, Bytes payload)
{
    number %= std::size(events);
    const Event &event = events[number];
    blob_buf message{};
    blob_buf_init(&message, 0);
    auto data = event.type == BLOBMSG_TYPE_STRING ? text_of(payload) : copy_of(payload);
    blobmsg_add_field(&message, event.type, event.attribute, data.data(), static_cast<unsigned>(data.size()));
    deliver_built(number, message);
}

// A request to a method, of the lines of a text: the path, then names and values by turns.
void deliver_request(uint8_t number, Bytes text)
{
    std::vector<std::string> lines(1);
    for (uint8_t c : text) {
        if (c == '\n') {
            lines.emplace_back();
        } else {
            lines.back() += static_cast<char>(c);
        }
    }
    blob_buf message{};
    blob_buf_init(&message, 0);
    blobmsg_add_string(&message, "url", lines[0].c_str());
    void *table = blobmsg_open_table(&message, "data");
    for (size_t i = 2; i < lines.size(); i += 2) {
        blobmsg_add_string(&message, lines[i - 1].c_str(), lines[i].c_str());
    }
    blobmsg_close_table(&message, table);
    deliver_built(static_cast<uint8_t>(std::size(events) + number % 2), message);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Input input{data, size};
    start_daemon(input.byte());
    ovani_ubus_init_main(nullptr);
    unsigned interval = input.byte(); // every so many calls of the platform fail; 0 for none
    unsigned calls = 0;
    fake::platform().fail = [&](const std::string &) {
        return interval > 0 && ++calls % interval == 0 ? 1 : 0;
    };
    while (!input.empty()) {
        uint8_t kind = input.byte();
        uint8_t number = input.byte();
        Bytes payload = input.block();
        switch (kind % 4) {
        case 0:
            deliver_event(number, payload);
            break;
        case 1:
            deliver_request(number, payload);
            break;
        case 2:
            deliver_members(number, payload);
            break;
        default:
            set_command_output({payload.begin(), payload.end()});
        }
        check_daemon();
        fake::platform().log.clear();
        fake::platform().calls.clear();
    }
    fake::platform().fail = nullptr;
    return 0;
}
