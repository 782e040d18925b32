/*
 * Circular doubly linked lists whose links live inside the records. An entry that was never in a list is all
 * zeroes (or initialised); one taken out with list_del is zeroed again.
 */
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The record of type `type` whose field `member` is at `ptr`. */
#ifndef container_of
#define container_of(ptr, type, member) ((type *)(void *)((char *)(ptr)-offsetof(type, member)))
#endif

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

#undef LIST_HEAD
#define LIST_HEAD_INIT(name)                                                                                 \
    {                                                                                                        \
        &(name), &(name)                                                                                     \
    }
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)

static inline void INIT_LIST_HEAD(struct list_head *list)
{
    list->next = list;
    list->prev = list;
}

static inline bool list_empty(const struct list_head *head)
{
    return head->next == head;
}

/* Puts `entry` in front of `position`. */
static inline void list_add_tail(struct list_head *entry, struct list_head *position)
{
    entry->prev = position->prev;
    entry->next = position;
    position->prev->next = entry;
    position->prev = entry;
}

static inline void list_add(struct list_head *entry, struct list_head *head)
{
    list_add_tail(entry, head->next);
}

static inline void list_del(struct list_head *entry)
{
    entry->next->prev = entry->prev;
    entry->prev->next = entry->next;
    memset(entry, 0, sizeof(*entry));
}

static inline void list_del_init(struct list_head *entry)
{
    list_del(entry);
    INIT_LIST_HEAD(entry);
}

#define list_entry(ptr, type, field) container_of(ptr, type, field)
#define list_first_entry(head, type, field) list_entry((head)->next, type, field)

#define list_for_each_entry(p, head, field)                                                                  \
    for ((p) = list_first_entry(head, __typeof__(*(p)), field); &(p)->field != (head);                       \
         (p) = list_entry((p)->field.next, __typeof__(*(p)), field))

/* The same, when the body may take `p` out of the list; `n` is the entry after it. */
#define list_for_each_entry_safe(p, n, head, field)                                                          \
    for ((p) = list_first_entry(head, __typeof__(*(p)), field),                                              \
        (n) = list_entry((p)->field.next, __typeof__(*(p)), field);                                          \
         &(p)->field != (head); (p) = (n), (n) = list_entry((n)->field.next, __typeof__(*(n)), field))

#ifdef __cplusplus
}
#endif
