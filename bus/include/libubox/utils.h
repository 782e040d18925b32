/* Byte order and small conveniences. */
#pragma once

#include <stdbool.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(array) (sizeof(array) / sizeof((array)[0]))
#endif

#ifdef __cplusplus
extern "C" {
#endif

#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define LIBUBOX_SWAP(bits, value) __builtin_bswap##bits(value)
#else
#define LIBUBOX_SWAP(bits, value) (value)
#endif

static inline uint16_t cpu_to_be16(uint16_t value)
{
    return LIBUBOX_SWAP(16, value);
}

static inline uint32_t cpu_to_be32(uint32_t value)
{
    return LIBUBOX_SWAP(32, value);
}

static inline uint64_t cpu_to_be64(uint64_t value)
{
    return LIBUBOX_SWAP(64, value);
}

static inline uint16_t be16_to_cpu(uint16_t value)
{
    return LIBUBOX_SWAP(16, value);
}

static inline uint32_t be32_to_cpu(uint32_t value)
{
    return LIBUBOX_SWAP(32, value);
}

static inline uint64_t be64_to_cpu(uint64_t value)
{
    return LIBUBOX_SWAP(64, value);
}

#undef LIBUBOX_SWAP

#ifdef __cplusplus
}
#endif
