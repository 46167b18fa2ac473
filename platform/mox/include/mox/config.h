/* The configuration store: an unordered set of key/value strings read from
 * and written to "key = value" text. Syntax (docs/configuration.md):
 *   - one pair per line; blanks around "=" are optional; the value is the
 *     rest of the line without surrounding blanks;
 *   - keys are letters, digits, "_", "-" and "."; a key may begin with ".";
 *   - a line whose first non-blank character is "#" is a comment; empty and
 *     blank lines are ignored; any other line makes the text invalid;
 *   - a key given twice keeps its last value.
 * None of these calls suspend; none log. */
#ifndef MOX_CONFIG_H
#define MOX_CONFIG_H

#include "mox/compiler.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

MOX_EXTERN_C_BEGIN

typedef struct mox_config mox_config;

/* An empty store, or null when memory is short. */
mox_config *mox_create_config(void);
/* Frees the store and every string it handed out; null is ignored. */
void mox_free_config(mox_config *cfg);

/* Adds the pairs of the stream's text to `cfg`. 0 when the whole text was
 * read, -29 when it is not configuration text (nothing is added then), or
 * a negated errno value when the stream cannot be read. */
int mox_parse_config_file(mox_config *cfg, FILE *file);
/* Largest configuration file the runtime reads: a real one is a few KiB. */
#define MOX_CONFIG_MAX_BYTES (16 * 1024 * 1024)
/* Opens a configuration file for reading without ever blocking on it: 0 and
 * the stream (close-on-exec), -EINVAL when it is not a regular file (a FIFO
 * or a device would never end or never come), -EFBIG when it is larger than
 * MOX_CONFIG_MAX_BYTES, or another negated errno value. */
int mox_config_fopen(const char *path, FILE **file);
/* A new store with the file's pairs, or null when unreadable or invalid
 * (opened as mox_config_fopen does). */
mox_config *mox_read_config(const char *path);
/* A new store with the text's pairs, or null when the text is invalid. */
mox_config *mox_read_config_mem(const char *text);
/* The store as text, one "key = value" line per pair in key order; freed
 * with __mox_free. mox_read_config_mem turns it back into the same pairs. */
char *mox_write_config_mem(const mox_config *cfg);

/* 0 and the value (owned by the store, valid until the key is changed or
 * the store is freed), or -8 when the key is absent. */
int mox_config_getstr(const mox_config *cfg, const char *key, const char **value);
/* As mox_config_getstr, with references replaced by the referenced keys'
 * values: "$key" (the longest run of key characters, trailing dots left
 * out), "${key}", and "$$" for one "$". Referenced values are expanded in
 * turn. A reference to an absent key, or one that would loop back to a key
 * being expanded (or lies more than 64 references deep), stays as written.
 * -29 when the result would exceed 1 MiB. The result is owned by the store. */
int mox_config_getstr_expand(mox_config *cfg, const char *key, const char **value);
/* Decimal integers (an optional sign, then digits, nothing else) into an
 * object of `size` bytes (1, 2, 4 or 8). 0 and the value; -8 when absent;
 * -30 when not a number, out of range for the size, or a bad size. */
int mox_config_getint(const mox_config *cfg, const char *key, void *out, size_t size);
int mox_config_getuint(const mox_config *cfg, const char *key, void *out, size_t size);

/* Stores a copy of the pair, replacing an old value. -30 when the key is
 * not a valid key or the value cannot be written back as text (it holds a
 * newline or begins or ends with a blank); 0 otherwise. */
int mox_config_setstr(mox_config *cfg, const char *key, const char *value);
int mox_config_setint(mox_config *cfg, const char *key, int64_t value);
/* Removes the key if present; 0, or -8 when it was absent. */
int mox_config_unset(mox_config *cfg, const char *key);

/* Number of pairs; for callers that walk the store. */
size_t mox_config_size(const mox_config *cfg);

MOX_EXTERN_C_END

#endif
