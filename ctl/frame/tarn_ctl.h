// The command frame: program-wide state and the entry point.
#pragma once

#include "mox/config.h"
#include "mox/process.h"

#include <cstdint>

// The loaded gateway configuration; null only while "replication" runs
// without a readable configuration file.
extern mox_config *config;
// Path of the gateway configuration file ("-c" replaces it).
extern const char *config_path;
// Number of the chosen command.
extern int32_t cmd;
extern mox_process proc;
extern mox_job job;

// Runs the tool with its command line; never returns.
[[noreturn]] void tarn_ctl_main(int argc, char **argv);
