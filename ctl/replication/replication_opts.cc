// Options of the "replication" command, its usage text, and the path rules
// that the operations apply.
#include "mox/mox.h"
#include "replication/replication.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>

namespace replication_state
{
const char *master_addr;
const char *master_uid;
const char *master_cert;
const char *slave_addr;
const char *slave_uid;
const char *slave_cert;
int32_t force;
mox_list commands = {&commands, &commands};
} // namespace replication_state

using namespace replication_state;

namespace
{

const char kUsage[] =
    "Account and file replication tool.\n"
    "\n"
    "Replication options:\n"
    "  --master-addr <addr>                   address of a master site\n"
    "  --master-uid <uid>                     $dc_uid of a master site\n"
    "  --master-cert <path>                   tarn.pem of a master site\n"
    "  --slave-addr <addr>                    address of a slave site\n"
    "  --slave-uid <uid>                      $dc_uid of a slave site\n"
    "  --slave-cert <path>                    tarn.pem of a slave site\n"
    "  --enable </account>                    enable replication of files in /account\n"
    "  --disable </account>                   disable replication of files in /account\n"
    "     -f, --force                         disable even if slave is unavailable\n"
    "\n"
    "  --join-slave </account>                enable replication of files in /account, and use "
    "an existing slave replica\n"
    "  --detach </account>                    promote the slave replica of /account to the "
    "master\n"
    "  --switch-to-slave </account>           demote the master replica of /account to the "
    "slave\n"
    "  --auto                                 configure TARN to automatically enable "
    "replication to a specified slave\n"
    "Other options:\n"
    "  -h                                     print this message\n";

enum {
    OPT_MASTER_ADDR = 256,
    OPT_MASTER_UID,
    OPT_MASTER_CERT,
    OPT_SLAVE_ADDR,
    OPT_SLAVE_UID,
    OPT_SLAVE_CERT,
    OPT_ENABLE,
    OPT_AUTO,
    OPT_DISABLE,
    // 265 is not used.
    OPT_DETACH = 266,
    OPT_SWITCH_TO_SLAVE,
    OPT_JOIN_SLAVE,
    OPT_CHECK_CONSISTENCY,
};

const struct option kOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"force", no_argument, nullptr, 'f'},
    {"master-addr", required_argument, nullptr, OPT_MASTER_ADDR},
    {"master-uid", required_argument, nullptr, OPT_MASTER_UID},
    {"master-cert", required_argument, nullptr, OPT_MASTER_CERT},
    {"slave-addr", required_argument, nullptr, OPT_SLAVE_ADDR},
    {"slave-uid", required_argument, nullptr, OPT_SLAVE_UID},
    {"slave-cert", required_argument, nullptr, OPT_SLAVE_CERT},
    {"enable", required_argument, nullptr, OPT_ENABLE},
    {"auto", no_argument, nullptr, OPT_AUTO},
    {"disable", required_argument, nullptr, OPT_DISABLE},
    {"detach", required_argument, nullptr, OPT_DETACH},
    {"switch-to-slave", required_argument, nullptr, OPT_SWITCH_TO_SLAVE},
    {"join-slave", required_argument, nullptr, OPT_JOIN_SLAVE},
    {"check-consistency", required_argument, nullptr, OPT_CHECK_CONSISTENCY},
    {nullptr, 0, nullptr, 0},
};

// An operation option: its kind, the word its requirement messages use,
// and the sites it needs, checked in this order ('m' master, 's' slave).
struct op_rule {
    int value;
    int32_t kind;
    const char *word;
    char first;
    char second;
};

const op_rule kRules[] = {
    {OPT_ENABLE, REPL_ENABLE, "--enable", 'm', 's'},
    {OPT_AUTO, REPL_AUTO, "--auto", 's', 0},
    {OPT_DISABLE, REPL_DISABLE, "--disable", 's', 'm'},
    {OPT_DETACH, REPL_DETACH, "--detach", 's', 0},
    {OPT_SWITCH_TO_SLAVE, REPL_SWITCH_TO_SLAVE, "--switch-to-slave", 'm', 0},
    {OPT_JOIN_SLAVE, REPL_JOIN_SLAVE, "--join", 's', 'm'},
    {OPT_CHECK_CONSISTENCY, REPL_CHECK_CONSISTENCY, "--check-consistency", 's', 'm'},
};

