/* Shared by clients and brokers. */
#pragma once

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Length of what two texts begin with in common, into `len`; true when they are equal. */
static inline bool ubus_strmatch_len(const char *s1, const char *s2, int *len)
{
    for (*len = 0; s1[*len] == s2[*len]; (*len)++) {
        if (s1[*len] == '\0') {
            return true;
        }
    }
    return false;
}

#ifdef __cplusplus
}
#endif
