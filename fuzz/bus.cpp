// What the bus says: a profile, how often the platform fails, then steps of a kind, a number and a block.
#include <sstream>

#include "fuzz/fuzz.h"
#include "ovani/ovani_event.h"
#include "ovani/ovani_ubus.h"
#include "tests/fake/fake_platform.h"

namespace {

// Those the daemon listens to; the methods come behind them.
constexpr std::span EVENTS{OVANI_EVENTS,
                           static_cast<size_t>(find_event(UBUS_EVENT_LANHOST_UP_DOWN) - OVANI_EVENTS)};
constexpr size_t RECEIVERS = EVENTS.size() + 2;

void deliver(size_t receiver, const blob_attr *message)
{
    auto bytes = copy_of({reinterpret_cast<const uint8_t *>(message), blob_raw_len(message)});
    auto *copy = reinterpret_cast<blob_attr *>(bytes.data());
    if (receiver < EVENTS.size()) {
        ubus_handle_event_msg(nullptr, nullptr, EVENTS[receiver].name.data(), copy);
        return;
    }
    ubus_object *object = fake::platform().object;
    const ubus_method &method = object->methods[receiver - EVENTS.size()];
    int status = method.handler(nullptr, object, nullptr, method.name, copy);
    PROMISE(status == UBUS_STATUS_OK || status == UBUS_STATUS_INVALID_ARGUMENT || status == -1);
}

// The block as the payload of the event's attribute.
void add_payload(blob_buf &message, const EventKind &event, Bytes block)
{
    bool text = event.wire_length == 0;
    auto data = text ? text_of(block) : copy_of(block);
    blobmsg_add_field(&message, text ? BLOBMSG_TYPE_STRING : BLOBMSG_TYPE_UNSPEC,
                      event.attribute != nullptr ? event.attribute : "nothing", data.data(),
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
    enum { EVENT, REQUEST, MEMBERS, OUTPUT };
    blob_buf message{};
    blob_buf_init(&message, 0);
    switch (kind % 4) {
    case EVENT:
        add_payload(message, EVENTS[number % EVENTS.size()], block);
        deliver(number % EVENTS.size(), message.head);
        break;
    case REQUEST:
        add_request(message, block);
        deliver(EVENTS.size() + number % 2, message.head);
        break;
    case MEMBERS:
        deliver(number % RECEIVERS, blob_put(&message, 0, block.data(), static_cast<unsigned>(block.size())));
        break;
    case OUTPUT:
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
    fake::platform().fail_every = input.byte();
    while (!input.rest.empty()) {
        unsigned kind = input.byte();
        unsigned number = input.byte();
        take_step(kind, number, input.block());
        check_daemon();
    }
    return 0;
}
