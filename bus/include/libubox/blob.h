/*
 * Blobs: trees of tagged binary attributes, the encoding of everything on the bus.
 *
 * An attribute is a 32-bit big-endian word, then its payload:
 *
 *     bit 31      "extended": the payload begins with a name (see blobmsg.h)
 *     bits 30-24  id
 *     bits 23-0   length in bytes, this word included, padding excluded
 *
 * Attributes begin at multiples of 4 bytes counted from the start of the blob; the gap is filled with zeroes.
 * A nested attribute's payload is a sequence of attributes. Integers are big-endian. No function here needs
 * its input aligned in memory.
 *
 * The accessors (blob_id, blob_len, blob_get_* ...) believe the attribute they are given. What came from
 * outside is reached through blob_parse_untrusted, blobmsg_parse or the iterators, all of which stay within
 * the length they are told, and its payload's size is checked by the policy given to the parser.
 */
#pragma once

#include <errno.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "utils.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What a policy can ask of an attribute's payload: integers of exactly their size, a string with its
 * terminator. */
enum {
    BLOB_ATTR_UNSPEC,
    BLOB_ATTR_NESTED,
    BLOB_ATTR_BINARY,
    BLOB_ATTR_STRING,
    BLOB_ATTR_INT8,
    BLOB_ATTR_INT16,
    BLOB_ATTR_INT32,
    BLOB_ATTR_INT64,
    BLOB_ATTR_DOUBLE,
    BLOB_ATTR_LAST
};

#define BLOB_ATTR_ID_MASK 0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN 4
#define BLOB_ATTR_EXTENDED 0x80000000

struct blob_attr {
    uint32_t id_len;
    char data[];
} __attribute__((packed));

/* One entry of a parse policy. `minlen` and `maxlen` (0: any) bound the length with the 4-byte header. */
struct blob_attr_info {
    unsigned int type;
    unsigned int minlen;
    unsigned int maxlen;
    bool (*validate)(const struct blob_attr_info *, struct blob_attr *);
};

/*
 * A blob under construction. All zeroes is a valid empty buffer; blob_buf_init starts a blob in it, reusing
 * its memory; blob_buf_free releases it. Adding may move the blob, so attribute pointers into it do not last.
 * `grow` makes room for at least `minlen` bytes more (null: from the heap).
 */
struct blob_buf {
    struct blob_attr *head;
    bool (*grow)(struct blob_buf *buf, int minlen);
    int buflen;
    void *buf;
};

static inline void *blob_data(const struct blob_attr *attr)
{
    return (void *)(uintptr_t)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr)
{
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr)
{
    return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

/* The attribute's length with its header, as it is written in it: below 4 in a damaged one. */
static inline size_t blob_raw_len(const struct blob_attr *attr)
{
    return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

/* The payload's length. */
static inline size_t blob_len(const struct blob_attr *attr)
{
    size_t len = blob_raw_len(attr);
    return len < sizeof(struct blob_attr) ? 0 : len - sizeof(struct blob_attr);
}

/* The distance to the next attribute. */
static inline size_t blob_pad_len(const struct blob_attr *attr)
{
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr)
{
    return (uint8_t)attr->data[0];
}

static inline uint16_t blob_get_u16(const struct blob_attr *attr)
{
    uint16_t value;
    memcpy(&value, attr->data, sizeof(value));
    return be16_to_cpu(value);
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr)
{
    uint32_t value;
    memcpy(&value, attr->data, sizeof(value));
    return be32_to_cpu(value);
}

static inline uint64_t blob_get_u64(const struct blob_attr *attr)
{
    uint64_t value;
    memcpy(&value, attr->data, sizeof(value));
    return be64_to_cpu(value);
}

static inline int8_t blob_get_int8(const struct blob_attr *attr)
{
    return (int8_t)blob_get_u8(attr);
}

static inline int16_t blob_get_int16(const struct blob_attr *attr)
{
    return (int16_t)blob_get_u16(attr);
}

static inline int32_t blob_get_int32(const struct blob_attr *attr)
{
    return (int32_t)blob_get_u32(attr);
}

static inline int64_t blob_get_int64(const struct blob_attr *attr)
{
    return (int64_t)blob_get_u64(attr);
}

static inline const char *blob_get_string(const struct blob_attr *attr)
{
    return attr->data;
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr)
{
    return (struct blob_attr *)((uintptr_t)attr + blob_pad_len(attr));
}

/* Starts an empty blob whose outermost attribute has this id. 0, or -ENOMEM. */
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);

/* Makes room for `required` bytes more; false when there is no memory or the blob would outgrow 24 bits. */
bool blob_buf_grow(struct blob_buf *buf, int required);

/* Appends an attribute with `payload` bytes for the caller to fill (padding is zeroed). Null when it does not
 * fit: the blob then is as it was. */
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);

