// The keepalive registry: objects marked within the timeout stay held; the
// registry's coroutine releases the others, oldest first.
#include "utils/keepalive.h"

#include "mox/log.h"
#include "mox/misc.h"
#include "mox/process.h"
#include "utils/mox_helpers.h"

namespace
{

bool stopping(const keepalive_list *list)
{
    return (list->flags & KEEPALIVE_STOPPING) != 0;
}

bool held(const keepalive_entry *entry)
{
    return entry->link.next != &entry->link;
}

// The loop's cached time where there is a loop; the same clock otherwise.
uint64_t now_ms()
{
    mox_loop *loop = mox_current_loop();
    return loop != nullptr ? mox_loop_now_ms(loop) : get_abs_time_us() / 1000;
}

keepalive_entry *oldest(keepalive_list *list)
{
    return mox_container_of(list->entries.next, keepalive_entry, link);
}

void release(keepalive_entry *entry)
{
    mox_list_del_init(&entry->link);
    entry->list->on_release(entry);
}

// Time to sleep before the oldest entry is due, after releasing it if it
// already is; 0 asks for another look at once.
int32_t release_due(keepalive_list *list)
{
    if (mox_list_empty(&list->entries))
        return list->timeout_ms;
    keepalive_entry *entry = oldest(list);
    uint64_t now = now_ms();
    uint64_t elapsed = now > entry->last_access_ms ? now - entry->last_access_ms : 0;
    if (elapsed >= static_cast<uint64_t>(list->timeout_ms)) {
        release(entry);
        return 0;
    }
    return list->timeout_ms - static_cast<int32_t>(elapsed);
}

} // namespace

extern "C" {

int32_t keepalive_co(mox_co *co, void *arg)
{
    (void)co;
    auto *list = static_cast<keepalive_list *>(arg);
    while (!stopping(list)) {
        int32_t wait = release_due(list);
        if (wait == 0 || stopping(list))
            continue; // every entry already due goes in this same pass
        mox_co *self = mox_current_co();
        mox_co_waitqueue_add(&list->waitq, self);
        mox_co_wait_timeout(&wait);
        mox_co_waitqueue_del(self);
    }
    while (!mox_list_empty(&list->entries))
        release(oldest(list));
    list->co = nullptr;
    return 0;
}

mox_co *keepalive_list_init(keepalive_list *list, int32_t timeout_ms, const char *name,
                            keepalive_fn on_activate, keepalive_fn on_release, mox_context *ctx)
{
    // With no timeout the coroutine would never sleep, and a deadline would
    // end every sleep at once: both would spin the loop.
    if (timeout_ms <= 0) {
        mox_log(0, "keepalive_list_init: registry '%s' needs a positive timeout, got %i ms", name,
                timeout_ms);
        MOX_BUG_ON(true, "utils", "keepalive_list_init");
    }
    if (ctx != nullptr && mox_context_deadline_ms(ctx) != 0) {
        mox_log(0, "keepalive_list_init: registry '%s' cannot run in a context with a deadline",
                name);
        MOX_BUG_ON(true, "utils", "keepalive_list_init");
    }
    mox_list_init(&list->entries);
    list->flags &= static_cast<uint8_t>(~KEEPALIVE_STOPPING);
    list->timeout_ms = timeout_ms;
    list->on_activate = on_activate;
    list->on_release = on_release;
    mox_co_waitqueue_init(&list->waitq);
    list->co = mox_co_create_child(ctx, keepalive_co, list, "keepalive_%s", name);
    return list->co;
}

void keepalive_list_fini(keepalive_list *list)
{
    MOX_BUG_ON(stopping(list), "utils", "keepalive_list_fini");
    if (list->co == nullptr)
        return;
    list->flags |= KEEPALIVE_STOPPING;
    mox_co_waitqueue_wakeup_all(&list->waitq);
    MOX_BUG_ON(!mox_list_empty(&list->waitq.waiters), "utils", "keepalive_list_fini");
    mox_co_join(list->co);
}

void keepalive_init(keepalive_entry *entry, keepalive_list *list)
{
    mox_list_init(&entry->link);
    entry->last_access_ms = now_ms();
    entry->list = list;
}

void keepalive_mark_accessed(keepalive_entry *entry)
{
    keepalive_list *list = entry->list;
    MOX_BUG_ON(stopping(list) || list->co == nullptr, "utils", "keepalive_mark_accessed");
    if (!held(entry))
        list->on_activate(entry);
    entry->last_access_ms = now_ms();
    mox_list_del_init(&entry->link);
    mox_list_add_tail(&list->entries, &entry->link);
}

void keepalive_del(keepalive_entry *entry)
{
    if (held(entry))
        release(entry);
}

} // extern "C"
