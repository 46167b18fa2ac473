// The accounting allocator: every block carries a small header naming its
// call site, so live blocks can be counted per site.
#include "mox/alloc.h"

#include "internal.h"
#include "mox/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unistd.h>

namespace
{

constexpr size_t kMaxSites = 4096;
constexpr uint32_t kMagic = 0x6d6f7841; // "moxA"

struct Header {
    uint32_t magic;
    uint32_t site; // 0: not accounted
    uint64_t size;
};
static_assert(sizeof(Header) == 16, "keeps blocks 16-byte aligned");

struct SiteStats {
    const char *where = nullptr;
    std::atomic<uint64_t> blocks{0};
    std::atomic<uint64_t> bytes{0};
};

std::atomic<bool> g_enabled{false};
SiteStats g_sites[kMaxSites];
std::atomic<uint32_t> g_next_site{1};
std::mutex g_site_mu;

uint32_t site_index(mox_alloc_site *site, const char *where)
{
    auto *slot = reinterpret_cast<std::atomic<uintptr_t> *>(site);
    uintptr_t idx = slot->load(std::memory_order_acquire);
    if (idx != 0)
        return static_cast<uint32_t>(idx);
    std::lock_guard<std::mutex> lock(g_site_mu);
    idx = slot->load(std::memory_order_relaxed);
    if (idx != 0)
        return static_cast<uint32_t>(idx);
    uint32_t next = g_next_site.load();
    if (next >= kMaxSites)
        return 0; // too many sites: the rest go unaccounted
    g_sites[next].where = where;
    g_next_site.store(next + 1);
    slot->store(next, std::memory_order_release);
    return next;
}

void *allocate(mox_alloc_site *site, const char *where, size_t size, bool zero)
{
    if (size > SIZE_MAX - sizeof(Header))
        mox_err("allocation size overflow", __FILE__, __LINE__, __func__);
    void *raw = zero ? calloc(1, sizeof(Header) + size) : malloc(sizeof(Header) + size);
    if (raw == nullptr)
        mox_err("out of memory", __FILE__, __LINE__, __func__);
    auto *h = static_cast<Header *>(raw);
    h->magic = kMagic;
    h->size = size;
    h->site = 0;
    if (g_enabled.load(std::memory_order_relaxed) && site != nullptr) {
        h->site = site_index(site, where);
        if (h->site != 0) {
            g_sites[h->site].blocks.fetch_add(1, std::memory_order_relaxed);
            g_sites[h->site].bytes.fetch_add(size, std::memory_order_relaxed);
        }
    }
    return h + 1;
}

void report_at_exit()
{
    mox_malloc_debug_report(STDERR_FILENO);
}

} // namespace

extern "C" {

void mox_malloc_debug_enable(void)
{
    mox_detail::install_oom_handler();
    if (g_enabled.exchange(true))
        return;
    const char *env = getenv("MOX_MALLOC_REPORT");
    if (env != nullptr && strcmp(env, "1") == 0)
        atexit(report_at_exit);
}

void *__mox_malloc(mox_alloc_site *site, const char *where, int, size_t size)
{
    return allocate(site, where, size, false);
}

void *__mox_zmalloc(mox_alloc_site *site, const char *where, int, size_t size)
{
    return allocate(site, where, size, true);
}

char *__mox_strdup(mox_alloc_site *site, const char *where, int, const char *s)
{
    size_t n = strlen(s) + 1;
    auto *p = static_cast<char *>(allocate(site, where, n, false));
    memcpy(p, s, n);
    return p;
}

char *__mox_asprintf(mox_alloc_site *site, const char *where, int, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n < 0)
        mox_err("bad format", __FILE__, __LINE__, __func__);
    auto *p = static_cast<char *>(allocate(site, where, static_cast<size_t>(n) + 1, false));
    vsnprintf(p, static_cast<size_t>(n) + 1, fmt, ap);
    va_end(ap);
    return p;
}

void __mox_free(void *p)
{
    if (p == nullptr)
        return;
    Header *h = static_cast<Header *>(p) - 1;
    if (h->magic != kMagic)
        mox_err("free of a block the allocator did not hand out", __FILE__, __LINE__, __func__);
    if (h->site != 0) {
        g_sites[h->site].blocks.fetch_sub(1, std::memory_order_relaxed);
        g_sites[h->site].bytes.fetch_sub(h->size, std::memory_order_relaxed);
    }
    h->magic = 0;
    free(h);
}

size_t mox_malloc_debug_report(int fd)
{
    size_t live = 0;
    uint32_t n = g_next_site.load();
    for (uint32_t i = 1; i < n; ++i) {
        uint64_t blocks = g_sites[i].blocks.load();
        if (blocks == 0)
            continue;
        live += blocks;
        dprintf(fd, "%s: %llu blocks, %llu bytes\n", g_sites[i].where,
                static_cast<unsigned long long>(blocks),
                static_cast<unsigned long long>(g_sites[i].bytes.load()));
    }
    return live;
}

} // extern "C"

namespace mox_detail
{

// Memory the runtime or a command gets through operator new (strings, maps,
// coroutine records) ends like the runtime's own allocator: a report with a
// source location, never an exception that escapes to std::terminate.
void install_oom_handler()
{
    std::set_new_handler([] { mox_err("out of memory", __FILE__, __LINE__, "operator new"); });
}

} // namespace mox_detail
