/*
 * Messages: blobs whose attributes have names and types, like JSON.
 *
 * A message attribute is a blob attribute with the "extended" bit set and its type (enum blobmsg_type) as id.
 * Its payload begins with the name: 16-bit big-endian length, that many bytes and a zero, filled up to a
 * multiple of 4; the value follows. A table's value is a sequence of such attributes, an array's one with
 * empty names. A string's value ends with a zero byte; a BLOBMSG_TYPE_UNSPEC value is raw bytes (JSON: null).
 *
 * The getters believe the attribute they are given; blobmsg_parse hands out only attributes that passed
 * blobmsg_check_attr_len and have the type that the policy names.
 */
#pragma once

#include "blob.h"

#ifdef __cplusplus
extern "C" {
#endif

#define BLOBMSG_ALIGN 2
#define BLOBMSG_PADDING(len) (((len) + (1 << BLOBMSG_ALIGN) - 1) & ~((1 << BLOBMSG_ALIGN) - 1))

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC,
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE,
    __BLOBMSG_TYPE_LAST,
    BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
    BLOBMSG_CAST_INT64 = __BLOBMSG_TYPE_LAST, /* in a policy: an integer of any size, for blobmsg_cast_* */
};

struct blobmsg_hdr {
    uint16_t namelen;
    uint8_t name[];
} __attribute__((packed));

/* A member a parser looks for. BLOBMSG_TYPE_UNSPEC takes any type. */
struct blobmsg_policy {
    const char *name;
    enum blobmsg_type type;
};

/* Length of the name's header, padding included. */
static inline int blobmsg_hdrlen(unsigned int namelen)
{
    return BLOBMSG_PADDING((int)(sizeof(struct blobmsg_hdr) + namelen + 1));
}

static inline uint16_t blobmsg_namelen(const struct blobmsg_hdr *hdr)
{
    return be16_to_cpu(hdr->namelen);
}

static inline const char *blobmsg_name(const struct blob_attr *attr)
{
    return blob_is_extended(attr) ? attr->data + sizeof(struct blobmsg_hdr) : "";
}

static inline int blobmsg_type(const struct blob_attr *attr)
{
    return (int)blob_id(attr);
}

/* The value; null and 0 for a null attribute. It lies inside the attribute, empty where the name does not. */
void *blobmsg_data(const struct blob_attr *attr);
size_t blobmsg_data_len(const struct blob_attr *attr);

static inline size_t blobmsg_len(const struct blob_attr *attr)
{
    return blobmsg_data_len(attr);
}

/*
 * Whether an attribute is sound: length, name (ended by a zero, inside the attribute; wanted if `name`),
 * type, a value of the type's size, a string ended by a zero, and the same of everything nested in it, at
 * most BLOBMSG_MAX_NESTING deep. The second form reads no more than `len` bytes; the first believes the
 * attribute's own length.
 */
#define BLOBMSG_MAX_NESTING 64
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);

/*
 * Looks up members by name and type: tb[i] is the first that fits policy[i], or null. `data` and `len` are
 * the message's payload: blob_data and blob_len of what a handler receives, blobmsg_data and blobmsg_data_len
 * of a nested table. 0; -EINVAL without data; -1 at an unsound attribute, those before it having been looked
 * at.
 */
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                  unsigned int len);

static inline int blobmsg_parse_attr(const struct blobmsg_policy *policy, int policy_len,
                                     struct blob_attr **tb, struct blob_attr *data)
{
    return blobmsg_parse(policy, policy_len, tb, blobmsg_data(data), (unsigned int)blobmsg_len(data));
}

/* Appends a member (null name: empty, as in an array). 0, or -1 when it does not fit. */
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len);

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t val)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &val, sizeof(val));
}

static inline int blobmsg_add_u16(struct blob_buf *buf, const char *name, uint16_t val)
{
    val = cpu_to_be16(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT16, name, &val, sizeof(val));
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t val)
{
    val = cpu_to_be32(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &val, sizeof(val));
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t val)
{
    val = cpu_to_be64(val);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &val, sizeof(val));
}

