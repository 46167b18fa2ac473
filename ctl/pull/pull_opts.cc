// Options of the pull command: connection settings, flags and the queue of
// commands, each of which captures the settings that stand before it.
#include "frame/usage.h"
#include "mox/mox.h"
#include "pull.h"

#include <cstdio>
#include <cstdlib>
#include <getopt.h>

pull_settings_t pull_settings = {
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    0,
    0,
    nullptr,
    nullptr,
    {&pull_settings.pull_commands, &pull_settings.pull_commands},
};

namespace
{

const char kUsage[] = "Account and DC migration tool.\n"
                      "Common options:\n"
                      "  --src                       source DC address\n"
                      "  --dst                       destination DC address\n"
                      "  --src-jwt|--src-cert        JWT or file with certificate to use when\n"
                      "                              connecting to source storage\n"
                      "  --dst-jwt|--dst-cert        JWT or file with certificate to use when\n"
                      "                              connecting to destination storage\n"
                      "  --rm-when-done              remove source files after migration\n"
                      "  --merge-replace             merge into (possibly) existing account,\n"
                      "                              replace existing files on name conflicts\n"
                      "  --src-dc-uid <id>           source DC id; if present, the specified\n"
                      "                              JWT or certificate will be\n"
                      "                              used only to configure trust relationship\n"
                      "                              between DCs\n"
                      "Pull commands:\n"
                      "  --pull-account <name>       pull an account <name> from a source DC\n"
                      "      --rename-to <new-name>  rename an account to <new-name>\n"
                      "  --pull-all-accounts         pull all account from a source DC\n"
                      "  --disable-ondemand-only <account-name>\n"
                      "                              allow TARN crawler to pull an account\n"
                      "  --enable-ondemand-only <account-name>\n"
                      "                              disallow TARN crawler to pull an account\n"
                      "Other options:\n"
                      "  -h                          print this message\n";

enum : int {
    OPT_SRC = 0x101,
    OPT_DST = 0x102,
    OPT_PULL_ACCOUNT = 0x103,
    OPT_RENAME_TO = 0x104,
    OPT_PULL_ALL = 0x105,
    OPT_SRC_CERT = 0x106,
    OPT_DST_CERT = 0x107,
    OPT_SRC_JWT = 0x108,
    OPT_DST_JWT = 0x109,
    OPT_RM_WHEN_DONE = 0x10a,
    OPT_MERGE_REPLACE = 0x10b,
    OPT_SRC_DC_UID = 0x10c,
    OPT_DISABLE_ONDEMAND = 0x10d,
    OPT_ENABLE_ONDEMAND = 0x10e,
};

const struct option kOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"src", required_argument, nullptr, OPT_SRC},
    {"dst", required_argument, nullptr, OPT_DST},
    {"cert", required_argument, nullptr, OPT_SRC_CERT},
    {"src-cert", required_argument, nullptr, OPT_SRC_CERT},
    {"dst-cert", required_argument, nullptr, OPT_DST_CERT},
    {"src-jwt", required_argument, nullptr, OPT_SRC_JWT},
    {"dst-jwt", required_argument, nullptr, OPT_DST_JWT},
    {"rm-when-done", no_argument, nullptr, OPT_RM_WHEN_DONE},
    {"merge-replace", no_argument, nullptr, OPT_MERGE_REPLACE},
    {"src-dc-uid", required_argument, nullptr, OPT_SRC_DC_UID},
    {"pull-account", required_argument, nullptr, OPT_PULL_ACCOUNT},
    {"rename-to", required_argument, nullptr, OPT_RENAME_TO},
    {"pull-all-accounts", no_argument, nullptr, OPT_PULL_ALL},
    {"disable-ondemand-only", required_argument, nullptr, OPT_DISABLE_ONDEMAND},
    {"enable-ondemand-only", required_argument, nullptr, OPT_ENABLE_ONDEMAND},
    {nullptr, 0, nullptr, 0},
};

[[noreturn]] void usage(const char *message)
{
    tarn_usage_exit(kUsage, message);
}

