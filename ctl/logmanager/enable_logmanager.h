// The "enable-logmanager" command: hands the gateway's logs to the system's
// log manager.
#pragma once

// Accepts and ignores any arguments.
void parse_opts_enable_logmanager(int argc, char **argv);

// Comments out the log.* settings of /etc/quillon/tarn.config, appends the
// fixed ones to `config_path` and writes /etc/logmanager.d/tarn.conf. Runs
// the blocking steps on the worker thread; suspends. Any failure ends the
// program through the fatal report.
int exec_enable_logmanager(const char *config_path);

// Appends the four log settings to `path`; the result of closing the file.
int append_logging_params(const char *path);
// Writes the log manager's file; the result of closing it.
int write_logmanager_service_conf(void);
