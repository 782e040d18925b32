#include <libubox/blobmsg.h>

#include <algorithm>

#include "blob_internal.h"

namespace {

// What a value of each message type must look like as a blob payload.
constexpr int PAYLOAD[__BLOBMSG_TYPE_LAST] = {
    BLOB_ATTR_BINARY, // UNSPEC
    BLOB_ATTR_NESTED, // ARRAY
    BLOB_ATTR_NESTED, // TABLE
    BLOB_ATTR_STRING, BLOB_ATTR_INT64, BLOB_ATTR_INT32, BLOB_ATTR_INT16, BLOB_ATTR_INT8, BLOB_ATTR_DOUBLE,
};

// `attr` is known to lie within memory.
bool name_is_sound(const blob_attr *attr, bool wanted)
{
    if (!blob_is_extended(attr)) {
        return !wanted;
    }
    if (blob_len(attr) < sizeof(blobmsg_hdr)) {
        return false;
    }
    const auto *hdr = reinterpret_cast<const blobmsg_hdr *>(attr->data);
    const uint16_t len = blobmsg_namelen(hdr);
    if (wanted && len == 0) {
        return false;
    }
    return blob_len(attr) >= static_cast<size_t>(blobmsg_hdrlen(len)) && hdr->name[len] == '\0';
}

bool is_sound(const blob_attr *attr, bool name, size_t len, int nesting)
{
    if (len < sizeof(blob_attr) || blob_raw_len(attr) < sizeof(blob_attr) || blob_raw_len(attr) > len) {
        return false;
    }
    const int type = blobmsg_type(attr);
    if (type > BLOBMSG_TYPE_LAST || !name_is_sound(attr, name)) {
        return false;
    }
    if (PAYLOAD[type] != BLOB_ATTR_NESTED) {
        return blob_check_type(blobmsg_data(attr), static_cast<unsigned>(blobmsg_data_len(attr)),
                               PAYLOAD[type]);
    }

    if (nesting == 0) {
        return false;
    }
    size_t left = 0;
    const blob_attr *member = nullptr;
    blobmsg_for_each_attr(member, attr, left)
    {
        if (!is_sound(member, false, left, nesting - 1)) {
            return false;
        }
    }
    return true;
}

bool has_type(const blob_attr *attr, int wanted)
{
    const int type = blobmsg_type(attr);
    if (wanted == BLOBMSG_CAST_INT64) {
        return type >= BLOBMSG_TYPE_INT64 && type <= BLOBMSG_TYPE_INT8;
    }
    return wanted == BLOBMSG_TYPE_UNSPEC || type == wanted;
}

// Writes the name's header at the start of a fresh attribute's payload.
void put_name(blob_attr *attr, const char *name, size_t namelen)
{
    attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
    auto *hdr = reinterpret_cast<blobmsg_hdr *>(attr->data);
    hdr->namelen = cpu_to_be16(static_cast<uint16_t>(namelen));
    memcpy(hdr->name, name, namelen);
    char *end = attr->data + blobmsg_hdrlen(static_cast<unsigned>(namelen));
    std::fill(reinterpret_cast<char *>(hdr->name) + namelen, end, '\0');
}

} // namespace

bool blobmsg_check_attr_len(const blob_attr *attr, bool name, size_t len)
{
    return is_sound(attr, name, len, BLOBMSG_MAX_NESTING);
}

size_t blobmsg_data_len(const blob_attr *attr)
{
    if (attr == nullptr) {
        return 0;
    }
    const size_t len = blob_len(attr);
    if (!blob_is_extended(attr)) {
        return len;
    }
    if (len < sizeof(blobmsg_hdr)) {
        return 0;
    }
    const auto *hdr = reinterpret_cast<const blobmsg_hdr *>(attr->data);
    return len - std::min(len, static_cast<size_t>(blobmsg_hdrlen(blobmsg_namelen(hdr))));
}

void *blobmsg_data(const blob_attr *attr)
{
    return attr == nullptr ? nullptr
                           : static_cast<char *>(blob_data(attr)) + blob_len(attr) - blobmsg_data_len(attr);
}

bool blobmsg_check_attr(const blob_attr *attr, bool name)
{
    return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

int blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data, unsigned int len)
{
    std::fill_n(tb, policy_len, nullptr);
    if (data == nullptr || len == 0) {
        return -EINVAL;
    }

    blob_attr *attr = nullptr;
    __blob_for_each_attr(attr, data, len)
    {
        if (!blobmsg_check_attr_len(attr, false, len)) {
            return -1;
        }
        for (int i = 0; i < policy_len; ++i) {
            if (tb[i] == nullptr && policy[i].name != nullptr && blob_is_extended(attr) &&
                has_type(attr, policy[i].type) && strcmp(policy[i].name, blobmsg_name(attr)) == 0) {
                tb[i] = attr;
            }
        }
    }
    return 0;
}

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data, unsigned int len)
{
    const size_t namelen = name != nullptr ? strlen(name) : 0;
    if (namelen > UINT16_MAX || len > BLOB_ATTR_LEN_MASK) {
        return -1;
    }
    const int hdrlen = blobmsg_hdrlen(static_cast<unsigned>(namelen));
    blob_attr *attr = blob_new(buf, type, hdrlen + static_cast<int>(len));
    if (attr == nullptr) {
        return -1;
    }
    put_name(attr, name != nullptr ? name : "", namelen);
    if (data != nullptr && len > 0) {
        memcpy(attr->data + hdrlen, data, len);
    }
    return 0;
}

void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array)
{
    const size_t namelen = name != nullptr ? strlen(name) : 0;
    if (namelen > UINT16_MAX) {
        return nullptr;
    }
    const auto hdrlen = static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned>(namelen)));
    void *cookie = bus::blob_nest_start_after(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, hdrlen);
    if (cookie != nullptr) {
        put_name(buf->head, name != nullptr ? name : "", namelen);
    }
    return cookie;
}
