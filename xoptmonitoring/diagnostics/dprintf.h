// Diagnostic printing: native, mask-filtered lines and exception logs that are safe inside a tracer.
//
// Its interface is part of the public header, since other native modules of the debugger write their lines
// through it: the records and their categories, do_dprintf and its relatives, and the texts made for use in a
// line.
#pragma once

#include "xoptmonitoring/binding/xpy_abi.h"

/// Bytes of text that the buffers for reprs and frames hold, beside the NUL.
inline constexpr std::size_t kDPrintfTextLimit = 4000;
