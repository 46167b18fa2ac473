/* The accounting allocator. Every call names its call site: a static,
 * zero-initialised site record and a "file:line" string. Allocation never
 * fails: running out of memory ends the program. */
#ifndef MOX_ALLOC_H
#define MOX_ALLOC_H

#include "mox/compiler.h"

#include <stddef.h>
#include <stdint.h>

MOX_EXTERN_C_BEGIN

/* Owned by the allocator: holds the site's slot in its accounting table. */
typedef uintptr_t mox_alloc_site;

/* Turns per-site accounting on for blocks allocated from now on. */
void mox_malloc_debug_enable(void);

void *__mox_malloc(mox_alloc_site *site, const char *where, int one, size_t size);
void *__mox_zmalloc(mox_alloc_site *site, const char *where, int one, size_t size);
char *__mox_strdup(mox_alloc_site *site, const char *where, int one, const char *s);
char *__mox_asprintf(mox_alloc_site *site, const char *where, int one, const char *fmt, ...)
    MOX_PRINTF(4, 5);
/* Frees a block from the calls above; null is ignored. */
void __mox_free(void *p);

/* Writes one line per call site that still holds blocks ("where: N blocks,
 * B bytes") to the descriptor, and returns the number of live blocks. Only
 * blocks allocated while accounting was on are counted. Setting the
 * environment variable MOX_MALLOC_REPORT=1 prints this report at exit. */
size_t mox_malloc_debug_report(int fd);

MOX_EXTERN_C_END

#define MOX_STR2_(x) #x
#define MOX_STR_(x) MOX_STR2_(x)
#define MOX_WHERE __FILE__ ":" MOX_STR_(__LINE__)
#ifdef __cplusplus
#define MOX_SITE()                                                                                 \
    ([]() -> mox_alloc_site * {                                                                    \
        static mox_alloc_site s_;                                                                  \
        return &s_;                                                                                \
    }())
#else
#define MOX_SITE()                                                                                 \
    ({                                                                                             \
        static mox_alloc_site s_;                                                                  \
        &s_;                                                                                       \
    })
#endif

#define mox_malloc(size) __mox_malloc(MOX_SITE(), MOX_WHERE, 1, (size))
#define mox_zmalloc(size) __mox_zmalloc(MOX_SITE(), MOX_WHERE, 1, (size))
#define mox_strdup(s) __mox_strdup(MOX_SITE(), MOX_WHERE, 1, (s))
#define mox_asprintf(...) __mox_asprintf(MOX_SITE(), MOX_WHERE, 1, __VA_ARGS__)
#define mox_free(p) __mox_free(p)

#endif
