// Binding: finding the interpreter in this process and filling XPy_C_API_Data from it.
//
// Nothing here links against an interpreter. Every name is looked up in the process's global namespace at
// import, so one binary serves whatever CPython loads it. Messages go to the process's standard error and
// never through Python, which may not be usable yet; traces go to the native descriptor of `gDP` when a host
// has set one before import.
#include "xoptmonitoring/binding/xpy_c_api.h"

#include "xoptmonitoring/binding/refs.h"
#include "xoptmonitoring/binding/xpy_fallbacks.h"
#include "xoptmonitoring/binding/xpy_layouts.h"
#include "xoptmonitoring/diagnostics/dprintf.h"

#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

XPy_C_API_Data global_XPy_C_API_Data;
extern "C" __attribute__((alias("global_XPy_C_API_Data"), visibility("hidden"))) XPy_C_API_Data xpy;

bool totals_references = false;

namespace {

/// Set once the fork handler is registered; it stays registered for the life of the process.
std::int32_t gForkHandlerRegistered = 0;
/// The test switch of XPy_DbgSetFailOnImport.
std::int32_t gFailOnImport = 0;
/// What XPy_SetQuietAboutLaterVersions has set.
std::int32_t gQuietAboutLaterVersions = 0;

constexpr std::size_t kUnicodeNameSize = 4096;

/// Optional lookup. The handle is opened anew and closed again: what is looked up stays loaded with its
/// interpreter.
void* GetPtrNullOk(void* dll_name, const char* symbol) {
    void* handle = dlopen(static_cast<const char*>(dll_name), RTLD_LAZY | RTLD_GLOBAL);
    if (handle == nullptr) {
        return nullptr;
    }
    void* found = dlsym(handle, symbol);
    dlclose(handle);
    return found;
}

/// Required lookup: a miss is reported.
void* GetPtr(void* dll_name, const char* symbol) {
    void* found = GetPtrNullOk(dll_name, symbol);
    if (found == nullptr) {
        std::fprintf(stderr, "GetPtr() failed for %s\n", symbol);
    }
    return found;
}

/// Appends `text` to the NUL-terminated `buffer`, cutting it at the buffer's end.
void append_limited(char (&buffer)[kUnicodeNameSize], const char* text) {
    std::strncat(buffer, text, kUnicodeNameSize - 1 - std::strlen(buffer));
}

/// Finds a Unicode function, whose name carries the build's character width on generation 2 and before 3.3.
void* GetUnicodeFunction(void* dll_name, const char* suffix, const char* /*unread*/, int miss_allowed) {
    for (const char* infix : {"", "UCS2", "UCS4"}) {
        char name[kUnicodeNameSize] = "";
        append_limited(name, "PyUnicode");
        append_limited(name, infix);
        append_limited(name, suffix);
        if (void* found = GetPtrNullOk(dll_name, name)) {
            return found;
        }
    }
    if (miss_allowed == 0) {
        std::fprintf(stderr, "GetUnicodeFunction() failed for: %s\n", suffix);
    }
    return nullptr;
}

template <class Slot>
void store(Slot& slot, void* found) {
    slot = reinterpret_cast<Slot>(found);
}

/// Which generations need a name, and whether binding fails without it.
enum class Need { REQUIRED, ON_2, ON_3, OPTIONAL };

bool is_wanted(Need need) {
    return !(need == Need::ON_2 && xpy.major_version != 2) && !(need == Need::ON_3 && xpy.major_version == 2);
}

/// Looks `symbol` up as `need` says. False means that a required name is missing (and was reported).
bool look_up(Need need, const char* symbol, void** found) {
    *found = nullptr;
    if (!is_wanted(need)) {
        return true;
    }
    *found = need == Need::OPTIONAL ? GetPtrNullOk(xpy.dll_ptr, symbol) : GetPtr(xpy.dll_ptr, symbol);
    return *found != nullptr || need == Need::OPTIONAL;
}

template <class Slot>
bool bind_function(Need need, Slot& slot, const char* symbol) {
    void* found = nullptr;
    if (!look_up(need, symbol, &found)) {
        return false;
    }
    store(slot, found);
    return true;
}

template <class Slot>
bool bind_unicode(Need need, Slot& slot, const char* suffix) {
    if (!is_wanted(need)) {
        return true;
    }
    void* found = GetUnicodeFunction(xpy.dll_ptr, suffix, "", need == Need::OPTIONAL);
    store(slot, found);
    return found != nullptr || need == Need::OPTIONAL;
}

/// How a data symbol is read: its address is the object, or it is a variable that holds the pointer.
enum class Read { ADDRESS, VALUE };

template <class Slot>
bool bind_data(Need need, Read read, Slot& slot, const char* symbol) {
    void* found = nullptr;
    if (!look_up(need, symbol, &found)) {
        return false;
    }
    if (found != nullptr && read == Read::VALUE) {
        found = *static_cast<void**>(found);
    }
    store(slot, found);
    return true;
}

/// Finds the entry point that creates modules, which tells the generation and whether references are traced.
bool FindInitFunction() {
    struct EntryPoint {
        const char* symbol;
        int generation;
        int debug;
    };
    constexpr EntryPoint kEntryPoints[] = {
        {"Py_InitModule4_64", 2, 0},
        {"Py_InitModule4TraceRefs_64", 2, 1},
        {"PyModule_Create2", 3, 0},
        {"PyModule_Create2TraceRefs", 3, 1},
    };
    for (const EntryPoint& entry : kEntryPoints) {
        void* found = GetPtrNullOk(xpy.dll_ptr, entry.symbol);
        if (found == nullptr) {
            continue;
        }
        xpy.major_version = entry.generation;
        xpy.pydebug_build = entry.debug;
        if (entry.generation == 2) {
            store(xpy.Py_InitModule, found);
        } else {
            store(xpy.PyModule_Create2, found);
        }
        return true;
    }
    xpy.failed_to_initialize = 1;
    std::fputs("Failed to find module init function\n", stderr);
    return false;
}

/// Free-threaded builds, and only those, export the accessor of their thread-local block.
bool IsFreeThreadingBuild() {
    if (xpy.major_version != 3) {
        return false;
    }
    void* found = GetPtrNullOk(xpy.dll_ptr, "_Py_GetThreadLocal_Addr");
    do_dp_no_py(gDP.core, "IsFreeThreadingBuild(): c_func_ptr = %p\n", found);
    return found != nullptr;
}

/// The names that are needed before the version is known.
bool bind_version_slots() {
    bind_function(Need::OPTIONAL, xpy._PyMutex_LockSlow, "_PyMutex_LockSlow");
    bind_function(Need::OPTIONAL, xpy._PyMutex_UnlockSlow, "_PyMutex_UnlockSlow");
    bind_function(Need::OPTIONAL, xpy.PyMutex_Lock, "PyMutex_Lock");
    bind_function(Need::OPTIONAL, xpy.PyMutex_Unlock, "PyMutex_Unlock");
    bind_function(Need::OPTIONAL, xpy.PyInt_AsSsize_t, "PyInt_AsSsize_t");
    return bind_function(Need::REQUIRED, xpy.Py_DecRef, "Py_DecRef") &&
           bind_function(Need::REQUIRED, xpy.PyErr_Occurred, "PyErr_Occurred") &&
           bind_function(Need::REQUIRED, xpy.PyLong_AsSsize_t, "PyLong_AsSsize_t") &&
           bind_function(Need::REQUIRED, xpy.PyLong_FromSsize_t, "PyLong_FromSsize_t") &&
           bind_function(Need::REQUIRED, xpy.PyObject_GetItem, "PyObject_GetItem") &&
           bind_function(Need::REQUIRED, xpy.PySys_GetObject, "PySys_GetObject");
}

Py_ssize_t as_ssize_t(PyObject* object) {
    return xpy.PyInt_AsSsize_t != nullptr ? xpy.PyInt_AsSsize_t(object) : xpy.PyLong_AsSsize_t(object);
}

/// Item `index` of `sequence` as an int, or -1 with an error pending. Runs before references can be counted
/// directly, so both references are dropped through the interpreter.
int GetItemAsInt(PyObject* sequence, Py_ssize_t index) {
    PyObject* key = xpy.PyLong_FromSsize_t(index);
    if (key == nullptr) {
        return -1;
    }
    PyObject* item = xpy.PyObject_GetItem(sequence, key);
    xpy.Py_DecRef(key);
    if (item == nullptr) {
        return -1;
    }
    const auto value = static_cast<int>(as_ssize_t(item));
    xpy.Py_DecRef(item);
    return xpy.PyErr_Occurred() != nullptr ? -1 : value;
}

bool read_version() {
    PyObject* version_info = xpy.PySys_GetObject("version_info");
    if (version_info == nullptr) {
        return false;
    }
    std::int32_t* const words[] = {&xpy.major_version, &xpy.minor_version, &xpy.micro_version};
    for (Py_ssize_t index = 0; index < 3; ++index) {
        const int value = GetItemAsInt(version_info, index);
        if (xpy.PyErr_Occurred() != nullptr) {
            return false;
        }
        *words[index] = value;
    }
    PyObject* api_version = xpy.PySys_GetObject("api_version");
    if (api_version == nullptr) {
        return false;
    }
    xpy.api_version = static_cast<std::int32_t>(as_ssize_t(api_version));
    return xpy.PyErr_Occurred() == nullptr;
}

/// The version words from a constant that interpreters export since 3.11, where there is one. Reading it takes no
/// memory, and cannot fail just once and leave the process bound to the wrong version for good.
void read_version_constant() {
    const auto* version = static_cast<const unsigned long*>(GetPtrNullOk(xpy.dll_ptr, "Py_Version"));
    if (version == nullptr) {
        return;
    }
    const auto byte = [version](int index) { return static_cast<std::int32_t>(*version >> (8 * index) & 0xff); };
    xpy.major_version = byte(3);
    xpy.minor_version = byte(2);
    xpy.micro_version = byte(1);
}

/// Reads the version words; without them binding goes on with what can be told otherwise.
void learn_version() {
    if (read_version()) {
        return;
    }
    std::fputs("Unable to get version numbers\n", stderr);
    read_version_constant();
    bind_function(Need::OPTIONAL, xpy.PyErr_Print, "PyErr_Print");
    if (xpy.PyErr_Print != nullptr && xpy.PyErr_Occurred() != nullptr) {
        xpy.PyErr_Print();
    }
}

/// Resolves every slot of the list, in record order, stopping at the first required name that is missing.
bool bind_all_slots() {
#define XPY_SLOT(need, result, name, parameters)       \
    if (!bind_function(Need::need, xpy.name, #name)) { \
        return false;                                  \
    }
#define XPY_BACKED(need, backup, result, name, parameters) XPY_SLOT(need, result, name, parameters)
#define XPY_OLDER(older, backup, result, name, parameters) XPY_SLOT(OPTIONAL, result, name, parameters)
#define XPY_UNICODE(need, result, name, suffix, parameters) \
    if (!bind_unicode(Need::need, xpy.name, suffix)) {      \
        return false;                                       \
    }
#define XPY_UNICODE_BACKED(backup, result, name, suffix, parameters) \
    XPY_UNICODE(OPTIONAL, result, name, suffix, parameters)
#define XPY_DATA(need, read, type, name)                       \
    if (!bind_data(Need::need, Read::read, xpy.name, #name)) { \
        return false;                                          \
    }
#define XPY_TYPE(need, name)                                            \
    if (!bind_data(Need::need, Read::ADDRESS, xpy.name##_ptr, #name)) { \
        return false;                                                   \
    }
#include "xoptmonitoring/binding/xpy_api_slots.def"
    return true;
}

/// Generation 2 knows byte strings as its strings.
void alias_bytes_to_strings() {
    xpy.PyBytes_AsString = xpy.PyString_AsString;
    xpy.PyBytes_FromString = xpy.PyString_FromString;
    xpy.PyBytes_Size = xpy.PyString_Size;
    xpy.PyBytes_Type_ptr = xpy.PyString_Type_ptr;
}

/// The fork handler: only the cached process id differs in the child.
void XPy_OnForkInChild() {
    xpy.cached_pid = getpid();
}

/// Fills the record. False leaves both flags clear (unless no entry point exists), so that a later import
/// tries anew.
bool fill_record() {
    forget_layouts();
    if (!FindInitFunction()) {
        return false;
    }
    const bool free_threaded = IsFreeThreadingBuild();
    do_dp_no_py(gDP.core, "FindInitFunction() succeeded major_version = %i, free_t_build = %i, pydebug_build = %i\n",
                static_cast<int>(xpy.major_version), static_cast<int>(free_threaded),
                static_cast<int>(xpy.pydebug_build));
    if (!bind_version_slots()) {
        return false;
    }
    learn_version();
    learn_object_layout(free_threaded);
    if (!bind_all_slots()) {
        return false;
    }
    if (xpy.major_version == 2) {
        alias_bytes_to_strings();
    }
    install_fallbacks();
    return true;
}

}  // namespace

void raise_unable_to_init() {
    if (xpy.PyErr_Format == nullptr) {
        store(xpy.PyErr_Format, GetPtrNullOk(xpy.dll_ptr, "PyErr_Format"));
    }
    if (xpy.PyExc_ImportError == nullptr) {
        bind_data(Need::OPTIONAL, Read::VALUE, xpy.PyExc_ImportError, "PyExc_ImportError");
    }
    if (xpy.PyErr_Occurred == nullptr) {
        store(xpy.PyErr_Occurred, GetPtrNullOk(xpy.dll_ptr, "PyErr_Occurred"));
    }
    if (xpy.PyErr_Format == nullptr || xpy.PyExc_ImportError == nullptr) {
        return;
    }
    if (xpy.PyErr_Occurred != nullptr && xpy.PyErr_Occurred() != nullptr) {
        return;
    }
    xpy.PyErr_Format(xpy.PyExc_ImportError, "Unable to init XPy");
}

int XPy_Initialize(void) {
    if (gFailOnImport == 0 && XPy_InitializeWithDllPtr(nullptr) == 0) {
        return 0;
    }
    raise_unable_to_init();
    return -1;
}

int XPy_InitializeWithDllPtr(void* dll_ptr) {
    if (xpy.failed_to_initialize != 0) {
        raise_unable_to_init();
        return -1;
    }
    if (xpy.initialized != 0) {
        return 0;
    }
    xpy.dll_ptr = dll_ptr;
    if (!fill_record()) {
        do_dp_no_py(gDP.core, "XPy_InitializeGlobalData() failed\n");
        return -1;
    }
    xpy.failed_to_initialize = 0;
    do_dp_no_py(gDP.core, "XPy_InitializeGlobalData() succeeded\n");
    learn_frame_layouts();
    xpy.cached_pid = getpid();
    if (gForkHandlerRegistered == 0 && pthread_atfork(nullptr, nullptr, XPy_OnForkInChild) == 0) {
        gForkHandlerRegistered = 1;
    }
    xpy.refcnt_is_32bit = xpy.major_version == 3 && xpy.minor_version > 11 ? 1 : 0;
    xpy.can_update_refcount_directly = xpy.pydebug_build == 0 && xpy.pyobject_offsets.refcnt != -1 ? 1 : 0;
    // Exported by every build that keeps a total; what it does is never asked for.
    totals_references = GetPtrNullOk(xpy.dll_ptr, "_Py_NegativeRefcount") != nullptr;
    xpy.initialized = 1;
    return 0;
}

void* XPy_LookupPythonFunction(const char* name) {
    return name == nullptr ? nullptr : GetPtrNullOk(xpy.dll_ptr, name);
}

int XPy_GetMajorVersion(void) {
    return xpy.major_version;
}

int XPy_GetMinorVersion(void) {
    return xpy.minor_version;
}

PyTypeObject* XPy_BorrowType(PyObject* object) {
    if (xpy.initialized == 0 || object == nullptr) {
        return nullptr;
    }
    // The object keeps its type alive, so the reference can go at once.
    const Ref type = Ref::steal(xpy.PyObject_Type(object));
    return as_type(type.get());
}

int XPy_PyObjectsEqual(PyObject* a, PyObject* b) {
    if (xpy.initialized == 0 || a == nullptr || b == nullptr) {
        return -1;
    }
    if (xpy.PyObject_RichCompareBool != nullptr) {
        return xpy.PyObject_RichCompareBool(a, b, Py_EQ);
    }
    const int order = xpy.PyObject_Compare(a, b);
    if (order != -1) {
        return order == 0 ? 1 : 0;
    }
    return xpy.PyErr_Occurred() != nullptr ? -1 : 0;
}

int XPy_DbgSetFailOnImport(int fail) {
    return std::exchange(gFailOnImport, fail);
}

int XPy_SetQuietAboutLaterVersions(int quiet) {
    return std::exchange(gQuietAboutLaterVersions, quiet);
}

bool tells_of_later_versions() {
    return gQuietAboutLaterVersions == 0;
}

PyThreadState* XPy_CurrentThreadStateOrNull() {
    if (xpy.PyThreadState_GetUnchecked != nullptr) {
        return xpy.PyThreadState_GetUnchecked();
    }
    PyThreadState* tstate = nullptr;
    if (xpy._PyThreadState_UncheckedGet != nullptr) {
        tstate = xpy._PyThreadState_UncheckedGet();
    } else if (xpy._PyThreadState_Current != nullptr) {
        tstate = *xpy._PyThreadState_Current;
    }
    const bool is_per_thread = xpy.major_version == 3 && xpy.minor_version > 11;
    if (tstate == nullptr || is_per_thread || xpy.tstate_offsets.thread_id == -1) {
        return tstate;
    }
    // Until 3.11 this is the state of whichever thread holds the lock, which need not be ours.
    const auto owner = *XPy_GetFieldAddress<unsigned long>(tstate, xpy.tstate_offsets.thread_id);
    return owner == xpy.PyThread_get_thread_ident() ? tstate : nullptr;
}
