// One JSON request to the gateway and its answer (internal).
#pragma once

#include "client_impl.h"

#include <boost/json.hpp>

namespace ember
{

// POSTs `req` to `op`. 0 and the answer object; the answer's "error" (or
// its status) negated; -60 for an answer that is not a JSON object; or a
// transport failure. Suspends the calling coroutine.
int call(ember_client *c, const char *op, const boost::json::object &req,
         boost::json::object *answer);
// As call, with the answer parsed on `answer`'s own storage and left there
// (an object on success). Suspends the calling coroutine.
int call_value(ember_client *c, const char *op, const boost::json::object &req,
               boost::json::value &answer);
// As call, and copies the answer's text `field` into *out (runtime
// allocation; null on failure).
int call_text(ember_client *c, const char *op, const boost::json::object &req, const char *field,
              char **out);

} // namespace ember
