// Files moved between gateways in chunks of at most peer_chunk_max bytes:
// replication pushes them to the slave, an account pull fetches them from
// the source. Both go through transfer_file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace gwsim
{

// Fills `data` with the chunk of a file at `offset` and `size` with the
// file's whole size: 0 or an error code.
using chunk_source = std::function<int(uint64_t offset, std::string &data, uint64_t &size)>;
// Takes the chunk `data` at `offset` of a file of `size` bytes: 0 or an
// error code.
using chunk_sink = std::function<int(uint64_t offset, const std::string &data, uint64_t size)>;

// Moves one file from `from` to `to`, chunk by chunk in the order of their
// offsets (an empty file is one empty chunk): 0, the first error code, or
// 80 when the file changes its size under the transfer.
int transfer_file(const chunk_source &from, const chunk_sink &to);

// A chunk of the local regular file `local`: up to `length` bytes (at most
// peer_chunk_max) at `offset`. 0, 8 when it is not a regular file, 80 when
// it cannot be read.
int read_chunk(const std::string &local, uint64_t offset, uint64_t length, std::string &data,
               uint64_t &size);

// Writes a received chunk of the local file `local`. The chunks go to a
// temporary file beside it (a name the gateway's tools take for a
// temporary file), made with mode 0600 by the chunk at offset 0, its
// missing parent directories with 0700; the chunk that ends the file
// flushes it and renames it over `local`. 0; 30 for a chunk that does not
// continue the temporary file (it is removed); 80 for a failed write (the
// temporary file is removed).
int write_chunk(const std::string &local, uint64_t offset, const std::string &data, uint64_t size);

} // namespace gwsim
