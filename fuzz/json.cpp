// JSON into a message and back: what was written once reads as itself, in one line or in many.
#include <optional>
#include <string>

#include <libubox/blobmsg_json.h>

#include "fuzz/fuzz.h"

namespace {

// Whether every value in a table has a name; one without is written without, which is no JSON.
bool all_named(const blob_attr *table)
{
    size_t left = 0;
    const blob_attr *member = nullptr;
    blobmsg_for_each_attr(member, table, left)
    {
        bool nested =
            blobmsg_type(member) == BLOBMSG_TYPE_TABLE || blobmsg_type(member) == BLOBMSG_TYPE_ARRAY;
        bool in_table = !blob_is_extended(table) || blobmsg_type(table) == BLOBMSG_TYPE_TABLE;
        if ((in_table && blobmsg_name(member)[0] == '\0') || (nested && !all_named(member))) {
            return false;
        }
    }
    return true;
}

std::string written(blob_attr *message, int indent)
{
    char *text = blobmsg_format_json_indent(message, true, indent);
    std::string copy{text};
    free(text);
    return copy;
}

struct Texts {
    std::string line, lines;
};

// A JSON object after a message was made of it; none for what is no object, or cannot be written as one.
std::optional<Texts> through_message(const char *json)
{
    blob_buf message = {};
    blob_buf_init(&message, 0);
    std::optional<Texts> texts;
    if (blobmsg_add_json_from_string(&message, json) && all_named(message.head)) {
        texts = Texts{written(message.head, -1), written(message.head, 0)};
    }
    blob_buf_free(&message);
    return texts;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    auto text = text_of({data, size});
    auto first = through_message(text.data());
    if (!first) {
        return 0;
    }
    // Names that end at "\u0000" may be equal in the first text; of those, the second has the last.
    auto second = through_message(first->line.c_str());
    PROMISE(second);
    for (const std::string &json : {first->lines, second->line, second->lines}) {
        auto again = through_message(json.c_str());
        PROMISE(again && again->line == second->line && again->lines == second->lines);
    }
    return 0;
}
