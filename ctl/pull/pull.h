// The "pull" command: migration of accounts from the gateway of another data
// centre to the local one, through an account info file in the local tree or
// through a trust relationship between the two gateways, and the on-demand-
// only switch of an account. Its options queue commands that exec_pull runs
// in command-line order; every failure ends the tool through mox_fatal.
#pragma once

#include "ember/ember.h"
#include "mox/list.h"

#include <cstdint>

enum pull_command_type : int32_t {
    PULL_ACCOUNT = 0,
    PULL_ALL_ACCOUNTS = 1,
    SET_ONDEMAND_ONLY = 2,
};

// One queued command. Texts point into the command line (or, for an account
// of a pull of all accounts, into the listing) and are never freed here.
struct pull_command {
    mox_list link; // in pull_settings.pull_commands
    int32_t type;
    // Connection settings captured when the command's option was read.
    const char *src;
    const char *dst;
    const char *src_cert;
    const char *dst_cert;
    const char *src_jwt;
    const char *dst_jwt;
    const char *account;  // the source's name of the account
    const char *new_name; // its name at the destination
    uint32_t enable : 1;  // SET_ONDEMAND_ONLY: 1 enables on-demand-only
};

struct pull_settings_t {
    const char *src;
    const char *dst;
    const char *src_cert;
    const char *dst_cert;
    const char *src_jwt;
    const char *dst_jwt;
    int32_t rm_when_done;
    int32_t merge_replace;
    const char *src_dc_uid; // set: DC trust mode
    pull_command *last_pull;
    mox_list pull_commands;
};

// Filled by parse_opts_pull before the loop starts; read-only afterwards.
extern pull_settings_t pull_settings;

// Parses the command's arguments (element 0 is "pull") into pull_settings
// and the command queue. Help, bad options and leftover arguments end the
// process with the usage text (status 255). Main thread; does not suspend.
void parse_opts_pull(int argc, char **argv);

// Checks that every queued command has the settings it needs. An empty
// queue ends the process with the usage text; a command without its
// settings writes its message (no line end) to standard error and gives
// false. Does not suspend.
bool check_commands(void);

// Client handles with one reference each (dropped with ember_client_put);
// every failure ends the tool. Do not suspend.
ember_client *get_ember_client_jwt(const char *address, const char *jwt);
// In DC trust mode the certificate's key signs a self-issued JWT instead.
ember_client *get_ember_client_cert(const char *address, const char *path);
// The destination: `address` defaults to the local gateway, a JWT wins over
// a certificate, and the certificate defaults to the local gateway's own.
ember_client *get_dst_ember_client(const char *address, const char *path, const char *jwt);

// Configures the pull of one account (a PULL_ACCOUNT record) in the mode
// that --src-dc-uid chooses; `src` is a source client the caller already
// holds, or null. Returns only on success. Suspends.
void pull_account(ember_client *src, const pull_command *command);

// Runs the queue. Returns when every command has run, or at once when a
// command lacks its settings. Suspends.
int exec_pull(void);
