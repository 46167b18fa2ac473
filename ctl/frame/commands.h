// The command table: the only place where the frame refers to the command
// modules. A module adds its row when it is built.
#pragma once

#include <cstddef>
#include <cstdint>

struct tarn_command {
    int32_t number;
    const char *word;
    // Called in the main thread before the loop starts, with the command word
    // as element 0. Reports bad arguments itself.
    void (*parse)(int argc, char **argv);
    // Called in the root coroutine; `config_path` is the path in force.
    void (*exec)(const char *config_path);
};

extern const tarn_command tarn_commands[];
extern const size_t tarn_command_count;
