// Directory handles: a path on the gateway, read in pages of entries.
#include "ember/ar_io.h"
#include "ember/protocol.hpp"
#include "ember_call.h"
#include "mox/errors.h"

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace json = boost::json;

namespace
{

struct ember_dir : ar_io_dir {
    ember_client *client;
    std::string path;
    // The current page as parsed, on a resource of its own that goes with
    // the page; the entries' names point into it.
    std::optional<json::value> answer;
    std::vector<ar_io_dir_entry> page;
    std::deque<std::string> decoded; // names that came as name_b64
    size_t pos = 0;
    std::string listing; // the gateway's listing id, "" before the first page
    uint64_t offset = 0; // entries delivered before this page
    bool last = false;   // the page is the listing's last
    ar_io_dir_entry cursor{};
};

ember_dir *self(ar_io_dir *dir)
{
    return static_cast<ember_dir *>(dir);
}

// The entry's name, NUL-terminated and valid as long as the page; null
// when the entry is malformed.
const char *entry_name(ember_dir *d, const json::object &o)
{
    const json::value *plain = o.if_contains("name");
    if (plain && plain->is_string() && !o.contains("name_b64"))
        return plain->get_string().c_str();
    std::string name;
    if (ember_proto::get_name(o, "name", name) != 1)
        return nullptr;
    d->decoded.push_back(std::move(name));
    return d->decoded.back().c_str();
}

int take_page(ember_dir *d, const json::object &answer)
{
    const json::value *entries = answer.if_contains("entries");
    const json::value *listing = answer.if_contains("listing");
    const json::value *more = answer.if_contains("more");
    if (!entries || !entries->is_array() || !listing || !listing->is_string() || !more ||
        !more->is_bool())
        return -MOX_EPROTO;
    d->page.reserve(entries->get_array().size());
    for (const json::value &e : entries->get_array()) {
        const json::object *o = e.if_object();
        const json::value *mode = o ? o->if_contains("mode") : nullptr;
        const char *name = mode && mode->is_int64() ? entry_name(d, *o) : nullptr;
        if (!name)
            return -MOX_EPROTO;
        d->page.push_back({name, static_cast<uint32_t>(mode->get_int64())});
    }
    d->listing.assign(listing->get_string().data(), listing->get_string().size());
    d->last = !more->get_bool();
    return 0;
}

int fetch(ember_dir *d)
{
    d->offset += d->page.size();
    d->page.clear();
    d->decoded.clear();
    d->pos = 0;
    json::object req{{"limit", ember_proto::list_page_max}};
    ember_proto::put_name(req, "path", d->path);
    if (!d->listing.empty()) {
        req["listing"] = d->listing;
        req["offset"] = d->offset;
    }
    // A page is parsed in a few blocks and released at once, not entry by
    // entry.
    d->answer.reset();
    json::value &answer = d->answer.emplace(json::make_shared_resource<json::monotonic_resource>());
    int rc = ember::call_value(d->client, ember_proto::op_dir_list, req, answer);
    return rc != 0 ? rc : take_page(d, answer.get_object());
}

// 1 with the cursor on the entry at `pos`, 0 at the end, or an error.
int advance(ember_dir *d)
{
    while (d->pos >= d->page.size()) {
        if (d->last)
            return 0;
        int rc = fetch(d);
        if (rc != 0)
            return rc;
    }
    d->cursor = d->page[d->pos];
    return 1;
}

int read_first(ar_io_dir *dir, ar_io_dir_entry *, ar_io_dir_entry **cursor, int)
{
    ember_dir *d = self(dir);
    d->listing.clear();
    d->page.clear();
    d->decoded.clear();
    d->answer.reset();
    d->offset = 0;
    d->pos = 0;
    d->last = false;
    int rc = advance(d);
    if (rc > 0)
        *cursor = &d->cursor;
    return rc;
}

int read_next(ar_io_dir *dir, ar_io_dir_entry *, int)
{
    ember_dir *d = self(dir);
    d->pos++;
    return advance(d);
}

void release_entry(ar_io_dir *, ar_io_dir_entry *)
{
    // The cursor lives in the handle.
}

std::string child_path(const std::string &parent, const char *name)
{
    std::string path = parent == "/" ? std::string() : parent;
    path.append("/").append(name);
    return path;
}

int open_child(ar_io_dir *dir, const char *name, ar_io_dir **child, int flags)
{
    ember_dir *d = self(dir);
    std::string path = child_path(d->path, name);
    return ar_io_open_ember_dir_cl(d->client, path.c_str(), child, flags);
}

void put(ar_io_dir *dir)
{
    ember_dir *d = self(dir);
    ember_client_put(d->client);
    delete d;
}

const ar_io_dir_ops dir_ops = {read_first, read_next, release_entry, open_child, put};

} // namespace

extern "C" {

int ar_io_open_ember_dir_cl(ember_client *client, const char *path, ar_io_dir **dir, int)
{
    *dir = nullptr;
    if (!path || path[0] != '/')
        return -MOX_EINVAL;
    json::object req, answer;
    ember_proto::put_name(req, "path", path);
    int rc = ember::call(client, ember_proto::op_dir_stat, req, &answer);
    if (rc != 0)
        return rc;
    const json::value *mode = answer.if_contains("mode");
    if (!mode || !mode->is_int64())
        return -MOX_EPROTO;
    if ((mode->as_int64() & 0xF000) != 0x4000)
        return -MOX_ENOTDIR;
    auto *d = new ember_dir();
    d->ops = &dir_ops;
    d->client = ember_client_get(client);
    d->path = path;
    *dir = d;
    return 0;
}

void ar_io_dir_put(ar_io_dir *dir)
{
    if (dir)
        dir->ops->put(dir);
}

} // extern "C"
