// Diagnostic printing: records, lines and texts.
//
// Everything here may be called from inside a tracer, on a thread that has an exception pending, or before
// there is an interpreter at all. So whatever runs Python code stands between a suspension of tracing and its
// end, the caller's exception is put aside first and put back last, and errors of our own are cleared. One
// counter per record keeps a line from being written while another one is under way: what a file's write() or
// an object's repr() logs on its way is dropped. Some of what follows from that guard looks like a mistake
// and is what hosts know; each such place says so.
#include "xoptmonitoring/diagnostics/dprintf.h"

#include "xoptmonitoring/binding/refs.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

static_assert(sizeof(tDPrintfLogMask) == 4);

namespace {

constexpr tDPrintfLogMask kFirstMask = kLogCore | kLogExceptions | kLogInternalFailures;

/// The most that one write may be asked for: a length that other platforms' write calls still take.
constexpr std::size_t kWriteLimit = 4294967295;

}  // namespace

tDPData gUnsafeGlobalDPData;
tDPData gDP;
tDPrintfLogMask gDPrintfMask = kFirstMask;
PyObject* gDPrintfFile = nullptr;
int gDPrintfNativeFileno = -1;

namespace {

// ---- helpers: outputs ----

bool has_native_file(const tSingleDPData& output) {
    return output.initialized != 0 && output.fileno != -1;
}

bool is_real_file(PyObject* file) {
    return file != nullptr && file != xpy._Py_NoneStruct;
}

bool has_python_file(const tSingleDPData& output) {
    return output.initialized != 0 && is_real_file(output.file_obj);
}

/// Takes a reference, where there is an interpreter to take it from. Before binding there is none, and the
/// file cannot be kept.
PyObject* new_file_reference(PyObject* file) {
    return xpy.initialized != 0 ? Ref::share(file).release() : nullptr;
}

void drop(PyObject* object) {
    if (object != nullptr) {
        XPy_DoDecRef(object);
    }
}

/// Lets each category point at the output, or at nothing, as mask and outputs say.
void update_categories(tDPData* dp_data) {
    tSingleDPData* output = &dp_data->shared_single_dp_data;
    const bool can_write = has_python_file(*output) || has_native_file(*output);
    const auto choose = [&](tDPrintfLogMask category) {
        return can_write && (dp_data->mask & category) != 0 ? output : nullptr;
    };
    dp_data->core = choose(kLogCore);
    dp_data->filenames = choose(kLogFilenames);
    dp_data->internal_failures = choose(kLogInternalFailures);
    dp_data->threading = choose(kLogThreading);
    dp_data->initial_monitoring_callbacks = choose(kLogInitialMonitoringCallbacks);
    dp_data->second_monitoring_callbacks = choose(kLogSecondMonitoringCallbacks);
}

/// An empty text with room for a repr, or null.
char* new_repr_buffer() {
    return static_cast<char*>(std::calloc(1, kDPrintfTextLimit + 1));
}

void free_repr_buffers(tDPData* dp_data) {
    std::free(std::exchange(dp_data->_repr_str1, nullptr));
    std::free(std::exchange(dp_data->_repr_str2, nullptr));
}

/// Writes to a descriptor. Whatever goes wrong is no concern of the caller's, not even in errno.
void write_native(int fileno, const char* text) {
    const int saved_errno = errno;
    std::size_t length = std::strlen(text);
    if (length > kWriteLimit) {
        length = kWriteLimit;
    }
    [[maybe_unused]] const ssize_t written = write(fileno, text, length);
    errno = saved_errno;
}

// ---- helpers: a quiet stretch ----

/// Puts the pending exception aside and puts it back, together with nothing that happened in between.
class SavedException {
  public:
    SavedException() {
        xpy.PyErr_Fetch(&type_, &value_, &traceback_);
    }
    SavedException(const SavedException&) = delete;
    SavedException& operator=(const SavedException&) = delete;
    ~SavedException() {
        xpy.PyErr_Restore(type_, value_, traceback_);
    }

    PyObject* type() const {
        return type_;
    }
    PyObject* value() const {
        return value_;
    }
    PyObject* traceback() const {
        return traceback_;
    }

  private:
    PyObject* type_ = nullptr;
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;
};

/// Keeps the thread from tracing what is run in its scope.
class SuspendedTracing {
  public:
    explicit SuspendedTracing(PyThreadState* tstate) : tstate_(tstate) {
        xpy.PyThreadState_EnterTracing(tstate_);
    }
    SuspendedTracing(const SuspendedTracing&) = delete;
    SuspendedTracing& operator=(const SuspendedTracing&) = delete;
    ~SuspendedTracing() {
        xpy.PyThreadState_LeaveTracing(tstate_);
    }

