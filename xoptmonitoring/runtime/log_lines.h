// Diagnostic lines of the Python level: gated by a mask bit, written to the object that the tracer has set.
#pragma once

#include "xoptmonitoring/runtime/function.h"

/// Whether lines of the categories in `bits` are written at all: the mask has one of them and a file is set.
inline bool is_logging(ModuleState& m, std::int64_t bits) {
    return (load_global(m.globals._gDPrintfMask) & bits) != 0 && !global_is_none(m.globals._gDPrintfFile);
}

/// Writes `text` with the file's own `write`. False with an exception set; an empty text is a failure to build it.
/// A file that has been switched off meanwhile takes nothing, and that is no failure.
bool write_log_line(ModuleState& m, const Ref& text);

extern const FunctionDecl kSetDprintfFile;
extern const FunctionDecl kSetDprintfMask;
extern const FunctionDecl kGetDprintfMask;
extern const FunctionDecl kDprintf;
