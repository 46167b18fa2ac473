// Runs a program to its end and measures it: the benchmarks' way to time
// the real tool from outside, with its peak memory.
#pragma once

#include <string>
#include <vector>

struct measured_run {
    int status = 0; // as wait(2) gives it
    double ms = 0;  // wall time
    double cpu_ms = 0;
    long rss_kib = 0; // peak resident set
};

// Runs args[0] (a path) with `args`; its standard error goes to `err`
// (created or truncated), or is discarded when `err` is empty.
measured_run run_measured(std::vector<std::string> args, const std::string &err = "");
