/*
 * The broker: hands messages from client to client and keeps the register of who offers what.
 *
 * It believes nothing a client says. A client whose bytes make no sense is disconnected, and whatever a
 * client had on the bus goes with it: a call it had not answered is answered with UBUS_STATUS_NO_DATA.
 *
 * Nobody waits for a client that reads slowly. What its socket does not take is queued, some megabytes at
 * most; beyond that events to it are dropped, later calls and answers too, and standard error tells when that
 * begins, and how many they were once it has read all or has left. A call that is dropped is answered with
 * UBUS_STATUS_NO_DATA; who loses an answer waits until its time is up. A list of objects is sent as its
 * reader reads, and so arrives whole, whatever its length. What monitors are shown counts as events.
 *
 * Whoever may open the socket may do everything; the socket is its owner's alone.
 */
#pragma once

namespace bus {

struct Broker;

// Starts a broker that listens at `path` and runs in this thread's uloop. Takes the place of a socket that
// was left there. Null with errno when it cannot.
Broker *broker_start(const char *path);

// Disconnects everyone and removes the socket.
void broker_stop(Broker *broker);

} // namespace bus
