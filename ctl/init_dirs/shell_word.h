// Inserting configuration and argument text into the cluster tool's command
// lines so that the shell sees exactly one word, whatever the text holds.
#pragma once

// `s` as one shell word: unchanged when it is empty or holds only letters,
// digits and "@%+=:,./_-", so ordinary paths and attributes keep their usual
// command text; otherwise between single quotes, each quote written as '\''.
// The result is the caller's, from the runtime's allocator. Does not suspend.
char *shell_word(const char *s);

// `s` for insertion between single quotes that the command template already
// holds: each single quote becomes '\'' and nothing else changes. The result
// is the caller's, from the runtime's allocator. Does not suspend.
char *shell_quoted_inner(const char *s);
