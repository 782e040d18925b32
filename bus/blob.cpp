#include "blob_internal.h"

#include <algorithm>

namespace {

constexpr size_t HEADER = sizeof(blob_attr);
constexpr size_t FIRST_SIZE = 256;

blob_attr *attr_at(const blob_buf *buf, size_t offset)
{
    return reinterpret_cast<blob_attr *>(static_cast<char *>(buf->buf) + offset);
}

size_t offset_of(const blob_buf *buf, const blob_attr *attr)
{
    return static_cast<size_t>(reinterpret_cast<const char *>(attr) - static_cast<const char *>(buf->buf));
}

// Doubles, so that building a message of n attributes costs O(n).
bool grow_on_heap(blob_buf *buf, int minlen)
{
    const auto old_size = static_cast<size_t>(buf->buflen);
    const size_t wanted = old_size + static_cast<size_t>(minlen);
    const size_t size = std::max(wanted, std::clamp(old_size * 2, FIRST_SIZE, size_t{BLOB_ATTR_LEN_MASK}));
    void *grown = realloc(buf->buf, size);
    if (grown == nullptr) {
        return false;
    }
    buf->buf = grown;
    buf->buflen = static_cast<int>(size);
    return true;
}

// Writes a header, padding zeroed, for a payload at `offset`; null, and nothing changed, when it does not
// fit.
blob_attr *add_at(blob_buf *buf, size_t offset, int id, size_t payload)
{
    if (payload > BLOB_ATTR_LEN_MASK - HEADER) {
        return nullptr;
    }
    const size_t end = (offset + HEADER + payload + BLOB_ATTR_ALIGN - 1) & ~size_t{BLOB_ATTR_ALIGN - 1};
    if (end > BLOB_ATTR_LEN_MASK) { // whatever it is nested in could not tell its length
        return nullptr;
    }
    const auto size = static_cast<size_t>(buf->buflen);
    if (end > size && !blob_buf_grow(buf, static_cast<int>(end - size))) {
        return nullptr;
    }

    blob_attr *attr = attr_at(buf, offset);
    attr->id_len = cpu_to_be32(((static_cast<uint32_t>(id) << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK) |
                               static_cast<uint32_t>(payload + HEADER));
    blob_fill_pad(attr);
    return attr;
}

constexpr size_t MIN_LEN[BLOB_ATTR_LAST] = {0, 0, 0, 1, 1, 2, 4, 8, 8};

bool accepts(const blob_attr_info &info, blob_attr *attr)
{
    if (info.type < BLOB_ATTR_LAST &&
        !blob_check_type(attr->data, static_cast<unsigned>(blob_len(attr)), static_cast<int>(info.type))) {
        return false;
    }
    if (info.minlen != 0 && blob_raw_len(attr) < info.minlen) {
        return false;
    }
    if (info.maxlen != 0 && blob_raw_len(attr) > info.maxlen) {
        return false;
    }
    return info.validate == nullptr || info.validate(&info, attr);
}

} // namespace

int blob_buf_init(blob_buf *buf, int id)
{
    if (buf->grow == nullptr) {
        buf->grow = grow_on_heap;
    }
    buf->head = static_cast<blob_attr *>(buf->buf);
    buf->head = add_at(buf, 0, id, 0);
    return buf->head != nullptr ? 0 : -ENOMEM;
}

void blob_buf_free(blob_buf *buf)
{
    free(buf->buf);
    buf->buf = nullptr;
    buf->head = nullptr;
    buf->buflen = 0;
}

bool blob_buf_grow(blob_buf *buf, int required)
{
    if (required < 0 ||
        static_cast<size_t>(buf->buflen) + static_cast<size_t>(required) > BLOB_ATTR_LEN_MASK) {
        return false;
    }
    const size_t head = buf->head != nullptr ? offset_of(buf, buf->head) : 0;
    const bool had_head = buf->head != nullptr;
    if (buf->grow == nullptr || !buf->grow(buf, required)) {
        return false;
    }
    if (had_head) {
        buf->head = attr_at(buf, head);
    }
    return true;
}

void blob_fill_pad(blob_attr *attr)
{
    char *start = reinterpret_cast<char *>(attr);
    std::fill(start + blob_raw_len(attr), start + blob_pad_len(attr), '\0');
}

void blob_set_raw_len(blob_attr *attr, unsigned int len)
{
    attr->id_len = (attr->id_len & ~cpu_to_be32(BLOB_ATTR_LEN_MASK)) | cpu_to_be32(len & BLOB_ATTR_LEN_MASK);
}

blob_attr *blob_new(blob_buf *buf, int id, int payload)
{
    if (payload < 0 || buf->head == nullptr) {
        return nullptr;
    }
    blob_attr *attr = add_at(buf, offset_of(buf, blob_next(buf->head)), id, static_cast<size_t>(payload));
    if (attr != nullptr) {
        blob_set_raw_len(buf->head, static_cast<unsigned>(blob_pad_len(buf->head) + blob_pad_len(attr)));
    }
    return attr;
}

blob_attr *blob_put(blob_buf *buf, int id, const void *ptr, unsigned int len)
{
    if (len > BLOB_ATTR_LEN_MASK) {
        return nullptr;
    }
    blob_attr *attr = blob_new(buf, id, static_cast<int>(len));
    if (attr != nullptr && ptr != nullptr && len > 0) {
        memcpy(attr->data, ptr, len);
    }
    return attr;
}

// The cookie is the outer attribute's offset plus 1, so that the blob may move and null means failure. The
// outer attribute grows by the whole inner one at the end.
void *bus::blob_nest_start_after(blob_buf *buf, int id, size_t payload)
{
    if (buf->head == nullptr) {
        return nullptr;
    }
    const size_t outer = offset_of(buf, buf->head);
    blob_attr *inner = add_at(buf, offset_of(buf, blob_next(buf->head)), id, payload);
    if (inner == nullptr) {
        return nullptr;
    }
    buf->head = inner;
    return reinterpret_cast<void *>(outer + 1);
}

void *blob_nest_start(blob_buf *buf, int id)
{
    return bus::blob_nest_start_after(buf, id, 0);
}

void blob_nest_end(blob_buf *buf, void *cookie)
{
    if (cookie == nullptr) {
        return;
    }
    blob_attr *outer = attr_at(buf, reinterpret_cast<uintptr_t>(cookie) - 1);
    blob_set_raw_len(outer, static_cast<unsigned>(blob_pad_len(outer) + blob_pad_len(buf->head)));
    buf->head = outer;
}

blob_attr *blob_memdup(const blob_attr *attr)
{
    const size_t len = std::max(blob_raw_len(attr), HEADER);
    auto *copy = static_cast<blob_attr *>(calloc(1, len + BLOB_ATTR_ALIGN - 1));
    if (copy != nullptr) {
        memcpy(copy, attr, len);
    }
    return copy;
}

bool blob_check_type(const void *ptr, unsigned int len, int type)
{
    if (type < 0 || type >= BLOB_ATTR_LAST) {
        return false;
    }
    if (type >= BLOB_ATTR_INT8 && type <= BLOB_ATTR_INT64) {
        return len == MIN_LEN[type];
    }
    if (len < MIN_LEN[type]) {
        return false;
    }
    return type != BLOB_ATTR_STRING || static_cast<const char *>(ptr)[len - 1] == '\0';
}

int blob_parse_untrusted(blob_attr *attr, size_t attr_len, blob_attr **data, const blob_attr_info *info,
                         int max)
{
    std::fill_n(data, max, nullptr);
    if (attr == nullptr || attr_len < HEADER || blob_raw_len(attr) > attr_len) {
        return 0;
    }

    int found = 0;
    size_t left = 0;
    blob_attr *pos = nullptr;
    blob_for_each_attr(pos, attr, left)
    {
        const unsigned id = blob_id(pos);
        if (static_cast<int>(id) >= max || (info != nullptr && !accepts(info[id], pos))) {
            continue;
        }
        found += data[id] != nullptr ? 0 : 1;
        data[id] = pos;
    }
    return found;
}

int blob_parse(blob_attr *attr, blob_attr **data, const blob_attr_info *info, int max)
{
    return blob_parse_untrusted(attr, attr != nullptr ? blob_raw_len(attr) : 0, data, info, max);
}