pull_command *queue(int32_t type)
{
    auto *c = static_cast<pull_command *>(mox_zmalloc(sizeof(pull_command)));
    c->type = type;
    mox_list_add_tail(&pull_settings.pull_commands, &c->link);
    return c;
}

void capture_src(pull_command *c)
{
    c->src = pull_settings.src;
    c->src_cert = pull_settings.src_cert;
    c->src_jwt = pull_settings.src_jwt;
}

void capture_dst_credentials(pull_command *c)
{
    c->dst_cert = pull_settings.dst_cert;
    c->dst_jwt = pull_settings.dst_jwt;
}

} // namespace

void parse_opts_pull(int argc, char **argv)
{
    pull_settings_t &s = pull_settings;
    int c;
    while ((c = getopt_long(argc, argv, "+h", kOptions, nullptr)) != -1) {
        switch (c) {
        case '?':
            fprintf(stderr, "Unknown option '%s'.\n", argv[optind - 1]);
            usage(nullptr);
        case 'h':
            usage(nullptr);
        case OPT_SRC:
            s.src = optarg;
            break;
        case OPT_DST:
            s.dst = optarg;
            break;
        case OPT_SRC_CERT:
            s.src_cert = optarg;
            break;
        case OPT_DST_CERT:
            s.dst_cert = optarg;
            break;
        case OPT_SRC_JWT:
            s.src_jwt = optarg;
            break;
        case OPT_DST_JWT:
            s.dst_jwt = optarg;
            break;
        case OPT_RM_WHEN_DONE:
            s.rm_when_done = 1;
            break;
        case OPT_MERGE_REPLACE:
            s.merge_replace = 1;
            break;
        case OPT_SRC_DC_UID:
            s.src_dc_uid = optarg;
            break;
        case OPT_PULL_ACCOUNT: {
            pull_command *p = queue(PULL_ACCOUNT);
            capture_src(p);
            p->dst = s.dst;
            capture_dst_credentials(p);
            p->account = p->new_name = optarg;
            s.last_pull = p;
            break;
        }
        case OPT_RENAME_TO:
            // Renaming whatever came last would pull the wrong account.
            if (s.last_pull == nullptr)
                usage("--rename-to must follow the --pull-account it renames");
            s.last_pull->new_name = optarg;
            break;
        case OPT_PULL_ALL:
            capture_src(queue(PULL_ALL_ACCOUNTS));
            break;
        case OPT_DISABLE_ONDEMAND:
        case OPT_ENABLE_ONDEMAND: {
            pull_command *p = queue(SET_ONDEMAND_ONLY);
            capture_dst_credentials(p);
            p->account = optarg;
            p->enable = c == OPT_ENABLE_ONDEMAND;
            break;
        }
        default:
            mox_bug("tarn-ctl-pull", __LINE__, "parse_opts_pull");
        }
    }
    if (optind < argc) {
        fprintf(stderr, "Can't parse '%s' as an argument.\n", argv[optind]);
        usage(nullptr);
    }
}

bool check_commands(void)
{
    mox_list *head = &pull_settings.pull_commands;
    if (mox_list_empty(head))
        usage("No --pull-account or --pull-all-accounts given on the command line.");
    for (mox_list *l = head->next; l != head; l = l->next) {
        const pull_command *c = mox_container_of(l, pull_command, link);
        const char *missing = nullptr;
        switch (c->type) {
        case PULL_ACCOUNT:
            if (!c->src || (!c->src_cert && !c->src_jwt))
                missing = "--src and --src-cert|--src-jwt must be specified before -p";
            break;
        case PULL_ALL_ACCOUNTS:
            if (!c->src || (!c->src_cert && !c->src_jwt))
                missing = "--src and --src-cert|--src-jwt must be specified before -P";
            break;
        case SET_ONDEMAND_ONLY:
            if (!c->dst_cert && !c->dst_jwt)
                missing = "--dst-cert|--dst-jwt must be specified before "
                          "--(disable|enable)-ondemand-only";
            break;
        default:
            mox_bug("tarn-ctl-pull", __LINE__, "check_commands");
        }
        if (missing != nullptr) {
            fputs(missing, stderr);
            return false;
        }
    }
    return true;
}
