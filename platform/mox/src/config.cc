// The configuration store and its "key = value" text. This file only splits
// text into pairs and joins pairs into text; what a key means lives with the
// code that reads it.
#include "mox/config.h"

#include "mox/alloc.h"
#include "mox/errors.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

struct mox_config {
    std::map<std::string, std::string, std::less<>> pairs;
    // Expanded values handed out; kept until the store is freed because
    // callers never free them.
    std::map<std::string, std::unique_ptr<std::string>, std::less<>> expanded;
    std::vector<std::unique_ptr<std::string>> retired;
};

namespace
{

bool is_key_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.';
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

bool valid_key(std::string_view key)
{
    if (key.empty())
        return false;
    for (char c : key) {
        if (!is_key_char(c))
            return false;
    }
    return true;
}

bool writable_value(std::string_view v)
{
    if (!v.empty() && (is_blank(v.front()) || is_blank(v.back())))
        return false;
    return v.find_first_of(std::string_view("\n\r\0", 3)) == std::string_view::npos;
}

std::string_view trim(std::string_view s)
{
    while (!s.empty() && is_blank(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && is_blank(s.back()))
        s.remove_suffix(1);
    return s;
}

using pair_list = std::vector<std::pair<std::string, std::string>>;

// Adds the pair of one line (without its newline) to `out`; false when the
// line is neither a pair, a comment nor blank.
bool parse_line(std::string_view line, pair_list &out)
{
    if (line.find('\0') != std::string_view::npos)
        return false;
    std::string_view rest = trim(line);
    if (rest.empty() || rest.front() == '#')
        return true;
    size_t k = 0;
    while (k < rest.size() && is_key_char(rest[k]))
        ++k;
    if (k == 0)
        return false;
    std::string_view key = rest.substr(0, k);
    std::string_view after = trim(rest.substr(k));
    if (after.empty() || after.front() != '=')
        return false;
    out.emplace_back(std::string(key), std::string(trim(after.substr(1))));
    return true;
}

void commit(mox_config *cfg, pair_list &pairs)
{
    for (auto &p : pairs)
        cfg->pairs.insert_or_assign(std::move(p.first), std::move(p.second));
}

bool parse_into(mox_config *cfg, std::string_view text)
{
    pair_list pairs;
    if (text.find('\0') != std::string_view::npos)
        return false;
    while (!text.empty()) {
        size_t nl = text.find('\n');
        if (!parse_line(text.substr(0, nl), pairs))
            return false;
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    }
    commit(cfg, pairs);
    return true;
}

// Expanded values are bounded: a few keys that each reference the previous
// one twice would otherwise grow without limit.
constexpr size_t kMaxExpanded = 1 << 20;
constexpr int kMaxDepth = 64;

struct Expander {
    const mox_config *cfg;
    std::set<std::string, std::less<>> active;            // keys being expanded
    std::map<std::string, std::string, std::less<>> memo; // expansions met no loop
    bool too_big = false;

    // Appends the expansion of `value`. False when a reference was left as
    // written because of a loop or the depth limit, so the result depends
    // on where it was reached from and must not be memoised.
    bool expand(std::string_view value, std::string &out, int depth)
    {
        bool pure = true;
        size_t i = 0;
        while (i < value.size() && !too_big) {
            size_t start, end, next;
            if (!find_reference(value, i, out, start, end, next))
                continue;
            std::string_view key = value.substr(start, end - start);
            auto it = key.empty() ? cfg->pairs.end() : cfg->pairs.find(key);
            if (it == cfg->pairs.end()) {
                out.append(value.substr(i, next - i)); // left as written
            } else if (active.count(key) != 0 || depth >= kMaxDepth) {
                out.append(value.substr(i, next - i));
                pure = false;
            } else if (auto m = memo.find(key); m != memo.end()) {
                out += m->second;
            } else {
                std::string sub;
                active.insert(it->first);
                bool sub_pure = expand(it->second, sub, depth + 1);
                active.erase(it->first);
                out += sub;
                if (sub_pure)
                    memo.emplace(it->first, std::move(sub));
                pure = pure && sub_pure;
            }
            i = next;
            too_big = too_big || out.size() > kMaxExpanded;
        }
        return pure;
    }

    // Copies plain text at `i` to `out` and returns false, or finds the
    // reference that starts at `i`: its key is [start, end), text resumes at
    // `next`.
    static bool find_reference(std::string_view value, size_t &i, std::string &out, size_t &start,
                               size_t &end, size_t &next)
    {
        if (value[i] != '$' || i + 1 >= value.size()) {
            out += value[i++];
            return false;
        }
        if (value[i + 1] == '$') {
            out += '$';
            i += 2;
            return false;
        }
        if (value[i + 1] == '{') {
            size_t close = value.find('}', i + 2);
            if (close == std::string_view::npos) {
                out += value[i++];
                return false;
            }
            start = i + 2;
            end = close;
            next = close + 1;
            return true;
        }
        start = i + 1;
        end = start;
        while (end < value.size() && is_key_char(value[end]))
            ++end;
        while (end > start && value[end - 1] == '.')
            --end; // "$root_dir." ends a sentence, not a key
        next = end;
        return true;
    }
};

template <typename T> bool parse_number(const char *p, T &out)
{
    bool neg = false;
    if (*p == '+' || *p == '-') {
        neg = *p == '-';
        ++p;
    }
    if (*p == '\0')
        return false;
    unsigned long long mag = 0;
    for (; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9')
            return false;
        unsigned digit = static_cast<unsigned>(*p - '0');
        if (mag > (std::numeric_limits<unsigned long long>::max() - digit) / 10)
            return false;
        mag = mag * 10 + digit;
    }
    if constexpr (std::is_signed_v<T>) {
        unsigned long long limit = static_cast<unsigned long long>(std::numeric_limits<T>::max());
        if (neg) {
            if (mag > limit + 1)
                return false;
            out = mag == limit + 1 ? std::numeric_limits<T>::min() : -static_cast<T>(mag);
        } else {
            if (mag > limit)
                return false;
            out = static_cast<T>(mag);
        }
    } else {
        if ((neg && mag != 0) || mag > std::numeric_limits<T>::max())
            return false;
        out = static_cast<T>(mag);
    }
    return true;
}

template <typename T> int store_number(const char *text, void *out)
{
    T x;
    if (!parse_number(text, x))
        return -MOX_EINVAL;
    memcpy(out, &x, sizeof x);
    return 0;
}

template <bool Signed>
int get_number(const mox_config *cfg, const char *key, void *out, size_t size)
{
    const char *s;
    int rc = mox_config_getstr(cfg, key, &s);
    if (rc != 0)
        return rc;
    switch (size) {
    case 1:
        return store_number<std::conditional_t<Signed, int8_t, uint8_t>>(s, out);
    case 2:
        return store_number<std::conditional_t<Signed, int16_t, uint16_t>>(s, out);
    case 4:
        return store_number<std::conditional_t<Signed, int32_t, uint32_t>>(s, out);
    case 8:
        return store_number<std::conditional_t<Signed, int64_t, uint64_t>>(s, out);
    default:
        return -MOX_EINVAL;
    }
}

} // namespace

extern "C" {

mox_config *mox_create_config(void)
{
    return new (std::nothrow) mox_config;
}

void mox_free_config(mox_config *cfg)
{
    delete cfg;
}

int mox_parse_config_file(mox_config *cfg, FILE *file)
{
    // Line by line, so the text is held once: as the pairs it holds.
    pair_list pairs;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t n;
    bool valid = true;
    while (valid && (n = getline(&line, &cap, file)) >= 0) {
        size_t len = static_cast<size_t>(n);
        if (len > 0 && line[len - 1] == '\n')
            --len;
        valid = parse_line(std::string_view(line, len), pairs);
    }
    free(line);
    if (valid && ferror(file))
        return errno != 0 ? -errno : -MOX_EIO;
    if (!valid)
        return -MOX_EMALFORMED;
    commit(cfg, pairs);
    return 0;
}

int mox_config_fopen(const char *path, FILE **file)
{
    *file = nullptr;
    // Non-blocking, so that a FIFO cannot hold the open up; checked below.
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -errno;
    struct stat st;
    int rc = 0;
    if (fstat(fd, &st) != 0)
        rc = -errno;
    else if (!S_ISREG(st.st_mode))
        rc = -EINVAL;
    else if (st.st_size > MOX_CONFIG_MAX_BYTES)
        rc = -EFBIG;
    else if (fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0 ||
             (*file = fdopen(fd, "r")) == nullptr)
        rc = -errno;
    if (rc != 0)
        close(fd);
    return rc;
}

mox_config *mox_read_config(const char *path)
{
    FILE *f = nullptr;
    if (mox_config_fopen(path, &f) != 0)
        return nullptr;
    mox_config *cfg = mox_create_config();
    int rc = cfg != nullptr ? mox_parse_config_file(cfg, f) : -MOX_ENOMEM;
    fclose(f);
    if (rc != 0) {
        mox_free_config(cfg);
        return nullptr;
    }
    return cfg;
}

mox_config *mox_read_config_mem(const char *text)
{
    mox_config *cfg = mox_create_config();
    if (cfg != nullptr && !parse_into(cfg, text)) {
        mox_free_config(cfg);
        return nullptr;
    }
    return cfg;
}

char *mox_write_config_mem(const mox_config *cfg)
{
    std::string text;
    for (const auto &[key, value] : cfg->pairs) {
        text += key;
        text += value.empty() ? " =\n" : " = ";
        if (!value.empty()) {
            text += value;
            text += '\n';
        }
    }
    return mox_strdup(text.c_str());
}

int mox_config_getstr(const mox_config *cfg, const char *key, const char **value)
{
    auto it = cfg->pairs.find(std::string_view(key));
    if (it == cfg->pairs.end())
        return -MOX_ENOENT;
    *value = it->second.c_str();
    return 0;
}

int mox_config_getstr_expand(mox_config *cfg, const char *key, const char **value)
{
    auto it = cfg->pairs.find(std::string_view(key));
    if (it == cfg->pairs.end())
        return -MOX_ENOENT;
    Expander expander{cfg, {it->first}, {}, false};
    auto result = std::make_unique<std::string>();
    expander.expand(it->second, *result, 0);
    if (expander.too_big)
        return -MOX_EMALFORMED;
    auto &slot = cfg->expanded[it->first];
    if (!slot || *slot != *result) {
        if (slot)
            cfg->retired.push_back(std::move(slot));
        slot = std::move(result);
    }
    *value = slot->c_str();
    return 0;
}

int mox_config_getint(const mox_config *cfg, const char *key, void *out, size_t size)
{
    return get_number<true>(cfg, key, out, size);
}

int mox_config_getuint(const mox_config *cfg, const char *key, void *out, size_t size)
{
    return get_number<false>(cfg, key, out, size);
}

int mox_config_setstr(mox_config *cfg, const char *key, const char *value)
{
    if (!valid_key(key) || !writable_value(value))
        return -MOX_EINVAL;
    cfg->pairs.insert_or_assign(std::string(key), std::string(value));
    return 0;
}

int mox_config_setint(mox_config *cfg, const char *key, int64_t value)
{
    return mox_config_setstr(cfg, key, std::to_string(value).c_str());
}

int mox_config_unset(mox_config *cfg, const char *key)
{
    auto it = cfg->pairs.find(std::string_view(key));
    if (it == cfg->pairs.end())
        return -MOX_ENOENT;
    cfg->pairs.erase(it);
    return 0;
}

size_t mox_config_size(const mox_config *cfg)
{
    return cfg->pairs.size();
}

} // extern "C"
