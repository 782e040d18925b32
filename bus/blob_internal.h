// Between blob.cpp and blobmsg.cpp.
#pragma once

#include <libubox/blob.h>

namespace bus {

// blob_nest_start with `payload` bytes, for the caller to fill, in front of what is nested.
void *blob_nest_start_after(blob_buf *buf, int id, size_t payload);

} // namespace bus
