// Between libubus.cpp (requests, objects, events) and libubus_io.cpp (connection and messages).
#pragma once

#include <libubus.h>

// A received message: the header in the host's byte order, then its blob, whose length has been checked.
struct ubus_message {
    list_head list;
    ubus_msghdr hdr;
    blob_attr blob;
};

namespace bus {

// The type each member of a message must have.
extern const blob_attr_info MESSAGE_POLICY[UBUS_ATTR_MAX];

// Whether every member of `attr` is a sound message attribute.
bool members_are_sound(const blob_attr *attr);

// A message's members by id. One of the wrong type is left out, and so is a DATA or SIGNATURE with anything
// unsound in it: what handlers are given is safe to walk to the last leaf.
class MessageAttrs {
public:
    explicit MessageAttrs(blob_attr *blob);
    blob_attr *operator[](ubus_msg_attr id) const { return attr_[id]; }

private:
    blob_attr *attr_[UBUS_ATTR_MAX];
};

// Of a list of messages that is not empty, and of any.
ubus_message *take_first(list_head *list);
void free_messages(list_head *list);

// Sends the blob in ctx->out. UBUS_STATUS_CONNECTION_FAILED, or INVALID_ARGUMENT for one that is too long.
int send_message(ubus_context *ctx, ubus_msg_type type, uint16_t seq, uint32_t peer);

// Waits `timeout` ms (below 0: endlessly) for something to arrive. Replies are handled at once, method calls
// and events put aside if a call or handler is under way.
void wait_and_receive(ubus_context *ctx, int timeout);

// Handles what was put aside, unless a call or handler is under way.
void handle_pending(ubus_context *ctx);

// What arrives goes to these; they take over the message.
void handle_reply(ubus_context *ctx, ubus_message *msg);
void handle_invoke(ubus_context *ctx, ubus_message *msg);

// Puts every object of the context on the bus again.
int publish_objects(ubus_context *ctx);

} // namespace bus
