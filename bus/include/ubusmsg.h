/*
 * What goes over the bus socket.
 *
 * A message is a header (struct ubus_msghdr, numbers big-endian) followed by one blob attribute of id 0 whose
 * members have the ids of enum ubus_msg_attr; it ends where that attribute's length says, without padding. It
 * has at most UBUS_MAX_MSGLEN bytes after the header.
 *
 * `peer` names the client or object the message is for or from, `seq` pairs a reply with its request: the
 * broker greets with HELLO (peer: the client's own id); a request is answered by any number of DATA and one
 * STATUS.
 *
 *     LOOKUP         [OBJPATH, a trailing '*' stands for any rest]   DATA: OBJPATH OBJID OBJTYPE SIGNATURE
 *     ADD_OBJECT     [OBJPATH and OBJTYPE or SIGNATURE]              DATA: OBJID [OBJTYPE]
 *     REMOVE_OBJECT  OBJID                                           DATA: OBJID [OBJTYPE]
 *     INVOKE         OBJID METHOD DATA                               DATA: OBJID DATA   STATUS: STATUS
 * [OBJID] PING           anything                                        DATA: the same
 *
 * The broker passes an INVOKE on to the object's owner with the caller as peer and the caller's USER and
 * GROUP before DATA. A SIGNATURE holds one table a method: parameter name to BLOBMSG_TYPE_* as INT32.
 *
 * Events are invocations of object UBUS_SYSTEM_OBJECT_EVENT: "register" { object, pattern } lets an object of
 * the caller receive the events that match; "send" { id, data } sends one. It reaches the object as INVOKE
 * with the event's name as METHOD and peer 0: nobody waits for an answer.
 *
 * A client of root's that invokes "add" of object UBUS_SYSTEM_OBJECT_MONITOR is sent, until "remove", a
 * MONITOR for every message that the broker receives or sends, but for the MONITORs it sends. Its members
 * have the ids of enum ubus_monitor_attr, its `seq` counts from 1: a gap tells of some that were dropped.
 */
#pragma once

#include <libubox/blob.h>
#include <stdint.h>

#define UBUS_MSG_CHUNK_SIZE 65536
#define UBUS_MAX_MSGLEN 1048576
#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"

#define UBUS_SYSTEM_OBJECT_EVENT 1
#define UBUS_SYSTEM_OBJECT_MONITOR 3
#define UBUS_SYSTEM_OBJECT_MAX 1024 /* ids of clients and of their objects are not below */

struct ubus_msghdr {
    uint8_t version; /* 0 */
    uint8_t type;    /* enum ubus_msg_type */
    uint16_t seq;
    uint32_t peer;
} __attribute__((packed, aligned(4)));

enum ubus_msg_type {
    UBUS_MSG_HELLO,
    UBUS_MSG_STATUS,
    UBUS_MSG_DATA,
    UBUS_MSG_PING,
    UBUS_MSG_LOOKUP,
    UBUS_MSG_INVOKE,
    UBUS_MSG_ADD_OBJECT,
    UBUS_MSG_REMOVE_OBJECT,
    UBUS_MSG_SUBSCRIBE,   /* subscriptions and notifications: not in this broker, which answers */
    UBUS_MSG_UNSUBSCRIBE, /* UBUS_STATUS_NOT_SUPPORTED, nor in this client */
    UBUS_MSG_NOTIFY,
    UBUS_MSG_MONITOR,
    __UBUS_MSG_LAST,
};

enum ubus_msg_attr {
    UBUS_ATTR_UNSPEC,
    UBUS_ATTR_STATUS, /* INT32: enum ubus_msg_status */
    UBUS_ATTR_OBJPATH,
    UBUS_ATTR_OBJID,
    UBUS_ATTR_METHOD,
    UBUS_ATTR_OBJTYPE,
    UBUS_ATTR_SIGNATURE,
    UBUS_ATTR_DATA, /* the members of a message (blobmsg.h) */
    UBUS_ATTR_TARGET,
    UBUS_ATTR_ACTIVE,
    UBUS_ATTR_NO_REPLY, /* INT8 */
    UBUS_ATTR_SUBSCRIBERS,
    UBUS_ATTR_USER,
    UBUS_ATTR_GROUP,
    UBUS_ATTR_MAX,
};

/* What a MONITOR tells of a message. */
enum ubus_monitor_attr {
    UBUS_MONITOR_CLIENT, /* INT32: who sent it to the broker, or whom the broker sent it to */
    UBUS_MONITOR_PEER,   /* INT32: as in its header */
    UBUS_MONITOR_SEND,   /* INT8: 0 received by the broker, 1 sent */
    UBUS_MONITOR_SEQ,    /* INT32: as in its header */
    UBUS_MONITOR_TYPE,   /* INT32: enum ubus_msg_type */
    UBUS_MONITOR_DATA,   /* its members */
    UBUS_MONITOR_MAX,
};

enum ubus_msg_status {
    UBUS_STATUS_OK,
    UBUS_STATUS_INVALID_COMMAND,
    UBUS_STATUS_INVALID_ARGUMENT,
    UBUS_STATUS_METHOD_NOT_FOUND,
    UBUS_STATUS_NOT_FOUND,
    UBUS_STATUS_NO_DATA,
    UBUS_STATUS_PERMISSION_DENIED,
    UBUS_STATUS_TIMEOUT,
    UBUS_STATUS_NOT_SUPPORTED,
    UBUS_STATUS_UNKNOWN_ERROR,
    UBUS_STATUS_CONNECTION_FAILED,
    UBUS_STATUS_NO_MEMORY,
    UBUS_STATUS_PARSE_ERROR,
    UBUS_STATUS_SYSTEM_ERROR,
    __UBUS_STATUS_LAST
};
