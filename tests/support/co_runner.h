// Runs test code inside a coroutine on a real runtime process.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tarn_test
{

// Starts a fresh process (loop thread and worker), runs `fn` in a coroutine
// on its loop, and returns once `fn` has returned and the loop has stopped.
// GoogleTest assertions inside `fn` work; a fatal one just returns from `fn`.
// When `fn` has not returned after `limit_s` seconds, the test process ends
// at once with status 1 and a line saying so.
void run_in_coroutine(const std::function<void()> &fn, int limit_s = 10);

// For death tests of a command: parses `args` (argv[0] first) with `parse`
// from a fresh getopt state, runs `exec` in a coroutine whose context ends
// after `deadline_ms`, then exits with status 0.
[[noreturn]] void run_command(void (*parse)(int, char **), int (*exec)(),
                              std::vector<std::string> args, int deadline_ms);

} // namespace tarn_test
