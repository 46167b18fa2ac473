// Account pulls in trust mode. The source serves its account's tree to
// peer requests signed with the account's kind-2 secret; the destination
// fetches it under the new name and records the outcome in the pull's
// status.
#include "ember/protocol.hpp"
#include "ops.h"
#include "transfer.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <filesystem>
#include <sys/stat.h>

namespace json = boost::json;
namespace p = ember_proto;

namespace gwsim
{
namespace
{

struct tree_entry {
    std::string path; // relative to the account: "/d/f"
    uint32_t mode;
    uint64_t size;
};

// The directories and regular files below `base` + `rel`, sorted by name,
// each directory before its contents. Other types are left out.
void walk(const std::string &base, const std::string &rel, std::vector<tree_entry> &out)
{
    std::vector<std::string> names;
    DIR *d = nullptr;
    if (open_dir(base + rel, &d) == 0) {
        while (struct dirent *e = readdir(d))
            if (std::string n = e->d_name; n != "." && n != "..")
                names.push_back(n);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        std::string path = rel + "/" + name;
        struct stat sb;
        if (lstat((base + path).c_str(), &sb) != 0)
            continue;
        if (S_ISREG(sb.st_mode))
            out.push_back({path, sb.st_mode, static_cast<uint64_t>(sb.st_size)});
        if (S_ISDIR(sb.st_mode)) {
            out.push_back({path, sb.st_mode, 0});
            walk(base, path, out);
        }
    }
}

// The directory of the account that a pull request names, once the
// request proves the account's kind-2 secret: 0, 61 or 8.
int source_dir(const state &st, const json::object &o, const std::string &body,
               const std::string &mac, std::string &local)
{
    std::string account = field(o, "account");
    if (!peer_authentic(st, account, p::secret_kind_pull, body, mac))
        return p::err_auth;
    struct stat sb;
    if (account.empty() || account.find('/') != std::string::npos ||
        resolve_path(st, "/" + account, local) != 0 || lstat(local.c_str(), &sb) != 0 ||
        !S_ISDIR(sb.st_mode))
        return p::err_noent;
    return 0;
}

// What a pull run needs, copied from its configuration.
struct pull_job {
    std::string name, src, src_account, secret;
    int flags = 0;
};

int make_dir(const std::string &local)
{
    struct stat sb;
    if (mkdir(local.c_str(), 0700) == 0 ||
        (errno == EEXIST && stat(local.c_str(), &sb) == 0 && S_ISDIR(sb.st_mode)))
        return 0;
    return p::err_io;
}

int fetch_file(state &st, const pull_job &j, const std::string &path, const std::string &local)
{
    chunk_source from = [&](uint64_t offset, std::string &data, uint64_t &size) {
        json::object req{{"offset", static_cast<int64_t>(offset)},
                         {"length", static_cast<int64_t>(p::peer_chunk_max)}},
            out;
        p::put_name(req, "account", j.src_account);
        p::put_name(req, "path", path);
        if (int rc = peer_call(st, j.src, p::op_peer_pull_read, req, j.secret, out); rc != 0)
            return rc;
        size = static_cast<uint64_t>(int_field(out, "size"));
        return p::base64url_decode(field(out, "data"), data) ? 0 : p::err_io;
    };
    chunk_sink to = [&local](uint64_t offset, const std::string &data, uint64_t size) {
        return write_chunk(local, offset, data, size);
    };
    return transfer_file(from, to);
}

// Copies one entry of the source's listing into the new account.
int fetch_entry(state &st, const pull_job &j, const json::value &e)
{
    std::string path = e.is_object() ? field(e.as_object(), "path") : "", local;
    if (path.empty() || path[0] != '/')
        return p::err_inval;
    if (int rc = resolve_path(st, "/" + j.name + path, local, true); rc != 0)
        return rc;
    auto mode = static_cast<mode_t>(int_field(e.as_object(), "mode"));
    if (S_ISDIR(mode))
        return make_dir(local);
    return S_ISREG(mode) ? fetch_file(st, j, path, local) : 0;
}

// Copies the source account's tree, one page of its listing at a time.
int fetch_account(state &st, const pull_job &j)
{
    std::string root;
    if (int rc = resolve_path(st, "/" + j.name, root); rc != 0)
        return rc;
    if (int rc = make_dir(root); rc != 0)
        return rc;
    for (int64_t offset = 0;;) {
        json::object req{{"offset", offset}}, out;
        p::put_name(req, "account", j.src_account);
        if (int rc = peer_call(st, j.src, p::op_peer_pull_list, req, j.secret, out); rc != 0)
            return rc;
        const json::value *entries = out.if_contains("entries");
        if (!entries || !entries->is_array())
            return p::err_io;
        for (const json::value &e : entries->as_array())
            if (int rc = fetch_entry(st, j, e); rc != 0)
                return rc;
        if (!int_field(out, "more"))
            return 0;
        if (entries->as_array().empty())
            return p::err_io; // a listing that never ends
        offset += static_cast<int64_t>(entries->as_array().size());
    }
}

bool runnable(const std::string &status)
{
    return status == "pending" || status.rfind("failed", 0) == 0;
}

} // namespace

int op_peer_pull_list(state &st, const json::object &o, const std::string &body,
                      const std::string &mac, json::object &out)
{
    std::string local;
    if (int rc = source_dir(st, o, body, mac, local); rc != 0)
        return rc;
    std::vector<tree_entry> tree;
    walk(local, "", tree);
    uint64_t from = std::clamp<int64_t>(int_field(o, "offset"), 0, tree.size());
    uint64_t to = std::min<uint64_t>(from + p::list_page_max, tree.size());
    json::array page;
    for (uint64_t i = from; i < to; i++) {
        json::object e{{"mode", tree[i].mode}, {"size", static_cast<int64_t>(tree[i].size)}};
        p::put_name(e, "path", tree[i].path);
        page.push_back(std::move(e));
    }
    out["entries"] = std::move(page);
    out["more"] = to < tree.size();
    return 0;
}

int op_peer_pull_read(state &st, const json::object &o, const std::string &body,
                      const std::string &mac, json::object &out)
{
    std::string dir, path = field(o, "path"), local, data;
    if (int rc = source_dir(st, o, body, mac, dir); rc != 0)
        return rc;
    if (path.empty() || path[0] != '/')
        return p::err_inval;
    // Appended, not "/" + ...: GCC 12 at -O3 reports a false -Wrestrict there.
    std::string full = "/";
    full.append(field(o, "account")).append(path);
    if (int rc = resolve_path(st, full, local); rc != 0)
        return rc;
    int64_t offset = int_field(o, "offset"), length = int_field(o, "length");
    if (offset < 0 || length < 0)
        return p::err_inval;
    uint64_t size = 0;
    if (int rc = read_chunk(local, offset, length ? length : p::peer_chunk_max, data, size);
        rc != 0)
        return rc;
    out["data"] = p::base64url_encode(data);
    out["size"] = static_cast<int64_t>(size);
    return 0;
}

int op_peer_pull_remove(state &st, const json::object &o, const std::string &body,
                        const std::string &mac, json::object &)
{
    std::string local;
    if (int rc = source_dir(st, o, body, mac, local); rc != 0)
        return rc;
    std::error_code ec;
    std::filesystem::remove_all(local, ec);
    if (ec)
        return p::err_io;
    auto acc = st.secrets.find(field(o, "account"));
    acc->second.erase(p::secret_kind_pull);
    if (acc->second.empty())
        st.secrets.erase(acc);
    return 0;
}

int run_pull(state &st, const std::string &account)
{
    auto it = st.pulls.find(account);
    if (it == st.pulls.end())
        return p::err_noent;
    auto &cfg = it->second;
    pull_job j{account, cfg["src"], cfg["src_account"], cfg["secret"],
               std::atoi(cfg["flags"].c_str())};
    cfg["status"] = "running";
    int rc = (j.flags & p::pull_flag_trust) ? fetch_account(st, j) : p::err_inval;
    if (rc == 0 && (j.flags & p::pull_flag_remove_source)) {
        json::object out;
        rc = peer_call(st, j.src, p::op_peer_pull_remove, {{"account", j.src_account}}, j.secret,
                       out);
    }
    // A pull configured again meanwhile keeps its own status.
    auto &now = st.pulls[account];
    if (now["status"] == "running" && now["secret"] == j.secret)
        now["status"] = rc == 0 ? "done" : "failed: " + std::to_string(rc);
    return rc;
}

// Runs the named account's pull, or every pull that has not run or has
// failed; answers the statuses of the pulls asked for.
int op_test_pull_run(state &st, const json::object &o, json::object &out)
{
    std::vector<std::string> names;
    if (std::string account = field(o, "account"); !account.empty()) {
        if (!st.pulls.count(account))
            return p::err_noent;
        names.push_back(account);
    } else {
        for (auto &[name, cfg] : st.pulls)
            names.push_back(name);
    }
    json::object statuses;
    for (const std::string &name : names) {
        if (runnable(st.pulls[name]["status"]))
            run_pull(st, name);
        statuses[name] = st.pulls[name]["status"];
    }
    out["pulls"] = std::move(statuses);
    return 0;
}

} // namespace gwsim