[[noreturn]] void usage(const char *message)
{
    if (message != nullptr)
        fprintf(stderr, "ERROR: %s\n\n", message);
    fwrite(kUsage, 1, sizeof kUsage - 1, stderr);
    mox_log_terminate();
    exit(255);
}

// An empty argument counts as given: only presence is checked here.
void require_site(const char *word, char site)
{
    bool master = site == 'm';
    bool given =
        master ? master_addr && master_uid && master_cert : slave_addr && slave_uid && slave_cert;
    if (given)
        return;
    const char *s = master ? "master" : "slave";
    char message[128];
    snprintf(message, sizeof message, "%s: --%s-addr, --%s-uid, and --%s-cert are required", word,
             s, s, s);
    usage(message);
}

const op_rule *find_rule(int value)
{
    for (const op_rule &r : kRules) {
        if (r.value == value)
            return &r;
    }
    return nullptr;
}

void queue_operation(const op_rule &rule, const char *arg)
{
    require_site(rule.word, rule.first);
    if (rule.second != 0)
        require_site(rule.word, rule.second);
    auto *rc = static_cast<replication_command *>(mox_zmalloc(sizeof(replication_command)));
    rc->kind = rule.kind;
    if (rule.kind == REPL_AUTO) {
        rc->peer_addr = slave_addr;
        rc->peer_uid = slave_uid;
        rc->peer_cert = slave_cert;
    } else {
        rc->account = arg;
    }
    mox_list_add_tail(&commands, &rc->link);
}

} // namespace

void parse_opts_replication(int argc, char **argv)
{
    for (;;) {
        int c = getopt_long(argc, argv, "+h", kOptions, nullptr);
        switch (c) {
        case -1:
            if (optind == argc)
                return;
            fprintf(stderr, "Can't parse '%s' as an argument.\n", argv[optind]);
            usage(nullptr);
        case '?':
            fprintf(stderr, "Unknown option '%s'.\n", argv[optind - 1]);
            usage(nullptr);
        case 'h':
            usage(nullptr);
        case 'f':
            force = 1;
            break;
        case OPT_MASTER_ADDR:
            master_addr = optarg;
            break;
        case OPT_MASTER_UID:
            master_uid = optarg;
            break;
        case OPT_MASTER_CERT:
            master_cert = optarg;
            break;
        case OPT_SLAVE_ADDR:
            slave_addr = optarg;
            break;
        case OPT_SLAVE_UID:
            slave_uid = optarg;
            break;
        case OPT_SLAVE_CERT:
            slave_cert = optarg;
            break;
        default:
            const op_rule *rule = find_rule(c);
            if (rule == nullptr)
                mox_bug("tarn-ctl-replication", __LINE__, "parse_opts_replication");
            queue_operation(*rule, optarg);
        }
    }
}

int is_toplevel_dir(const char *path)
{
    return path[0] == '/' && strchr(path + 1, '/') == nullptr;
}

namespace
{

bool ends_with(const char *s, size_t len, const char *suffix)
{
    size_t n = strlen(suffix);
    return len >= n && memcmp(s + len - n, suffix, n) == 0;
}

} // namespace

int fes_file_is_temp(const char *path)
{
    const char *slash = strrchr(path, '/');
    const char *base = slash != nullptr ? slash + 1 : path;
    size_t len = strlen(base);
    if (len < 4)
        return 0;
    if (ends_with(base, len, ".xml") && strncmp(base, ".tmp.", 5) == 0)
        return 1;
    if (len < 9)
        return 0;
    if (base[0] == '~' && (ends_with(base, len, ".KPA.meta") || ends_with(base, len, ".kpa.meta")))
        return 1;
    return 0;
}
