// libubox and libubus without the macro "fallthrough", by which CLI11 and nlohmann-json mean something else.
#pragma once

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

#undef fallthrough
