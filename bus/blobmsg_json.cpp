#include <libubox/blobmsg_json.h>

#include <algorithm>
#include <cinttypes>
#include <limits>
#include <string>

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

/*
 * Bus text is bytes (a device may name itself in GBK); the JSON parser insists on UTF-8. Each byte from 0x80
 * up therefore goes through it as a code point of its own at the very end of the private planes, U+10FF80 to
 * U+10FFFF, and is turned back afterwards. In UTF-8 these are F4 8F BE 80 to F4 8F BF BF.
 */
std::string veil(const char *text)
{
    std::string veiled;
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte < 0x80) {
            veiled += *text;
            continue;
        }
        veiled += "\xF4\x8F";
        veiled += static_cast<char>(byte < 0xC0 ? 0xBE : 0xBF);
        veiled += static_cast<char>(0x80 | (byte & 0x3F));
    }
    return veiled;
}

std::string unveil(const std::string &veiled)
{
    std::string text;
    for (size_t i = 0; i < veiled.size(); ++i) {
        if (veiled.compare(i, 3, "\xF4\x8F\xBE") != 0 && veiled.compare(i, 3, "\xF4\x8F\xBF") != 0) {
            text += veiled[i];
            continue;
        }
        const auto last = static_cast<unsigned char>(veiled[i + 3]);
        text += static_cast<char>(veiled[i + 2] == '\xBE' ? last : last | 0x40);
        i += 3;
    }
    return text;
}

bool add_integer(blob_buf *b, const char *name, int64_t value)
{
    if (value >= INT32_MIN && value <= INT32_MAX) {
        return blobmsg_add_u32(b, name, static_cast<uint32_t>(value)) == 0;
    }
    return blobmsg_add_u64(b, name, static_cast<uint64_t>(value)) == 0;
}

bool add_members(blob_buf *b, const Json &json, int nesting);

bool add_element(blob_buf *b, const char *name, const Json &value, int nesting)
{
    switch (value.type()) {
    case Json::value_t::object:
    case Json::value_t::array: {
        void *cookie = nesting > 0 ? blobmsg_open_nested(b, name, value.is_array()) : nullptr;
        const bool added = cookie != nullptr && add_members(b, value, nesting - 1);
        blob_nest_end(b, cookie);
        return added;
    }
    case Json::value_t::string:
        return blobmsg_add_string(b, name, unveil(*value.get_ptr<const std::string *>()).c_str()) == 0;
    case Json::value_t::boolean:
        return blobmsg_add_u8(b, name, *value.get_ptr<const bool *>() ? 1 : 0) == 0;
    case Json::value_t::number_integer:
        return add_integer(b, name, *value.get_ptr<const int64_t *>());
    case Json::value_t::number_unsigned:
        return add_integer(b, name,
                           static_cast<int64_t>(std::min<uint64_t>(*value.get_ptr<const uint64_t *>(),
                                                                   std::numeric_limits<int64_t>::max())));
    case Json::value_t::number_float:
        return blobmsg_add_double(b, name, *value.get_ptr<const double *>()) == 0;
    case Json::value_t::null:
        return blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
    default:
        return false;
    }
}

bool add_members(blob_buf *b, const Json &json, int nesting)
{
    for (const auto &member : json.items()) {
        const bool added = json.is_array()
                               ? add_element(b, nullptr, member.value(), nesting)
                               : add_element(b, unveil(member.key()).c_str(), member.value(), nesting);
        if (!added) {
            return false;
        }
    }
    return true;
}

struct Writer {
    blobmsg_json_format_t custom;
    void *priv;
    int indent; // below 0: all in one line
    std::string out;
};

void new_line(Writer &w)
{
    if (w.indent < 0) {
        return;
    }
    w.out += '\n';
    w.out.append(static_cast<size_t>(w.indent), '\t');
}