  private:
    PyThreadState* tstate_;
};

/// The calling thread's state; null also before binding, when no slot may be used.
PyThreadState* usable_thread_state() {
    return xpy.initialized != 0 ? XPy_CurrentThreadStateOrNull() : nullptr;
}

// ---- helpers: making and writing the text of a line ----

/// A string object with a fixed text, or nothing (with an error pending, if there was a way to make one).
Ref fixed_text(const char* text) {
    if (xpy.PyUnicode_FromString != nullptr && xpy.major_version != 2) {
        return Ref::steal(xpy.PyUnicode_FromString(text));
    }
    return xpy.PyString_FromString != nullptr ? Ref::steal(xpy.PyString_FromString(text)) : Ref();
}

Ref format_text(const char* format, va_list arguments) {
    if (xpy.PyString_FromFormatV != nullptr) {
        return Ref::steal(xpy.PyString_FromFormatV(format, arguments));
    }
    if (xpy.PyUnicode_FromFormatV != nullptr) {
        return Ref::steal(xpy.PyUnicode_FromFormatV(format, arguments));
    }
    return fixed_text(xpy.major_version == 2 ? "DPRINTF error: no way to make a string\n"
                                             : "DPRINTF error: PyUnicode_FromFormatV is NULL\n");
}

/// Writes an object to the Python file and flushes it. The file is held meanwhile: its own write() may
/// replace it.
void write_text(PyObject* text) {
    const Ref file = Ref::share(gDPrintfFile);
    constexpr int kRaw = 1;
    if (xpy.PyFile_WriteObject(text, file.get(), kRaw) != 0) {
        xpy.PyErr_Clear();
    }
    const Ref flushed = Ref::steal(xpy.PyObject_CallMethod(file.get(), "flush", nullptr));
    if (!flushed) {
        xpy.PyErr_Clear();
    }
}

/// Makes and writes one line. `log_exception` is called when the format fails.
template <class LogException>
void format_and_write(const char* format, va_list arguments, LogException log_exception) {
    Ref text = format_text(format, arguments);
    if (!text) {
        // The guard is held, so that the exception is not logged after all: the fixed text is all that shows.
        log_exception();
        xpy.PyErr_Clear();
        text = fixed_text("DPRINTF error: exception while formatting string\n");
    }
    if (!text) {
        xpy.PyErr_Clear();
        text = fixed_text("DPRINTF error: unable to create output string\n");
    }
    if (!text) {
        xpy.PyErr_Clear();
        return;
    }
    write_text(text.get());
}

// ---- helpers: exceptions ----

/// An exception ready for display: normalised copies, since normalising runs the exception's constructor,
/// which may put another exception in its place, and the caller's own has to stay what it was.
struct DisplayedException {
    PyObject* type;
    PyObject* value;
    PyObject* traceback;

