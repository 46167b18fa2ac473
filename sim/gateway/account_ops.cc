// Accounts, files and directories of the simulated gateway.
#include "ember/protocol.hpp"
#include "ops.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

namespace json = boost::json;
namespace p = ember_proto;

namespace gwsim
{
namespace
{

// Listings are kept until read to their end; an abandoned one is dropped
// when this many are held.
const size_t listings_max = 64;

// Ids are decimal counts without leading zeros: the shorter one, or else
// the one first in text order, is the older.
bool older_id(const std::pair<const std::string, listing> &a,
              const std::pair<const std::string, listing> &b)
{
    return a.first.size() != b.first.size() ? a.first.size() < b.first.size() : a.first < b.first;
}

bool account_exists(const state &st, const std::string &account)
{
    std::string local;
    struct stat sb;
    return !account.empty() && account.find('/') == std::string::npos &&
           resolve_path(st, "/" + account, local) == 0 && lstat(local.c_str(), &sb) == 0 &&
           S_ISDIR(sb.st_mode);
}

// Entries keep their own modes: a link is listed as a link.
int read_listing(const std::string &local, listing &out)
{
    DIR *d = nullptr;
    if (int rc = open_dir(local, &d); rc != 0)
        return rc;
    while (struct dirent *e = readdir(d)) {
        std::string name = e->d_name;
        struct stat sb;
        if (name == "." || name == ".." ||
            fstatat(dirfd(d), e->d_name, &sb, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        out.entries.emplace_back(name, static_cast<uint32_t>(sb.st_mode));
    }
    closedir(d);
    std::sort(out.entries.begin(), out.entries.end());
    return 0;
}

// The page size a request asks for: absent or 0 for the largest; false for
// a negative or non-integer limit.
bool page_limit(const json::object &o, uint64_t &limit)
{
    limit = p::list_page_max;
    const json::value *v = o.if_contains("limit");
    if (!v)
        return true;
    if (v->is_uint64()) // beyond int64, so beyond the page size
        return true;
    if (!v->is_int64() || v->as_int64() < 0)
        return false;
    if (v->as_int64() > 0)
        limit = std::min<uint64_t>(static_cast<uint64_t>(v->as_int64()), p::list_page_max);
    return true;
}

} // namespace

int op_secret_get(state &st, const json::object &o, json::object &out)
{
    auto acc = st.secrets.find(field(o, "account"));
    if (acc == st.secrets.end())
        return p::err_noent;
    auto s = acc->second.find(static_cast<int>(int_field(o, "kind")));
    if (s == acc->second.end())
        return p::err_noent;
    out["secret"] = s->second;
    return 0;
}

int op_secret_set(state &st, const json::object &o, json::object &)
{
    std::string account = field(o, "account");
    int kind = static_cast<int>(int_field(o, "kind"));
    if (kind != p::secret_kind_replication && kind != p::secret_kind_pull)
        return p::err_inval;
    if (!account_exists(st, account))
        return p::err_noent;
    const json::value *secret = o.if_contains("secret");
    if (!secret || !secret->is_string())
        return p::err_inval; // a clear asks for it with ""
    if (secret->as_string().empty())
        st.secrets[account].erase(kind);
    else
        st.secrets[account][kind] = std::string(secret->as_string());
    return 0;
}

int op_pull_configure(state &st, const json::object &o, json::object &)
{
    std::string account = field(o, "account");
    if (account.empty() || account.find('/') != std::string::npos || field(o, "src").empty() ||
        field(o, "secret").empty())
        return p::err_inval;
    auto &cfg = st.pulls[account];
    for (const char *k : {"src_dc_uid", "src", "src_account", "secret"})
        cfg[k] = field(o, k);
    cfg["flags"] = std::to_string(int_field(o, "flags"));
    cfg["status"] = "pending";
    // The pull's outcome goes into its status, not into this answer.
    if (st.pull_on_configure)
        run_pull(st, account);
    return 0;
}

int op_pull_ondemand(state &st, const json::object &o, json::object &)
{
    std::string account = field(o, "account");
    if (!account_exists(st, account))
        return p::err_noent;
    st.ondemand[account] = int_field(o, "value") != 0;
    return 0;
}

int op_file_state(state &st, const json::object &o, json::object &out)
{
    std::string path;
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    replica_state r;
    if (auto it = st.replicas.find(path); it != st.replicas.end())
        r = it->second;
    std::string text = "replica.enabled = ";
    text += std::to_string(r.enabled);
    text += "\nreplica.is_master = ";
    text += std::to_string(r.is_master);
    text += "\nreplica.peer_uid = ";
    text += r.peer_uid;
    text += "\n";
    out["state"] = text;
    return 0;
}

int op_file_open(state &st, const json::object &o, json::object &out)
{
    std::string path;
    if (int rc = file_of(st, o, path); rc != 0)
        return rc;
    std::string handle = std::to_string(st.next_id++);
    st.open_files[handle] = path;
    out["handle"] = handle;
    return 0;
}

int op_file_close(state &st, const json::object &o, json::object &)
{
    return st.open_files.erase(field(o, "handle")) ? 0 : p::err_noent;
}

int op_dir_stat(state &st, const json::object &o, json::object &out)
{
    std::string local;
    struct stat sb;
    if (int rc = resolve_path(st, field(o, "path"), local); rc != 0)
        return rc;
    if (lstat(local.c_str(), &sb) != 0)
        return p::err_noent;
    out["mode"] = sb.st_mode;
    return 0;
}

int op_dir_list(state &st, const json::object &o, json::object &out)
{
    std::string path = field(o, "path"), id = field(o, "listing"), local;
    uint64_t limit;
    if (!page_limit(o, limit))
        return p::err_inval;
    if (int rc = resolve_path(st, path, local); rc != 0)
        return rc;
    if (id.empty()) {
        listing l{path, {}};
        if (int rc = read_listing(local, l); rc != 0)
            return rc;
        if (st.listings.size() >= listings_max)
            st.listings.erase(std::min_element(st.listings.begin(), st.listings.end(), older_id));
        id = std::to_string(st.next_id++);
        st.listings[id] = std::move(l);
    }
    auto it = st.listings.find(id);
    if (it == st.listings.end() || it->second.path != path)
        return p::err_noent;
    const auto &entries = it->second.entries;
    uint64_t from =
        std::min<uint64_t>(std::max<int64_t>(int_field(o, "offset"), 0), entries.size());
    uint64_t to = std::min<uint64_t>(from + limit, entries.size());
    json::array page;
    for (uint64_t i = from; i < to; i++) {
        json::object e{{"mode", entries[i].second}};
        p::put_name(e, "name", entries[i].first);
        page.push_back(std::move(e));
    }
    out["entries"] = std::move(page);
    out["listing"] = id;
    out["more"] = to < entries.size();
    if (to == entries.size())
        st.listings.erase(it);
    return 0;
}

} // namespace gwsim
