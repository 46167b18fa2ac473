// Recursive listing of a gateway directory into one list of records. The
// walk keeps its levels on the heap, not on the coroutine's stack, so the
// depth of a tree is bounded only by memory.
#include "fes_utils/fes_utils.h"
#include "mox/alloc.h"
#include "mox/errors.h"
#include "mox/log.h"

#include <cstddef>
#include <cstring>

namespace
{

// One directory being listed: its records, read completely before any of
// its subdirectories is opened, and the next record to visit.
struct level {
    level *up;
    ar_io_dir *dir; // released with the level unless it is the caller's
    bool owns_dir;
    dirlist_entry *parent;
    dirlist_entry *insert_after;
    mox_list entries;
    mox_list *next;
};

bool is_dir(const dirlist_entry *e)
{
    return (e->mode & FES_MODE_TYPE) == FES_MODE_DIR;
}

// Moves every node of `from` right after `at`, in order; `from` ends empty.
void splice_after(mox_list *at, mox_list *from)
{
    if (mox_list_empty(from))
        return;
    mox_list *first = from->next, *last = from->prev;
    first->prev = at;
    last->next = at->next;
    at->next->prev = last;
    at->next = first;
    mox_list_init(from);
}

dirlist_entry *make_child(const dirlist_entry *parent, const char *name, uint32_t mode)
{
    // A child of "/" is "/name", not "//name".
    size_t plen = strcmp(parent->path, "/") == 0 ? 0 : strlen(parent->path);
    size_t nlen = strlen(name);
    auto *e =
        static_cast<dirlist_entry *>(mox_zmalloc(offsetof(dirlist_entry, path) + plen + nlen + 2));
    memcpy(e->path, parent->path, plen);
    e->path[plen] = '/';
    memcpy(e->path + plen + 1, name, nlen + 1);
    e->name = e->path + plen + 1;
    e->parent = const_cast<dirlist_entry *>(parent);
    e->depth = parent->depth + 1;
    e->mode = mode;
    return e;
}

// Keeps the cursor's entry in `lv` when it is listable; logs the others.
void take_entry(level *lv, const ar_io_dir_entry *cur)
{
    if (fes_is_reserved_name(cur->name))
        return;
    uint32_t type = cur->mode & FES_MODE_TYPE;
    if (type != FES_MODE_DIR && type != FES_MODE_REG) {
        mox_co_log(1, "not a directory or a regular file: '%s/%s'", lv->parent->path, cur->name);
        return;
    }
    dirlist_entry *e = make_child(lv->parent, cur->name, cur->mode);
    mox_list_add_tail(&lv->entries, &e->link);
    if (fes_check_path(e->path)) {
        mox_co_log(1, "entry has illegal name: '%s'", e->path);
        mox_list_del_init(&e->link);
        mox_free(e);
    }
}

// Reads the whole directory of `lv` into its records and releases the
// cursor. 0, or the failed read's code with the records freed.
int read_level(level *lv)
{
    MOX_BUG_ON(!is_dir(lv->parent), "fes_utils", "list_dir_entries_r");
    ar_io_dir_entry *cur = nullptr;
    int rc = lv->dir->ops->read_first(lv->dir, nullptr, &cur, 0);
    while (rc > 0) {
        take_entry(lv, cur);
        rc = lv->dir->ops->read_next(lv->dir, cur, 0);
    }
    if (cur != nullptr)
        lv->dir->ops->release_entry(lv->dir, cur);
    if (rc < 0) {
        free_dirlist_entries(&lv->entries);
        return rc;
    }
    lv->next = lv->entries.next;
    return 0;
}

level *new_level(level *up, ar_io_dir *dir, bool owns_dir, dirlist_entry *parent,
                 dirlist_entry *insert_after)
{
    auto *lv = static_cast<level *>(mox_zmalloc(sizeof(level)));
    lv->up = up;
    lv->dir = dir;
    lv->owns_dir = owns_dir;
    lv->parent = parent;
    lv->insert_after = insert_after;
    mox_list_init(&lv->entries);
    lv->next = &lv->entries;
    return lv;
}

// Frees `lv` and its records; returns the level above it.
level *drop_level(level *lv)
{
    level *up = lv->up;
    free_dirlist_entries(&lv->entries);
    if (lv->owns_dir)
        ar_io_dir_put(lv->dir);
    mox_free(lv);
    return up;
}

// Opens and reads the next subdirectory of `lv` that can be read: the new
// level in *child, or null when `lv` has no more to visit. A subdirectory
// that has vanished (-8) is passed over. 0 or a failure's code.
int descend(level *lv, level **child)
{
    *child = nullptr;
    while (lv->next != &lv->entries) {
        dirlist_entry *rec = dirlist_entry_of(lv->next);
        lv->next = lv->next->next;
        if (!is_dir(rec))
            continue;
        ar_io_dir *sub = nullptr;
        int rc = lv->dir->ops->open_child(lv->dir, rec->name, &sub, 0);
        if (rc != 0) {
            ar_io_dir_put(sub);
            if (rc == -MOX_ENOENT)
                continue;
            return rc;
        }
        level *next = new_level(lv, sub, true, rec, rec);
        rc = read_level(next);
        if (rc != 0) {
            drop_level(next);
            if (rc == -MOX_ENOENT)
                continue;
            return rc;
        }
        *child = next;
        return 0;
    }
    return 0;
}

} // namespace

extern "C" {

int32_t list_dir_entries_r(ar_io_dir *dir, dirlist_entry *parent, int recursive,
                           dirlist_entry *insert_after)
{
    level *top = new_level(nullptr, dir, false, parent, insert_after);
    int rc = read_level(top);
    if (rc != 0 || !recursive) {
        if (rc == 0)
            splice_after(&insert_after->link, &top->entries);
        drop_level(top);
        return rc;
    }
    level *lv = top;
    while (lv != nullptr) {
        level *child;
        rc = descend(lv, &child);
        if (rc != 0)
            break;
        if (child != nullptr) {
            lv = child;
            continue;
        }
        // Every subdirectory of this level is done: its records go in place.
        splice_after(&lv->insert_after->link, &lv->entries);
        lv = drop_level(lv);
    }
    // A failure anywhere fails every level above it.
    while (lv != nullptr)
        lv = drop_level(lv);
    return rc;
}

int32_t list_dir_entries(ar_io_dir *dir, const char *path, int recursive, mox_list *out)
{
    MOX_BUG_ON(fes_check_path(path) != 0, "fes_utils", "list_dir_entries");
    mox_list local;
    mox_list_init(&local);
    size_t len = strlen(path);
    auto *root = static_cast<dirlist_entry *>(mox_zmalloc(offsetof(dirlist_entry, path) + len + 1));
    memcpy(root->path, path, len + 1);
    root->name = root->path + len;
    root->mode = FES_MODE_DIR;
    mox_list_add_tail(&local, &root->link);
    int32_t rc = list_dir_entries_r(dir, root, recursive, root);
    if (rc != 0) {
        free_dirlist_entries(&local);
        return rc;
    }
    splice_after(out, &local);
    return 0;
}

void free_dirlist_entries(mox_list *head)
{
    while (!mox_list_empty(head)) {
        mox_list *first = head->next;
        mox_list_del_init(first);
        mox_free(dirlist_entry_of(first));
    }
}

} // extern "C"