    explicit DisplayedException(const SavedException& saved)
        : type(Ref::share(saved.type()).release()),
          value(Ref::share(saved.value()).release()),
          traceback(Ref::share(saved.traceback()).release()) {
        xpy.PyErr_NormalizeException(&type, &value, &traceback);
    }
    DisplayedException(const DisplayedException&) = delete;
    DisplayedException& operator=(const DisplayedException&) = delete;
    ~DisplayedException() {
        drop(type);
        drop(value);
        drop(traceback);
    }
};

/// Whether the thread runs a trace function, and below it another one: nothing is logged from in there.
bool traces_deeply(PyThreadState* tstate) {
    if (xpy.tstate_offsets.tracing == -1) {
        return false;
    }
    return *XPy_GetFieldAddress<std::int32_t>(tstate, xpy.tstate_offsets.tracing) > 1;
}

/// Writes the exception to the Python file by way of sys.stderr. False means that sys.stderr is missing or
/// None.
bool display(const DisplayedException& exception) {
    PyObject* current = xpy.PySys_GetObject("stderr");
    if (!is_real_file(current)) {
        return false;
    }
    const Ref old = Ref::share(current);
    if (xpy.PySys_SetObject("stderr", gDPrintfFile) != 0) {
        xpy.PyErr_Clear();
    }
    xpy.PyErr_Display(exception.type, exception.value, exception.traceback);
    xpy.PyErr_Clear();
    if (xpy.PySys_SetObject("stderr", old.get()) != 0) {
        xpy.PyErr_Clear();
    }
    return true;
}

/// Logs the pending exception under the guard `guard`. `write_banner` is what precedes the traceback.
template <class WriteBanner>
void log_pending_exception(int& guard, WriteBanner write_banner) {
    if (!is_real_file(gDPrintfFile)) {
        return;
    }
    init_dp_data(&gUnsafeGlobalDPData, 0);
    PyThreadState* tstate = usable_thread_state();
    if (tstate == nullptr || xpy.PyErr_Occurred() == nullptr || traces_deeply(tstate) || guard != 0) {
        return;
    }
    guard = 1;
    bool was_displayed = false;
    {
        const SuspendedTracing suspended(tstate);
        const SavedException saved;
        // The banner meets the guard that has just been taken and so is never written. The traceback alone is
        // what readers of these logs know; keep it so.
        write_banner();
        was_displayed = display(DisplayedException(saved));
    }
    if (was_displayed) {
        guard = 0;
    }
    // Without a sys.stderr the guard stays taken, on purpose: a process that has lost its standard error is
    // being torn down or detached, and from here on every diagnostic line is suppressed.
}

// ---- helpers: texts ----

/// Appends `text` to the NUL-terminated `buffer` as far as there is room.
void append_text(char* buffer, const char* text) {
    const std::size_t used = std::strlen(buffer);
    std::size_t length = std::strlen(text);
    if (length > kDPrintfTextLimit - used) {
        length = kDPrintfTextLimit - used;
    }
    std::memcpy(buffer + used, text, length);
    buffer[used + length] = '\0';
}

void set_text(char* buffer, const char* text) {
    buffer[0] = '\0';
    append_text(buffer, text);
}

bool is_instance_of(PyObject* object, PyTypeObject* type) {
    if (type == nullptr) {
        return false;
    }
    PyTypeObject* actual = type_of(object);
    return actual == type || xpy.PyType_IsSubtype(actual, type) != 0;
}

/// Puts the repr of `obj`, or why there is none, into a buffer of the record.
void fill_str_with_repr(tDPData* dp_data, char* buffer, PyObject* obj) {
    PyThreadState* tstate = usable_thread_state();
    if (tstate == nullptr) {
        set_text(buffer, "fill_str_with_repr() failed: tstate is NULL");
        return;
    }
    int& guard = dp_data->shared_single_dp_data.in_dprint_count;
    if (guard != 0) {
        set_text(buffer, "fill_str_with_repr() failed: in_dprint_count is not 0");
        return;
    }
    ++guard;
    const SuspendedTracing suspended(tstate);
    const SavedException saved;
    const Ref repr = Ref::steal(xpy.PyObject_Repr(obj));
    if (repr) {
        set_text(buffer, dprint_check_pystr(repr.get()));
    } else {
        xpy.PyErr_Clear();
        set_text(buffer, "exception getting repr in fill_str_with_repr()");
    }
    --guard;
}

/// The attribute `name` of a code object, or nothing.
Ref code_attribute(PyObject* code, const char* name) {
    Ref value = Ref::steal(xpy.PyObject_GetAttrString(code, name));
    if (!value) {
        xpy.PyErr_Clear();
    }
    return value;
}

/// Reads an integer attribute. False means that there is none.
bool code_integer(PyObject* code, const char* name, Py_ssize_t* number) {
    const Ref value = code_attribute(code, name);
    if (!value) {
        return false;
    }
    *number = xpy.PyInt_AsSsize_t != nullptr ? xpy.PyInt_AsSsize_t(value.get()) : xpy.PyLong_AsSsize_t(value.get());
    if (xpy.PyErr_Occurred() != nullptr) {
        xpy.PyErr_Clear();
        return false;
    }
    return true;
}

/// One position at a time: callers copy the text into their line at once.
char gFrameText[kDPrintfTextLimit + 1];

}  // namespace

// ---- records ----

tDPData* create_dp_data() {
    auto* dp_data = static_cast<tDPData*>(std::calloc(1, sizeof(tDPData)));
    if (dp_data != nullptr) {
        init_dp_data(dp_data, 1);
    }
    return dp_data;
}

void free_dp_data(tDPData* dp_data) {
    if (dp_data != nullptr) {
        clear_dp_data(dp_data);
        std::free(dp_data);
    }
}

void init_dp_data(tDPData* dp_data, int force) {
    if (dp_data == nullptr || (dp_data->initialized != 0 && force == 0)) {
        return;
    }
    // Nothing is read: there may be anything in memory that is new.
    dp_data->shared_single_dp_data = {
        .initialized = 1, .file_obj = nullptr, .fileno = -1, .win32_handle = nullptr, .in_dprint_count = 0};
    dp_data->mask = kFirstMask;
    dp_data->_repr_str1 = new_repr_buffer();
    dp_data->_repr_str2 = new_repr_buffer();
    dp_data->initialized = 1;
    update_categories(dp_data);
}

