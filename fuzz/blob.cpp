// The bytes of a message: parsed by policy, walked to the last leaf, copied and written as JSON.
#include <libubox/blobmsg_json.h>

#include "fuzz/fuzz.h"

namespace {

size_t sum; // so that what is read is read

void read_bytes(const void *data, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        sum += static_cast<const uint8_t *>(data)[i];
    }
}

// Reads all of a value that was found sound.
void read_value(blob_attr *attr)
{
    read_bytes(blobmsg_name(attr), strlen(blobmsg_name(attr)));
    read_bytes(blobmsg_data(attr), blobmsg_data_len(attr));
    sum += blobmsg_cast_u64(attr) + static_cast<uint64_t>(blobmsg_cast_s64(attr));
    if (blobmsg_type(attr) == BLOBMSG_TYPE_STRING) {
        PROMISE(strlen(blobmsg_get_string(attr)) < blobmsg_data_len(attr));
    }
    if (blobmsg_type(attr) == BLOBMSG_TYPE_DOUBLE) {
        sum += blobmsg_get_double(attr) > 0 ? 1 : 0;
    }
    if (blobmsg_type(attr) != BLOBMSG_TYPE_TABLE && blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY) {
        return;
    }
    size_t left = 0;
    blob_attr *member = nullptr;
    blobmsg_for_each_attr(member, attr, left)
    {
        read_value(member);
    }
}

void parse_by_id(blob_attr *attr, size_t size)
{
    constexpr blob_attr_info policy[BLOB_ATTR_LAST] = {
        {BLOB_ATTR_UNSPEC, 0, 0, nullptr}, {BLOB_ATTR_NESTED, 8, 0, nullptr},
        {BLOB_ATTR_BINARY, 0, 9, nullptr}, {BLOB_ATTR_STRING, 0, 0, nullptr},
        {BLOB_ATTR_INT8, 0, 0, nullptr},   {BLOB_ATTR_INT16, 0, 0, nullptr},
        {BLOB_ATTR_INT32, 0, 0, nullptr},  {BLOB_ATTR_INT64, 0, 0, nullptr},
        {BLOB_ATTR_DOUBLE, 0, 0, nullptr},
    };
    blob_attr *found[BLOB_ATTR_LAST];
    int count = blob_parse_untrusted(attr, size, found, policy, BLOB_ATTR_LAST);
    PROMISE(count == std::ranges::count_if(found, [](const blob_attr *one) { return one != nullptr; }));
    for (blob_attr *one : found) {
        if (one != nullptr) {
            read_bytes(blob_data(one), blob_len(one));
        }
    }
    if (found[BLOB_ATTR_STRING] != nullptr) {
        sum += strlen(blob_get_string(found[BLOB_ATTR_STRING]));
    }
    if (found[BLOB_ATTR_INT64] != nullptr) {
        sum += blob_get_u64(found[BLOB_ATTR_INT64]);
    }
}

void parse_by_name(void *data, size_t size)
{
    constexpr blobmsg_policy policy[] = {{"a", BLOBMSG_TYPE_STRING},
                                         {"b", BLOBMSG_TYPE_TABLE},
                                         {"c", BLOBMSG_CAST_INT64},
                                         {"d", BLOBMSG_TYPE_UNSPEC}};
    blob_attr *found[std::size(policy)];
    blobmsg_parse(policy, std::size(policy), found, data, static_cast<unsigned>(size));
    for (blob_attr *one : found) {
        if (one != nullptr) {
            read_value(one);
        }
    }
}

void write_json(blob_attr *attr)
{
    for (bool list : {false, true}) {
        char *text = blobmsg_format_json_indent(attr, list, list ? 0 : -1);
        sum += strlen(text);
        free(text);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto bytes = copy_of({data, size});
    auto *attr = reinterpret_cast<blob_attr *>(bytes.data());
    parse_by_id(attr, size);
    parse_by_name(bytes.data(), size);
    if (blobmsg_check_attr_len(attr, false, size)) {
        read_value(attr);
        write_json(attr);
        blob_attr *copy = blob_memdup(attr);
        PROMISE(memcmp(copy, attr, blob_raw_len(attr)) == 0);
        free(copy);
    }
    return 0;
}
