// The usage texts' common end: what every command prints before its usage
// text, and the exit that follows it.
#pragma once

// Writes "ERROR: MESSAGE" and an empty line when `message` is given, then
// `text`, to standard error; ends logging and exits with status 255.
[[noreturn]] void tarn_usage_exit(const char *text, const char *message);
