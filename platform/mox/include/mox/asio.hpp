// The loop's Asio I/O context, for platform libraries that do network I/O on
// the loop (C++ only; command modules never include this).
#pragma once

#include "mox/process.h"

#include <boost/asio/io_context.hpp>

namespace mox
{

// The I/O context that `loop` runs. Handlers posted to it run on the loop
// thread, outside any coroutine.
boost::asio::io_context &io_context(mox_loop *loop);

} // namespace mox