void clear_dp_data(tDPData* dp_data) {
    if (dp_data == nullptr) {
        return;
    }
    tSingleDPData& output = dp_data->shared_single_dp_data;
    output.fileno = -1;
    output.win32_handle = nullptr;
    free_repr_buffers(dp_data);
    PyObject* file = std::exchange(output.file_obj, nullptr);
    update_categories(dp_data);
    drop(file);
}

void set_dp_data_mask(tDPData* dp_data, tDPrintfLogMask mask) {
    if (dp_data != nullptr) {
        dp_data->mask = mask;
        update_categories(dp_data);
    }
}

tDPrintfLogMask get_dp_data_mask(const tDPData* dp_data) {
    return dp_data != nullptr ? dp_data->mask : 0;
}

void set_dp_data_file_obj(tDPData* dp_data, PyObject* file_obj, int fileno, void* win32_handle) {
    if (dp_data == nullptr) {
        return;
    }
    tSingleDPData& output = dp_data->shared_single_dp_data;
    output.fileno = fileno;
    output.win32_handle = win32_handle;
    PyObject* old = std::exchange(output.file_obj, new_file_reference(file_obj));
    update_categories(dp_data);
    drop(old);  // last, since it may run Python code that logs
}

void set_dprintf_file(PyObject* file, int fileno, void* win32_handle) {
    init_dp_data(&gUnsafeGlobalDPData, 0);
    gDPrintfNativeFileno = fileno;
    PyObject* old = std::exchange(gDPrintfFile, new_file_reference(file));
    set_dp_data_file_obj(&gUnsafeGlobalDPData, file, fileno, win32_handle);
    drop(old);
}

void set_dprintf_mask(tDPrintfLogMask mask) {
    init_dp_data(&gUnsafeGlobalDPData, 0);
    gDPrintfMask = mask;
    set_dp_data_mask(&gUnsafeGlobalDPData, mask);
}

tDPrintfLogMask get_dprintf_mask() {
    return gDPrintfMask;
}

// ---- lines ----

void do_dprintf(tDPrintfLogMask kind, const char* format, ...) {
    if (!is_real_file(gDPrintfFile) || (kind & gDPrintfMask) == 0 || format == nullptr) {
        return;
    }
    init_dp_data(&gUnsafeGlobalDPData, 0);
    int& guard = gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count;
    PyThreadState* tstate = usable_thread_state();
    if (tstate == nullptr || guard != 0) {
        return;
    }
    guard = 1;
    {
        const SuspendedTracing suspended(tstate);
        const SavedException saved;
        va_list arguments;
        va_start(arguments, format);
        format_and_write(format, arguments, do_dlogexception);
        va_end(arguments);
    }
    guard = 0;
}

void do_dprintf_repr(tDPrintfLogMask kind, const char* prefix, PyObject* obj, const char* suffix) {
    if (!is_real_file(gDPrintfFile) || (kind & gDPrintfMask) == 0) {
        return;
    }
    init_dp_data(&gUnsafeGlobalDPData, 0);
    int& guard = gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count;
    PyThreadState* tstate = usable_thread_state();
    if (tstate == nullptr || guard != 0) {
        return;
    }
    ++guard;
    {
        const SuspendedTracing suspended(tstate);
        const SavedException saved;
        const Ref repr = Ref::steal(xpy.PyObject_Repr(obj));
        // The guard is taken, so that neither of these lines is ever written. Hosts have never seen one; what
        // counts is that the repr was asked for and that nothing came of a failure.
        if (repr) {
            do_dprintf(kind, "%s%s%s", dprint_check_str(prefix), dprint_check_pystr(repr.get()),
                       dprint_check_str(suffix));
        } else {
            do_dprintf(kind, "exception getting repr in DPRINTF_REPR\n");
            do_dlogexception();
            xpy.PyErr_Clear();
        }
    }
    --guard;
}

void do_dlogexception() {
    log_pending_exception(gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count,
                          [] { do_dprintf(kLogCore, "EXCEPTION IN DEBUG TRACER:\n"); });
}

void do_dp(tSingleDPData* data, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    do_dp_v(data, format, arguments);
    va_end(arguments);
}

