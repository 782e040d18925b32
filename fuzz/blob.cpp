// The bytes of a message, parsed by id and by name and written as JSON; or, behind '{', JSON that becomes a
// message.
#include <string>

#include <libubox/blobmsg_json.h>

#include "fuzz/fuzz.h"

namespace {

// JSON of an attribute; reads it to its last leaf.
std::string json_of(blob_attr *attr, bool list, int indent = -1)
{
    char *json = blobmsg_format_json_indent(attr, list, indent);
    std::string copy{json};
    free(json);
    return copy;
}

void parse_bytes(Bytes input)
{
    auto bytes = copy_of(input);
    auto *attr = reinterpret_cast<blob_attr *>(bytes.data());
    blob_attr_info by_id[BLOB_ATTR_LAST] = {};
    for (unsigned id = 0; id < BLOB_ATTR_LAST; ++id) {
        by_id[id].type = id;
    }
    blob_attr *found[BLOB_ATTR_LAST];
    blob_parse_untrusted(attr, bytes.size(), found, by_id, BLOB_ATTR_LAST);
    for (const blob_attr *one : found) {
        free(one != nullptr ? blob_memdup(one) : nullptr);
    }
    constexpr blobmsg_policy by_name[] = {{"a", BLOBMSG_TYPE_STRING},
                                          {"b", BLOBMSG_TYPE_TABLE},
                                          {"c", BLOBMSG_CAST_INT64},
                                          {"d", BLOBMSG_TYPE_UNSPEC}};
    blobmsg_parse(by_name, std::size(by_name), found, bytes.data(), static_cast<unsigned>(bytes.size()));
    for (size_t i = 0; i < std::size(by_name); ++i) {
        PROMISE(found[i] == nullptr || !json_of(found[i], false).empty());
    }
    if (blobmsg_check_attr_len(attr, false, bytes.size())) {
        json_of(attr, true, 0);
        json_of(attr, false);
    }
}

// The JSON of the message that JSON describes; empty when it is none.
std::string through_message(const char *json, int indent)
{
    blob_buf message{};
    blob_buf_init(&message, 0);
    std::string written;
    if (blobmsg_add_json_from_string(&message, json)) {
        written = json_of(message.head, true, indent);
    }
    blob_buf_free(&message);
    return written;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0 || data[0] != '{') {
        parse_bytes({data, size});
        return 0;
    }
    // What reads as JSON again reads as the same. It may not: a value without a name is written without. And
    // names that end at "\u0000" may become equal at first.
    std::string first = through_message(text_of({data, size}).data(), 0);
    std::string second = through_message(first.c_str(), 0);
    PROMISE(second.empty() || second == through_message(through_message(second.c_str(), -1).c_str(), 0));
    return 0;
}
