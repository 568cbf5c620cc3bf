// Raw channel messages over a pair of descriptors, for tests and other languages.
#pragma once

#include "host/engine.h"

namespace mirn {

// Reads lines from `input` and writes one line to `output` for each, at once:
//
//   the hex of an encoded method call   the hex of the encoded reply; "no-reply" when the handler returned without
//   replying;
//                                       "not-implemented" for the empty reply
//   wait MS                             "ok", after the main loop has run that many milliseconds
//   anything else                       "error: <why>"
//
// Serves the default main context meanwhile; `input` is a source of it, so that posted tasks and frames get their turn
// between two lines. `input` may be a pipe, a terminal or a file; its mode is left alone. Returns at the end of `input`
// (kExitOk), when it can't be read (kExitData, after what was read) or when `output` takes no more (kExitDevice). Bound
// to the platform thread.
int runChannel(Engine& engine, int input, int output);

}  // namespace mirn
