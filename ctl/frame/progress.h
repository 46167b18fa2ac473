// Progress of long work (a pull of all accounts, a replication walk): a
// line at log level 2 at most once a second while it runs, and a summary
// line at its end. Only when the administrator asked for a log level with
// -d: at the default level the commands' output stays exactly theirs.
#pragma once

#include <cstdint>

// Set by the frame when -d gave the log level.
extern bool log_level_given;

struct tarn_progress {
    const char *what; // "pull of all accounts", "enable of '/acc'", ...
    const char *unit; // "accounts", "files"
    uint64_t total;   // 0 when not known in advance
    uint64_t done;
    uint64_t start_us;
    uint64_t last_us; // time of the last line
    bool on;
};

// Starts counting. Does not log; does not suspend.
void tarn_progress_begin(tarn_progress *p, const char *what, const char *unit, uint64_t total);
// Counts one item; logs a progress line when a second has passed since the
// last one. Does not suspend.
void tarn_progress_step(tarn_progress *p);
// Logs the summary: the count and the elapsed time. Does not suspend.
void tarn_progress_end(tarn_progress *p);