static inline int blobmsg_add_double(struct blob_buf *buf, const char *name, double val)
{
    uint64_t bits;
    memcpy(&bits, &val, sizeof(bits));
    bits = cpu_to_be64(bits);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof(bits));
}

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string, (unsigned int)strlen(string) + 1);
}

static inline int blobmsg_add_blob(struct blob_buf *buf, struct blob_attr *attr)
{
    return blobmsg_add_field(buf, blobmsg_type(attr), blobmsg_name(attr), blobmsg_data(attr),
                             (unsigned int)blobmsg_data_len(attr));
}

/* What is added between open and close goes into the table or array; close wants what open gave. */
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name)
{
    return blobmsg_open_nested(buf, name, true);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name)
{
    return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie)
{
    blob_nest_end(buf, cookie);
}

static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie)
{
    blob_nest_end(buf, cookie);
}

static inline int blobmsg_buf_init(struct blob_buf *buf)
{
    return blob_buf_init(buf, BLOBMSG_TYPE_TABLE);
}

static inline uint8_t blobmsg_get_u8(struct blob_attr *attr)
{
    return *(const uint8_t *)blobmsg_data(attr);
}

static inline bool blobmsg_get_bool(struct blob_attr *attr)
{
    return blobmsg_get_u8(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(struct blob_attr *attr)
{
    uint16_t value;
    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be16_to_cpu(value);
}

static inline uint32_t blobmsg_get_u32(struct blob_attr *attr)
{
    uint32_t value;
    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be32_to_cpu(value);
}

static inline uint64_t blobmsg_get_u64(struct blob_attr *attr)
{
    uint64_t value;
    memcpy(&value, blobmsg_data(attr), sizeof(value));
    return be64_to_cpu(value);
}

/* The value of an integer attribute of any size; 0 for other types. */
static inline uint64_t blobmsg_cast_u64(struct blob_attr *attr)
{
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT64:
        return blobmsg_get_u64(attr);
    case BLOBMSG_TYPE_INT32:
        return blobmsg_get_u32(attr);
    case BLOBMSG_TYPE_INT16:
        return blobmsg_get_u16(attr);
    case BLOBMSG_TYPE_INT8:
        return blobmsg_get_u8(attr);
    default:
        return 0;
    }
}

static inline int64_t blobmsg_cast_s64(struct blob_attr *attr)
{
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_INT64:
        return (int64_t)blobmsg_get_u64(attr);
    case BLOBMSG_TYPE_INT32:
        return (int32_t)blobmsg_get_u32(attr);
    case BLOBMSG_TYPE_INT16:
        return (int16_t)blobmsg_get_u16(attr);
    case BLOBMSG_TYPE_INT8:
        return (int8_t)blobmsg_get_u8(attr);
    default:
        return 0;
    }
}

static inline double blobmsg_get_double(struct blob_attr *attr)
{
    uint64_t bits = blobmsg_get_u64(attr);
    double value;
    memcpy(&value, &bits, sizeof(value));
    return value;
}

/* The text; null for a null attribute. */
static inline char *blobmsg_get_string(struct blob_attr *attr)
{
    return (char *)blobmsg_data(attr);
}

/* Walk the members of a table or array as blob_for_each_attr does; in the second form the caller has set
 * `rem`. */
#define blobmsg_for_each_attr(pos, attr, rem)                                                                \
    for (rem = (__typeof__(rem))((attr) ? blobmsg_data_len(attr) : 0),                                       \
        pos = (struct blob_attr *)((attr) ? blobmsg_data(attr) : NULL);                                      \
         (size_t)(rem) >= sizeof(struct blob_attr) && blob_pad_len(pos) <= (size_t)(rem) &&                  \
         blob_raw_len(pos) >= sizeof(struct blob_attr);                                                      \
         rem = (__typeof__(rem))((size_t)(rem)-blob_pad_len(pos)), pos = blob_next(pos))

#define __blobmsg_for_each_attr(pos, attr, rem)                                                              \
    __blob_for_each_attr(pos, (attr) ? blobmsg_data(attr) : NULL, rem)

#ifdef __cplusplus
}
#endif
