// The pull command's executor: the queue in command-line order, pulls of
// every account of a source gateway, and the on-demand-only switch.
#include "ember/ar_io.h"
#include "frame/progress.h"
#include "mox/mox.h"
#include "pull.h"

namespace
{

// Each gateway step runs under its own deadline, so a gateway that stalls
// ends the command with the step's message instead of hanging it.
const int32_t kStepTimeoutMs = 120000;

class step_deadline
{
  public:
    step_deadline() : prev_(mox_context_get(mox_co_get_ctx(mox_current_co())))
    {
        mox_co_ctx_set_timeout(kStepTimeoutMs);
    }
    ~step_deadline()
    {
        mox_co_set_ctx(prev_);
        mox_context_put(prev_);
    }
    step_deadline(const step_deadline &) = delete;
    step_deadline &operator=(const step_deadline &) = delete;

  private:
    mox_context *prev_;
};

[[noreturn]] void listing_failed(const pull_command *c, int rc)
{
    mox_fatal("failed to list accounts on %s: %i (%s)", c->src, rc, mox_strerror(-rc));
}

void pull_all_accounts(const pull_command *c)
{
    ar_io_dir *dir = nullptr;
    ar_io_dir_entry *cursor = nullptr;
    ember_client *client;
    int rc;
    {
        step_deadline step;
        client = c->src_jwt != nullptr ? get_ember_client_jwt(c->src, c->src_jwt)
                                       : get_ember_client_cert(c->src, c->src_cert);
        if (!ember_client_is_web(client) && !ember_client_is_jwt(client)) {
            if (c->src_jwt != nullptr) {
                static const mox_bug_location loc = {"tarn-ctl-pull", "pull_all_accounts",
                                                     __LINE__};
                mox_bug_at(&loc);
            }
            mox_fatal("certificate in '%s' is not a 'web certificate'", c->src_cert);
        }
        if (pull_settings.src_dc_uid == nullptr && c->src_cert == nullptr)
            mox_fatal("failed to pull all accounts: --src-cert is required without --src-dc-uid");
        rc = ar_io_open_ember_dir_cl(client, "/", &dir, 0);
        if (rc != 0)
            listing_failed(c, rc);
        rc = dir->ops->read_first(dir, nullptr, &cursor, 0);
        if (rc < 0)
            listing_failed(c, rc);
    }
    tarn_progress progress;
    tarn_progress_begin(&progress, "pull of all accounts", "accounts", 0);
    while (rc > 0) {
        step_deadline step;
        pull_command account = {};
        account.type = PULL_ACCOUNT;
        account.src = c->src;
        account.src_cert = c->src_cert;
        account.src_jwt = c->src_jwt;
        account.account = account.new_name = cursor->name;
        mox_log(2, "%s", cursor->name);
        pull_account(client, &account);
        tarn_progress_step(&progress);
        rc = dir->ops->read_next(dir, cursor, 0);
        if (rc < 0)
            listing_failed(c, rc);
    }
    tarn_progress_end(&progress);
    if (cursor != nullptr)
        dir->ops->release_entry(dir, cursor);
    ar_io_dir_put(dir);
    ember_client_put(client);
}

void set_ondemand_only(const pull_command *c)
{
    step_deadline step;
    ember_client *client = get_dst_ember_client(nullptr, c->dst_cert, c->dst_jwt);
    int rc = ember_account_pull_set_ondemand_only(client, c->account, c->enable);
    if (rc != 0)
        mox_fatal("failed to set pull.ondemand_only to %u for account '%s': %i (%s)",
                  static_cast<unsigned>(c->enable), c->account, rc, mox_strerror(-rc));
    ember_client_put(client);
}

} // namespace

int exec_pull(void)
{
    if (!check_commands())
        return -MOX_EINVAL;
    mox_list *head = &pull_settings.pull_commands;
    for (mox_list *l = head->next; l != head; l = l->next) {
        const pull_command *c = mox_container_of(l, pull_command, link);
        switch (c->type) {
        case PULL_ACCOUNT: {
            step_deadline step;
            pull_account(nullptr, c);
            break;
        }
        case PULL_ALL_ACCOUNTS:
            pull_all_accounts(c);
            break;
        case SET_ONDEMAND_ONLY:
            set_ondemand_only(c);
            break;
        default:
            mox_bug("tarn-ctl-pull", __LINE__, "exec_pull");
        }
    }
    return 0;
}
