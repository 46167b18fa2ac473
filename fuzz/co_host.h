// One runtime process for a whole fuzzing run: starting a process per input
// would spend the run on thread start-up.
#pragma once

#include <functional>

namespace tarn_fuzz
{

// Runs `fn` in a coroutine on the shared process's loop and returns when it
// has returned. The process starts on the first call and lives until exit.
void run_in_coroutine(const std::function<void()> &fn);

} // namespace tarn_fuzz
