// Runs test code inside a coroutine on a real runtime process.
#pragma once

#include <functional>

namespace tarn_test
{

// Starts a fresh process (loop thread and worker), runs `fn` in a coroutine
// on its loop, and returns once `fn` has returned and the loop has stopped.
// GoogleTest assertions inside `fn` work; a fatal one just returns from `fn`.
// When `fn` has not returned after `limit_s` seconds, the test process ends
// at once with status 1 and a line saying so.
void run_in_coroutine(const std::function<void()> &fn, int limit_s = 10);

} // namespace tarn_test
