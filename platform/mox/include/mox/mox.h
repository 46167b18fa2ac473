/* The runtime: everything the tool and its libraries use. */
#ifndef MOX_MOX_H
#define MOX_MOX_H

#include "mox/alloc.h"
#include "mox/co.h"
#include "mox/config.h"
#include "mox/errors.h"
#include "mox/file.h"
#include "mox/list.h"
#include "mox/log.h"
#include "mox/misc.h"
#include "mox/process.h"

#endif
