#include "ovani/ovani_memory.h"

#include <cstdlib>

#include "ovani/ovani_log.h"

int32_t MemAllocCount[MTYPE_MAX];

const char *const halMType[MTYPE_MAX] = {"unkown", "host_table", "host_node", "mac_table", "mac_node"};

void *ovani_malloc(enum memory_type type, int size)
{
    if (static_cast<unsigned>(type) >= MTYPE_MAX || size < 0) {
        return nullptr;
    }
    void *block = malloc(static_cast<size_t>(size));
    if (block != nullptr) {
        ++MemAllocCount[type];
    }
    return block;
}

void ovani_free(enum memory_type type, void *ptr)
{
    if (ptr == nullptr) {
        return;
    }
    free(ptr);
    --MemAllocCount[type];
}

void ovani_mem_alloc_count_init()
{
    for (int32_t &count : MemAllocCount) {
        count = 0;
    }
}

void ovani_show_memory_allocated()
{
    for (int type = 0; type < MTYPE_MAX; ++type) {
        ovani_log(VELM_LOG_DEBUG, "[%s] : = %d\r\n", halMType[type], MemAllocCount[type]);
    }
}
