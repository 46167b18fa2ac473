// The storage directory commands "init-dirs", "set-attr" and "upgrade-dirs":
// their argument state and the routine that creates the gateway's tree and
// gives it its storage attributes through the cluster tool.
#pragma once

#include <cstdint>

// One string of the attribute list: a circular doubly linked list with a
// sentinel head; strings are appended at the tail and read from the head.
struct attr_node {
    attr_node *next;
    attr_node *prev;
    char *attr; // owned, NUL-terminated, "ATTR=value"
};

// Module state filled by the parsers and read by the executors; lives for
// the whole run. In a namespace of its own because other command modules
// keep state of the same names.
namespace init_dirs_state
{
// Both borrowed from `config`.
extern const char *root_dir;
extern const char *storage_type;
// The encoding M+N/X; -1 where none was given (X also after "M+N").
extern int32_t encoding_m;
extern int32_t encoding_n;
extern int32_t encoding_x;
// Sentinel of the attribute list; empty when it points to itself.
extern attr_node attrs;
} // namespace init_dirs_state

// True when `s` begins with the whole of `prefix`. Does not suspend.
bool starts_with(const char *s, const char *prefix);
// True when `type` is exactly "local", "azure", "google", "s3" or "swift".
// Does not suspend.
bool set_attr_supported(const char *type);
// Appends `attr` at the tail of the attribute list, which takes ownership
// (a block from the runtime's allocator). Never fails; does not suspend.
void add_attr(char *attr);
// Parses "encoding=M+N/X" or "encoding=M+N" (integers as scanf's %i reads
// them; trailing text ignored) into m, n and x (x = -1 for the short form).
// 0, or -30 when the text is neither form or a number is negative or out of
// range; on failure the outputs may hold partial results. Does not suspend.
int mox_parse_encoding_string(const char *str, int32_t *m, int32_t *n, int32_t *x);

// Option parsers, called in the main thread before the loop starts with the
// command word as argv[0]. They fill the module state; bad arguments end the
// program with the usage text (status 255) or a fatal report. Do not
// suspend.
void parse_opts_init_dirs(int argc, char **argv);
void parse_opts_reshape_dirs(int argc, char **argv);
void parse_opts_upgrade_dirs(int argc, char **argv);

// Creates (mode 0) or only reconfigures (mode 1) the eight directories under
// `root_dir` (borrowed) and sets their attributes through the cluster tool.
// Mode 0 with m < 0 is the upgrade path: the encoding and attributes come
// from the root directory, which is itself left alone. Reads `storage_type`
// and `attrs`; the upgrade path appends to `attrs`. 0 or a negative runtime
// code (-30 failed command, -29 unusable get-attr output, or the code of a
// failed mkdir); a failed init-dirs removes the tree's empty directories.
// Suspends: blocking commands run on the worker thread.
int fes_cluster_dirs_configure(const char *root_dir, int32_t m, int32_t n, int32_t x, int mode);

// Executors, run in the root coroutine: each calls fes_cluster_dirs_configure
// and turns a failure into a fatal report. 0 on success. Suspend.
int exec_init_dirs(void);
int exec_reshape_dirs(void);
int exec_upgrade_dirs(void);