void write_string(Writer &w, const char *text)
{
    static constexpr const char *hex = "0123456789abcdef";
    w.out += '"';
    for (; *text != '\0'; ++text) {
        const auto c = static_cast<unsigned char>(*text);
        switch (c) {
        case '\b':
            w.out += "\\b";
            break;
        case '\n':
            w.out += "\\n";
            break;
        case '\t':
            w.out += "\\t";
            break;
        case '\r':
            w.out += "\\r";
            break;
        case '"':
        case '\\':
            w.out += '\\';
            w.out += *text;
            break;
        default:
            if (c < 0x20) {
                w.out += "\\u00";
                w.out += hex[c >> 4];
                w.out += hex[c & 15];
            } else {
                w.out += *text;
            }
        }
    }
    w.out += '"';
}

void write_element(Writer &w, blob_attr *attr, bool with_name);

void write_list(Writer &w, blob_attr *first, size_t len, bool array)
{
    w.out += array ? '[' : '{';
    w.indent += w.indent < 0 ? 0 : 1;
    new_line(w);
    bool separate = false;
    blob_attr *member = nullptr;
    __blob_for_each_attr(member, first, len)
    {
        if (!blobmsg_check_attr_len(member, false, len)) {
            continue;
        }
        if (separate) {
            w.out += ',';
            new_line(w);
        }
        separate = true;
        write_element(w, member, !array);
    }
    w.indent -= w.indent < 0 ? 0 : 1;
    new_line(w);
    w.out += array ? ']' : '}';
}

// `attr` has been checked.
void write_value(Writer &w, blob_attr *attr)
{
    char number[320]; // the longest double in %f has 309 digits before the point
    number[0] = '\0';
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_TABLE:
    case BLOBMSG_TYPE_ARRAY:
        write_list(w, static_cast<blob_attr *>(blobmsg_data(attr)), blobmsg_data_len(attr),
                   blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
        return;
    case BLOBMSG_TYPE_STRING:
        write_string(w, blobmsg_get_string(attr));
        return;
    case BLOBMSG_TYPE_BOOL:
        w.out += blobmsg_get_bool(attr) ? "true" : "false";
        return;
    case BLOBMSG_TYPE_INT16:
    case BLOBMSG_TYPE_INT32:
    case BLOBMSG_TYPE_INT64:
        snprintf(number, sizeof(number), "%" PRId64, blobmsg_cast_s64(attr));
        break;
    case BLOBMSG_TYPE_DOUBLE:
        snprintf(number, sizeof(number), "%f", blobmsg_get_double(attr));
        break;
    default:
        w.out += "null";
        return;
    }
    w.out += number;
}

void write_element(Writer &w, blob_attr *attr, bool with_name)
{
    if (with_name && blobmsg_name(attr)[0] != '\0') {
        write_string(w, blobmsg_name(attr));
        w.out += w.indent < 0 ? ":" : ": ";
    }
    const char *custom = w.custom != nullptr ? w.custom(w.priv, attr) : nullptr;
    if (custom != nullptr) {
        w.out += custom;
    } else {
        write_value(w, attr);
    }
}

} // namespace

bool blobmsg_add_json_from_string(blob_buf *b, const char *str)
{
    const Json json = Json::parse(veil(str), nullptr, false);
    return json.is_object() && add_members(b, json, BLOBMSG_MAX_NESTING - 1);
}

char *blobmsg_format_json_with_cb(blob_attr *attr, bool list, blobmsg_json_format_t cb, void *priv,
                                  int indent)
{
    Writer w = {cb, priv, indent, {}};
    if (list) {
        write_list(w, static_cast<blob_attr *>(blobmsg_data(attr)), blobmsg_data_len(attr),
                   blob_is_extended(attr) && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
    } else if (blobmsg_check_attr(attr, false)) {
        write_element(w, attr, true);
    }
    return strdup(w.out.c_str());
}

char *blobmsg_format_json(blob_attr *attr, bool list)
{
    return blobmsg_format_json_with_cb(attr, list, nullptr, nullptr, -1);
}

char *blobmsg_format_json_indent(blob_attr *attr, bool list, int indent)
{
    return blobmsg_format_json_with_cb(attr, list, nullptr, nullptr, indent);
}
