#pragma once

#include "tests/support/test_environment.h"

// For programs whose login session is one that may have a device monitor of its own: not the root
// session, and of a fixed id.
static const TestVariable sSessionID("VLTHOST_SESSION_ID", "0xabc123");
static const TestVariable sSessionBits("VLTHOST_SESSION_BITS", "0x10");
