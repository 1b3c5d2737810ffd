// Diagnostic lines of the Python level, and the four module functions that steer them.
#include "xoptmonitoring/runtime/log_lines.h"

namespace {

bool write_to(ModuleState& m, const Ref& file, const Ref& text) {
    return file && call_method(file.get(), m.names.write, text.get());
}

}  // namespace

bool write_log_line(ModuleState& m, const Ref& text) {
    const Ref file = text ? load_global(m, m.globals._gDPrintfFile) : Ref();
    return (file && file.get() == none()) || write_to(m, file, text);
}

namespace {

Ref set_file(ModuleState& m, PyObject* /*self*/, const Argument* args) {
    store_global(m, m.globals._gDPrintfFile, Ref::share(args[0].object));
    return new_none();
}

Ref set_mask(ModuleState& m, PyObject* /*self*/, const Argument* args) {
    store_global(m, m.globals._gDPrintfMask, args[0].integer);
    return new_none();
}

Ref get_mask(ModuleState& m, PyObject* /*self*/, const Argument* /*args*/) {
    return new_int(load_global(m.globals._gDPrintfMask));
}

/// The text of `dprintf`: a str as it is, or what a callable gives, so that a caller pays for building a message only
/// when it is written.
Ref resolve_text(PyObject* s) {
    int is_text = is_str_instance(s);
    if (is_text != 0) {
        return is_text > 0 ? Ref::share(s) : Ref();
    }
    Ref text = call(s);
    is_text = text ? is_str_instance(text.get()) : -1;
    if (is_text == 0) {
        xpy.PyErr_SetString(xpy.PyExc_TypeError, "s must be a string or a callable that returns a string");
    }
    return is_text > 0 ? std::move(text) : Ref();
}

Ref print_line(ModuleState& m, PyObject* /*self*/, const Argument* args) {
    if (global_is_unset(m.globals._gDPrintfFile)) {
        raise_unset();
        return {};
    }
    if (!is_logging(m, args[0].integer)) {
        return new_none();
    }
    const Ref text = resolve_text(args[1].object);
    // Read again: a callable may have taken the file away, and writing to None then fails as it does in Python.
    return text && write_to(m, load_global(m, m.globals._gDPrintfFile), text) ? new_none() : Ref();
}

constexpr ParamDecl kFileParams[] = {{"f"}, {"fileno"}, {"win32_handle"}};
constexpr ParamDecl kMaskParams[] = {{"mask", ValueType::Integer}};
constexpr ParamDecl kDprintfParams[] = {{"domain", ValueType::Integer}, {"s"}};

}  // namespace

const FunctionDecl kSetDprintfFile = {
    "set_dprintf_file", kFileParams, set_file,
    "Sends the module's diagnostic lines to the `write` method of `f`; None switches them off. `fileno` and\n"
    "`win32_handle` are accepted for the sake of callers that have them, and not used. Returns None."};

const FunctionDecl kSetDprintfMask = {
    "set_dprintf_mask", kMaskParams, set_mask,
    "Chooses the diagnostic lines that are written: `mask` is an int made of the kLog... bits. Returns None.\n"
    "Raises TypeError or OverflowError for what is no machine word."};

const FunctionDecl kGetDprintfMask = {
    "get_dprintf_mask", {}, get_mask, "Returns the mask of diagnostic lines, an int."};

const FunctionDecl kDprintf = {
    "dprintf", kDprintfParams, print_line,
    "Writes `s` to the diagnostic file when one of the bits in `domain` (an int) is in the mask. `s` is a str or\n"
    "a callable without arguments that returns one; it is called only when the line is written. Nothing is added\n"
    "to the text. Returns None. Raises TypeError where no str comes of `s`, and what the callable or the file's\n"
    "`write` raises."};
