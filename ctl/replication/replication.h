// The "replication" command: a queue of per-account operations carried out
// file by file against a master and a slave gateway, and "--auto", which
// writes this gateway's automatic replication file.
#pragma once

#include "ember/ember.h"
#include "mox/list.h"

#include <cstdint>

// What a queued operation does.
enum replication_kind : int32_t {
    REPL_ENABLE = 0,
    REPL_AUTO = 1,
    REPL_DISABLE = 2,
    REPL_DETACH = 3,
    REPL_SWITCH_TO_SLAVE = 4,
    REPL_JOIN_SLAVE = 5,
    REPL_CHECK_CONSISTENCY = 6,
};

// One queued operation, zero-filled, owned by the queue until
// exec_replication has run it.
struct replication_command {
    mox_list link;
    int32_t kind;
    const char *account; // "/acc" as given; unused by auto
    // Auto only: the slave site as it stood when "--auto" was read.
    const char *peer_addr;
    const char *peer_uid;
    const char *peer_cert;
};

// Module state filled by the parser in the main thread and read by the
// executor; the strings are the argument vector's own. In a namespace of its
// own because other command modules keep state of the same names.
namespace replication_state
{
extern const char *master_addr;
extern const char *master_uid;
extern const char *master_cert;
extern const char *slave_addr;
extern const char *slave_uid;
extern const char *slave_cert;
extern int32_t force;
// FIFO of replication_command records, in command-line order.
extern mox_list commands;
} // namespace replication_state

// Reads the command's options (argv[0] is the command word) into the module
// state and the queue. Bad options end the program with the usage text
// (status 255). Called in the main thread before the loop starts; does not
// suspend.
void parse_opts_replication(int argc, char **argv);

// Runs every queued operation in order, each in a fresh child context that
// expires after 120 s, and frees each record after it has run. Returns 0 when
// all succeeded; any failure ends the program through a fatal report.
// Suspends.
int exec_replication(void);

// A client for the gateway at `address`, authenticated with a JWT signed by
// the private key in the PEM file `cert` for the audience `uid`, granting
// `mask` on "/". Holds one reference (ember_client_put). Ends the program
// when the key cannot be read or the client cannot be set up. Does not
// suspend.
ember_client *make_ember_client(const char *address, const char *cert, const char *uid,
                                uint32_t mask);

// Lists the regular, non-temporary files of `account` ("/acc") on the
// client's gateway and calls `fn(client, path, arg)` for each in listing
// order. A listing failure ends the program with `list_msg` (account, code,
// system text), a failing call with whatever `fn` reports. Suspends.
typedef void (*replication_file_fn)(ember_client *client, const char *path, void *arg);
void replication_walk(ember_client *client, const char *account, const char *list_msg,
                      replication_file_fn fn, void *arg);

// Enable, disable, detach, switch-to-slave, join-slave and the consistency
// check of one account; each ends the program on failure. Suspend.
void replication_enable(const char *account);
void replication_disable(const char *account);
void replication_detach(const char *account);
void replication_switch_to_slave(const char *account);
void replication_join_slave(const char *account);
void replication_check_consistency(const char *account);
// Writes the automatic replication file for the slave of `rc`; ends the
// program on failure (also without a configuration or its "root_dir").
// Suspends.
void replication_auto(const replication_command *rc);

// 1 when `path` is "/" followed by a name without "/", else 0. Does not
// suspend.
int is_toplevel_dir(const char *path);
// 1 when the last component of `path` names a temporary file that
// replication leaves alone (".tmp.*.xml", "~*.kpa.meta", "~*.KPA.meta"),
// else 0. Does not suspend.
int fes_file_is_temp(const char *path);
