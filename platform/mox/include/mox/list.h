/* Intrusive doubly linked lists: a head and its nodes are the same type; an
 * unlinked node and an empty head point to themselves. */
#ifndef MOX_LIST_H
#define MOX_LIST_H

#include <stddef.h>

typedef struct mox_list {
    struct mox_list *next;
    struct mox_list *prev;
} mox_list;

#define mox_container_of(ptr, type, member) ((type *)((char *)(ptr)-offsetof(type, member)))

static inline void mox_list_init(mox_list *l)
{
    l->next = l->prev = l;
}

static inline int mox_list_empty(const mox_list *l)
{
    return l->next == l;
}

/* Links `n` (which must not be linked) before `head`, i.e. at the tail. */
static inline void mox_list_add_tail(mox_list *head, mox_list *n)
{
    n->prev = head->prev;
    n->next = head;
    head->prev->next = n;
    head->prev = n;
}

/* Unlinks `n` and leaves it pointing to itself; harmless on an unlinked node. */
static inline void mox_list_del_init(mox_list *n)
{
    n->prev->next = n->next;
    n->next->prev = n->prev;
    mox_list_init(n);
}

#endif