/* Appends an attribute with a copy of `len` bytes at `ptr` (null: left for the caller to fill). */
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);

/* What is appended between start and end becomes the payload of an attribute `id`. Start gives the cookie
 * that end wants; null when there was no room, which end ignores. */
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

void blob_fill_pad(struct blob_attr *attr);
void blob_set_raw_len(struct blob_attr *attr, unsigned int len);

/* A copy on the heap, for free(). */
struct blob_attr *blob_memdup(const struct blob_attr *attr);

/* Whether `len` bytes at `ptr` are a payload of this BLOB_ATTR_* type. */
bool blob_check_type(const void *ptr, unsigned int len, int type);

/*
 * Sorts the members of `attr` by id: data[id] is the last one that `info[id]` accepts (null `info`: any), or
 * null. Ids of `max` and above are passed over. Gives the number of ids found. The second form is told how
 * many bytes there are and reads no others; the first believes the attribute's own length.
 */
int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info, int max);
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
                         const struct blob_attr_info *info, int max);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str)
{
    return blob_put(buf, id, str, (unsigned int)strlen(str) + 1);
}

static inline struct blob_attr *blob_put_u8(struct blob_buf *buf, int id, uint8_t val)
{
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u16(struct blob_buf *buf, int id, uint16_t val)
{
    val = cpu_to_be16(val);
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val)
{
    val = cpu_to_be32(val);
    return blob_put(buf, id, &val, sizeof(val));
}

static inline struct blob_attr *blob_put_u64(struct blob_buf *buf, int id, uint64_t val)
{
    val = cpu_to_be64(val);
    return blob_put(buf, id, &val, sizeof(val));
}

#define blob_put_int8 blob_put_u8
#define blob_put_int16 blob_put_u16
#define blob_put_int32 blob_put_u32
#define blob_put_int64 blob_put_u64

/*
 * Walks a sequence of attributes: `pos` takes each in turn, `rem` (an integer variable) is the number of
 * bytes left. The walk ends before an attribute that is damaged or reaches past the end.
 *
 * The first form walks `rem` bytes at `attr`, the second the members of the attribute `attr` (null: none).
 */
#define __blob_for_each_attr(pos, attr, rem)                                                                 \
    for (pos = (struct blob_attr *)(attr);                                                                   \
         (size_t)(rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem) &&                  \
         blob_raw_len(pos) >= sizeof(struct blob_attr);                                                      \
         rem = (__typeof__(rem))((size_t)(rem)-blob_pad_len(pos)), pos = blob_next(pos))

#define blob_for_each_attr(pos, attr, rem)                                                                   \
    for (rem = (__typeof__(rem))((attr) ? blob_len(attr) : 0),                                               \
        pos = (struct blob_attr *)((attr) ? blob_data(attr) : NULL);                                         \
         (size_t)(rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem) &&                  \
         blob_raw_len(pos) >= sizeof(struct blob_attr);                                                      \
         rem = (__typeof__(rem))((size_t)(rem)-blob_pad_len(pos)), pos = blob_next(pos))

#ifdef __cplusplus
}
#endif
