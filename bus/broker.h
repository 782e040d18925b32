/*
 * The broker: hands messages from client to client and keeps the register of who offers what.
 *
 * It believes nothing a client says. A client whose bytes make no sense is disconnected, and whatever a
 * client had on the bus goes with it: a call it had not answered is answered with UBUS_STATUS_NO_DATA.
 *
 * What cannot be delivered at once is queued. A sender that gets far ahead of a receiver is not listened to
 * until the receiver has caught up, so neither memory nor messages are lost to a fast sender; a receiver that
 * does not read at all for a while is disconnected.
 *
 * Whoever may open the socket may do everything; the socket is its owner's alone.
 */
#ifndef BUS_BROKER_H
#define BUS_BROKER_H

namespace bus {

struct Broker;

// Starts a broker that listens at `path` and runs in this thread's uloop. Takes the place of a socket that
// was left there. Null with errno when it cannot.
Broker *broker_start(const char *path);

// Disconnects everyone and removes the socket.
void broker_stop(Broker *broker);

} // namespace bus

#endif