void do_dp_v(tSingleDPData* data, const char* format, va_list arguments) {
    // The record decides whether the line is written, and the process-wide file is where it goes: a record's
    // own file object only keeps its categories switched on.
    if (data == nullptr || !is_real_file(gDPrintfFile) || format == nullptr) {
        return;
    }
    init_dp_data(&gUnsafeGlobalDPData, 0);
    PyThreadState* tstate = usable_thread_state();
    if (tstate == nullptr || data->in_dprint_count != 0) {
        return;
    }
    data->in_dprint_count = 1;
    {
        const SuspendedTracing suspended(tstate);
        const SavedException saved;
        format_and_write(format, arguments, [data] { do_dp_logexception(data); });
    }
    --data->in_dprint_count;
}

void do_dp_logexception(tSingleDPData* data) {
    if (data != nullptr) {
        log_pending_exception(data->in_dprint_count, [data] { do_dp(data, "EXCEPTION IN DEBUG TRACER:\n"); });
    }
}

void do_dp_no_py(tSingleDPData* data, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    do_dp_no_py_v(data, format, arguments);
    va_end(arguments);
}

void do_dp_no_py_v(tSingleDPData* data, const char* format, va_list arguments) {
    // No guard here: nothing in this function can lead back into it.
    if (data == nullptr || !has_native_file(*data) || format == nullptr) {
        return;
    }
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) {
        write_native(data->fileno, "sprintf_to_malloced_str() failed\n");
        return;
    }
    write_native(data->fileno, text);
    std::free(text);
}

void dprint_no_tstate(tDPrintfLogMask kind, const char* s) {
    if (s != nullptr && (kind & gDPrintfMask) != 0 && gDPrintfNativeFileno != -1) {
        write_native(gDPrintfNativeFileno, s);
    }
}

// ---- texts ----

const char* get_dprintf_frame_str1(PyObject* frame) {
    set_text(gFrameText, "");
    PyThreadState* tstate = usable_thread_state();
    if (frame == nullptr || tstate == nullptr) {
        return gFrameText;
    }
    const SuspendedTracing suspended(tstate);
    const SavedException saved;
    char number[64];
    std::snprintf(number, sizeof number, "line %d of ", xpy.PyFrame_GetLineNumber(frame));
    append_text(gFrameText, number);
    xpy.PyErr_Clear();
    const Ref code = Ref::steal(xpy.PyFrame_GetCode(frame));
    Py_ssize_t first_line = 0;
    if (!code || !code_integer(code.get(), "co_firstlineno", &first_line)) {
        xpy.PyErr_Clear();
        return gFrameText;
    }
    const Ref name = code_attribute(code.get(), "co_name");
    const Ref filename = code_attribute(code.get(), "co_filename");
    append_text(gFrameText, dprint_check_pystr(name.get()));
    append_text(gFrameText, " (");
    append_text(gFrameText, dprint_check_pystr(filename.get()));
    std::snprintf(number, sizeof number, ": %zd)", first_line);
    append_text(gFrameText, number);
    return gFrameText;
}

const char* get_dprintf_repr_str1(tDPData* dp_data, PyObject* obj) {
    if (dp_data == nullptr || dp_data->_repr_str1 == nullptr) {
        return "get_dprintf_repr_str1() failure: _repr_str1 is NULL";
    }
    fill_str_with_repr(dp_data, dp_data->_repr_str1, obj);
    return dp_data->_repr_str1;
}

const char* get_dprintf_repr_str2(tDPData* dp_data, PyObject* obj) {
    if (dp_data == nullptr || dp_data->_repr_str2 == nullptr) {
        return "get_dprintf_repr_str2() failure: _repr_str2 is NULL";
    }
    fill_str_with_repr(dp_data, dp_data->_repr_str2, obj);
    return dp_data->_repr_str2;
}

const char* dprint_check_str(const char* s) {
    if (s == nullptr) {
        return "(NULL)";
    }
    if (is_real_file(gDPrintfFile)) {
        // A Python file may have any encoding, and a line that cannot be encoded would be lost as a whole.
        for (const char* at = s; *at != '\0'; ++at) {
            if ((static_cast<unsigned char>(*at) & 0x80U) != 0) {
                return "(non-ascii string)";
            }
        }
    }
    return s;
}

const char* dprint_check_pystr(PyObject* o) {
    if (o == nullptr) {
        return "(NULL PyObject*)";
    }
    if (usable_thread_state() == nullptr ||
        (!is_instance_of(o, xpy.PyString_Type_ptr) && !is_instance_of(o, xpy.PyUnicode_Type_ptr))) {
        return "(non-PyString PyObject*)";
    }
    const SavedException saved;
    return dprint_check_str(xpy.PyString_AsString != nullptr ? xpy.PyString_AsString(o) : xpy.PyUnicode_AsString(o));
}
