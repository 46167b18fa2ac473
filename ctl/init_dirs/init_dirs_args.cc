// Argument side of the directory commands: the encoding grammar, the
// attribute list and the checks against the gateway's storage type.
#include "frame/tarn_ctl.h"
#include "frame/usage.h"
#include "init_dirs.h"
#include "mox/mox.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace init_dirs_state
{
const char *root_dir;
const char *storage_type;
int32_t encoding_m = -1;
int32_t encoding_n = -1;
int32_t encoding_x = -1;
attr_node attrs = {&attrs, &attrs, nullptr};
} // namespace init_dirs_state

using namespace init_dirs_state;

namespace
{

const char kInitUsage[] = "Create and prepare directories for use by TARN.\n"
                          "SYNOPSIS: init-dirs encoding=M+N[/X] [ATTR=A]...\n"
                          "See `quillon` for possible ATTR values.\n";
const char kReshapeUsage[] = "Change storage format of backup archives.\n"
                             "SYNOPSIS: set-attr [encoding=M+N[/X]] [ATTR=A]...\n"
                             "See `quillon` for possible ATTR values.\n";
const char kUpgradeUsage[] = "Create and prepare missing directories after TARN update.\n"
                             "SYNOPSIS: upgrade-dirs\n";
const char kDefaultChunkSize[] = "chunk-size=2147483648";
const char kDefaultFailureDomain[] = "failure-domain=host";

[[noreturn]] void usage(const char *text)
{
    tarn_usage_exit(text, nullptr);
}

void read_storage_type()
{
    int rc = mox_config_getstr(config, "storage.type", &storage_type);
    if (rc != 0)
        mox_fatal("failed to find a line 'storage.type = <type>' in TARN config file: %i (%s)", rc,
                  mox_strerror(-rc));
}

void read_root_dir(const char *failure)
{
    if (mox_config_getstr(config, "root_dir", &root_dir) != 0)
        mox_fatal("%s", failure);
}

void parse_encoding_arg(const char *arg)
{
    if (mox_parse_encoding_string(arg, &encoding_m, &encoding_n, &encoding_x) != 0)
        mox_fatal("'%s' is not a valid encoding specification; the format must be "
                  "'encoding=M+N/X' or 'encoding=M+N'",
                  arg);
}

// Adds the two defaults that init-dirs guarantees for the storage type.
void add_init_defaults(bool chunk_size_seen, bool failure_domain_seen)
{
    if (set_attr_supported(storage_type)) {
        if (!chunk_size_seen)
            add_attr(mox_strdup(kDefaultChunkSize));
        if (!failure_domain_seen)
            add_attr(mox_strdup(kDefaultFailureDomain));
        return;
    }
    if (strcmp(storage_type, "nfs") != 0)
        mox_fatal("unsupported storage.type=%s in TARN config file", storage_type);
    if (encoding_m != 1 || encoding_n != 0 || encoding_x > 0)
        mox_fatal("storage.type=nfs requires encoding=1+0");
    if (chunk_size_seen || failure_domain_seen)
        mox_fatal("chunk-size= and failure-domain= options are not supported for storage.type=nfs");
    add_attr(mox_strdup(kDefaultChunkSize));
    add_attr(mox_strdup(kDefaultFailureDomain));
}

} // namespace

bool starts_with(const char *s, const char *prefix)
{
    return strncmp(s, prefix, strlen(prefix)) == 0;
}

bool set_attr_supported(const char *type)
{
    static const char *const kTypes[] = {"local", "azure", "google", "s3", "swift"};
    for (const char *t : kTypes) {
        if (strcmp(type, t) == 0)
            return true;
    }
    return false;
}

void add_attr(char *attr)
{
    auto *node = static_cast<attr_node *>(mox_malloc(sizeof(attr_node)));
    node->attr = attr;
    node->next = &attrs;
    node->prev = attrs.prev;
    attrs.prev->next = node;
    attrs.prev = node;
}

int mox_parse_encoding_string(const char *str, int32_t *m, int32_t *n, int32_t *x)
{
    // Read as long so that values beyond 32 bits are refused, not wrapped.
    long lm = -1, ln = -1, lx = -1;
    int got = sscanf(str, "encoding=%li+%li/%li", &lm, &ln, &lx);
    if (got != 3) {
        lx = -1;
        got = sscanf(str, "encoding=%li+%li", &lm, &ln);
        if (got != 2)
            return -MOX_EINVAL;
    }
    *m = static_cast<int32_t>(lm);
    *n = static_cast<int32_t>(ln);
    *x = static_cast<int32_t>(lx);
    if (lm < 0 || ln < 0 || lm > INT32_MAX || ln > INT32_MAX || lx > INT32_MAX)
        return -MOX_EINVAL;
    if (got == 3 && lx < 0)
        return -MOX_EINVAL;
    return 0;
}

void parse_opts_init_dirs(int argc, char **argv)
{
    if (argc < 2)
        usage(kInitUsage);
    read_storage_type();
    read_root_dir("TARN config file does not define $root_dir.");
    bool encoding_seen = false, chunk_size_seen = false, failure_domain_seen = false;
    for (int i = 1; i < argc; i++) {
        if (starts_with(argv[i], "encoding=")) {
            parse_encoding_arg(argv[i]);
            encoding_seen = true;
            continue;
        }
        chunk_size_seen |= starts_with(argv[i], "chunk-size");
        failure_domain_seen |= starts_with(argv[i], "failure-domain");
        add_attr(mox_strdup(argv[i]));
    }
    if (!encoding_seen)
        mox_fatal("encoding= is a required parameter");
    add_init_defaults(chunk_size_seen, failure_domain_seen);
}

void parse_opts_reshape_dirs(int argc, char **argv)
{
    if (argc < 2)
        usage(kReshapeUsage);
    read_storage_type();
    if (!set_attr_supported(storage_type))
        mox_fatal("set-attr is not supported for storage.type=%s", storage_type);
    read_root_dir("TARN config file does not define $root_dir.");
    for (int i = 1; i < argc; i++) {
        if (starts_with(argv[i], "encoding="))
            parse_encoding_arg(argv[i]);
        else
            add_attr(mox_strdup(argv[i]));
    }
}

void parse_opts_upgrade_dirs(int argc, char **argv)
{
    (void)argv;
    if (argc > 1)
        usage(kUpgradeUsage);
    read_storage_type();
    read_root_dir("failed: TARN config file does not define $root_dir");
}
