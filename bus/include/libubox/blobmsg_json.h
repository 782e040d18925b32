/*
 * Messages from and to JSON.
 *
 * true/false is BLOBMSG_TYPE_BOOL, an integer INT32 or, when it does not fit, INT64; a fraction DOUBLE; null
 * an empty UNSPEC. Texts are bytes: they need not be UTF-8, either way. A text ends at "\u0000".
 */
#pragma once

#include "blobmsg.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Appends the members of a JSON object. False when `str` is none, is nested deeper than BLOBMSG_MAX_NESTING
 * or does not fit; some members may have been appended then. */
bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str);

/* Writes an attribute in its own way: a JSON text that stays valid until the next call, or null for the
 * usual. */
typedef const char *(*blobmsg_json_format_t)(void *priv, struct blob_attr *attr);

/*
 * JSON text of an attribute, for free(); null without memory. `list`: of its members, in braces (brackets for
 * an array), as a handler's message is printed; else of the attribute with its name. `indent` below 0 gives
 * one line, otherwise one line a value with that many tabs and more. Unsound members are left out.
 */
char *blobmsg_format_json(struct blob_attr *attr, bool list);
char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent);
char *blobmsg_format_json_with_cb(struct blob_attr *attr, bool list, blobmsg_json_format_t cb, void *priv,
                                  int indent);

#ifdef __cplusplus
}
#endif
