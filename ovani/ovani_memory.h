// Counted allocation for the nodes of the two in-memory tables. Main thread only: the counters are plain
// integers.
#pragma once

#include <cstdint>

enum memory_type : int {
    MTYPE_TMP = 0,
    MTYPE_HOST_TABLE = 1,
    MTYPE_HOST_NODE = 2,
    MTYPE_MAC_TABLE = 3,
    MTYPE_MAC_NODE = 4,
    MTYPE_MAX = 5,
};

// Live blocks by type.
extern int32_t MemAllocCount[MTYPE_MAX];

// Names by type, for the listing.
extern const char *const halMType[MTYPE_MAX];

// Allocates `size` bytes, not cleared, and counts the block. Null when `type` is not below MTYPE_MAX, or
// memory has run out.
void *ovani_malloc(enum memory_type type, int size);

// Frees a block and uncounts it; null is ignored. `type` is the one it was allocated with.
void ovani_free(enum memory_type type, void *ptr);

// Sets every counter to 0.
void ovani_mem_alloc_count_init();

// Logs one line a type with its count.
void ovani_show_memory_allocated();
