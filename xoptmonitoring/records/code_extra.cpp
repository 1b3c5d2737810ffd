// The interpreter's code-extra slots, as far as this module reserved them.
#include "xoptmonitoring/records/code_extra.h"

#include "xoptmonitoring/records/local_state.h"
#include "xoptmonitoring/runtime/locks.h"

#include <algorithm>
#include <array>
#include <pthread.h>
#include <span>

namespace {

/// More slots than any interpreter hands out (255 so far).
constexpr Py_ssize_t kMaxIndexes = 1024;
constexpr Py_ssize_t kWordBits = 64;

/// One bit per index that this module reserved, for the life of the process.
std::uint64_t own_indexes[kMaxIndexes / kWordBits];

/// Guards all slots of all code objects, and the reserving of them. There is one for all module objects, since they
/// store in slots of the same code objects: the interpreter moves those to make room, and takes no lock of its own.
PyMutex slots_mutex = {};

/// By index, the class whose records lie there; borrowed and only ever compared with, since it may be gone.
PyTypeObject* record_classes[kMaxIndexes];

/// In a forked child nobody is left who could give the lock back.
void forget_lock() {
    slots_mutex = {};
}

void note_own_index(Py_ssize_t index) {
    __atomic_or_fetch(&own_indexes[index / kWordBits], std::uint64_t{1} << (index % kWordBits), __ATOMIC_RELAXED);
}

}  // namespace

bool is_own_code_extra_index(Py_ssize_t index) {
    if (index < 0 || index >= kMaxIndexes) {
        return false;
    }
    const std::uint64_t word = __atomic_load_n(&own_indexes[index / kWordBits], __ATOMIC_RELAXED);
    return (word >> (index % kWordBits) & 1) != 0;
}

namespace {

/// What a slot lets go of without a global lock, when it is replaced or its code object dies.
void drop_value(void* value) {
    local_state::begin_epoch();
    xpy.Py_DecRef(static_cast<PyObject*>(value));
}

}  // namespace

Py_ssize_t request_code_extra_index() {
    static bool survives_fork = false;
    const NativeLock lock(slots_mutex);
    if (is_free_threaded() && !survives_fork) {
        survives_fork = pthread_atfork(nullptr, nullptr, forget_lock) == 0;
    }
    const freefunc drop = is_free_threaded() ? drop_value : reinterpret_cast<freefunc>(xpy.Py_DecRef);
    const Py_ssize_t index = xpy.PyUnstable_Eval_RequestCodeExtraIndex(drop);
    if (index < 0 || index >= kMaxIndexes) {
        return -1;
    }
    note_own_index(index);
    return index;
}

void note_record_class(Py_ssize_t index, PyTypeObject* record_class) {
    if (is_own_code_extra_index(index)) {
        const NativeLock lock(slots_mutex);
        record_classes[index] = record_class;
    }
}

Py_ssize_t plain::code_extras_offset = -1;

namespace {

/// The one word in which `after` differs from `before`, if it was null there; -1 otherwise.
Py_ssize_t filled_word(std::span<void* const> before, std::span<void* const> after) {
    Py_ssize_t found = -1;
    for (std::size_t word = 0; word < before.size(); ++word) {
        if (after[word] == before[word]) {
            continue;
        }
        if (found != -1 || before[word] != nullptr) {
            return -1;
        }
        found = static_cast<Py_ssize_t>(word);
    }
    return found;
}

}  // namespace

bool plain::learn_code_extras_offset(Py_ssize_t index) {
    constexpr std::size_t kMaxWords = 128;  // twice what any interpreter needs so far
    const Py_ssize_t size = *XPy_GetFieldAddress<Py_ssize_t>(xpy.PyCode_Type_ptr, xpy.typeobject_offsets.tp_basicsize);
    const std::size_t count = static_cast<std::size_t>(size) / sizeof(void*);
    if (!plain::objects || index < 0 || code_extras_offset != -1 || count > kMaxWords ||
        xpy.PyCode_NewEmpty == nullptr) {
        return true;
    }
    const Ref code = Ref::steal(xpy.PyCode_NewEmpty("", "", 1));
    if (!code) {
        return false;
    }
    const std::span<void*> words(reinterpret_cast<void**>(code.get()), count);
    std::array<void*, kMaxWords> before = {};
    std::copy(words.begin(), words.end(), before.begin());
    if (!set_code_extra(code.get(), index, none(), object_type, nullptr)) {
        return false;
    }
    const Py_ssize_t word = filled_word({before.data(), count}, words);
    if (word != -1) {
        const auto* slots = static_cast<const CodeExtras*>(words[static_cast<std::size_t>(word)]);
        if (index < slots->size && slots->extras[index] == none()) {
            code_extras_offset = word * static_cast<Py_ssize_t>(sizeof(void*));
        }
    }
    return true;
}

CodeExtra get_code_extra(PyObject* code_object, Py_ssize_t index) {
    void* extra = nullptr;
    const bool own = is_own_code_extra_index(index);
    const NativeLock lock(slots_mutex);
    if (xpy.PyUnstable_Code_GetExtra(code_object, own ? index : -1, &extra) < 0) {
        return {Ref(), true};
    }
    return {Ref::share(own ? static_cast<PyObject*>(extra) : nullptr), false};
}

namespace {

/// Whether `value`, from slot `index`, is a record of the class whose records lie there.
bool is_record_at(Py_ssize_t index, PyObject* value) {
    return record_classes[index] != nullptr && is_instance_of(value, record_classes[index]);
}

}  // namespace

bool set_code_extra(PyObject* code_object, Py_ssize_t index, PyObject* value, PyTypeObject* record_class, bool* kept) {
    Ref old;  // dropped after the lock: the interpreter lets go of a replaced object at once
    const NativeLock lock(slots_mutex);
    void* extra = nullptr;
    if (xpy.PyUnstable_Code_GetExtra(code_object, index, &extra) < 0) {
        return false;
    }
    if (!is_own_code_extra_index(index)) {
        xpy._PyErr_BadInternalCall(__FILE_NAME__, __LINE__);
        return false;
    }
    old = Ref::share(static_cast<PyObject*>(extra));
    const bool replaces = old && old.get() != value;
    const bool replaces_record = replaces && is_instance_of(old.get(), record_class);
    if (kept != nullptr) {
        *kept = replaces_record;
        if (replaces_record) {
            return true;
        }
    }
    Ref owned = Ref::share(value);
    if (xpy.PyUnstable_Code_SetExtra(code_object, index, owned.get()) < 0) {
        if (xpy.PyErr_Occurred() == nullptr) {
            xpy.PyErr_NoMemory();  // before 3.14 the interpreter does not say so itself
        }
        return false;
    }
    static_cast<void>(owned.release());  // the slot's from now on
    if (is_free_threaded() && (replaces_record || (replaces && is_record_at(index, old.get())))) {
        // Another thread may be looking at the record without a lock; at that of another module object as well. Nothing
        // but a direct call of _Code_SetExtra() replaces one, so it can stay for good.
        static_cast<void>(old.release());
    }
    return true;
}

namespace {

Ref request_index(ModuleState& /*m*/, PyObject* /*self*/, const Argument* /*args*/) {
    const Py_ssize_t index = request_code_extra_index();
    if (index < 0 && xpy.PyErr_Occurred() != nullptr) {
        return {};
    }
    return new_int(index);
}

Ref get_extra(ModuleState& /*m*/, PyObject* /*self*/, const Argument* args) {
    CodeExtra extra = get_code_extra(args[0].object, args[1].integer);
    if (extra.failed) {
        return {};
    }
    return extra.value ? std::move(extra.value) : new_none();
}

Ref set_extra(ModuleState& m, PyObject* /*self*/, const Argument* args) {
    PyTypeObject* record_class = defined_class(m.globals.CPerCodeObject, "CPerCodeObject");
    const bool done = record_class != nullptr &&
                      set_code_extra(args[0].object, args[1].integer, args[2].object, record_class, nullptr);
    return done ? new_none() : Ref();
}

constexpr ParamDecl kGetParams[] = {{"code_object"}, {"index", ValueType::Integer}};
constexpr ParamDecl kSetParams[] = {{"code_object"}, {"index", ValueType::Integer}, {"value"}};

}  // namespace

const FunctionDecl kCodeRequestExtraIndexForOwnedRef = {
    "_Code_RequestExtraIndexForOwnedRef",
    {},
    request_index,
    "Reserves a slot in every code object that owns a reference to what is stored there. Returns its index, an int,\n"
    "or -1 where no slot is to be had."};

const FunctionDecl kCodeGetExtra = {
    "_Code_GetExtra", kGetParams, get_extra,
    "Returns the object in slot `index` (an int) of `code_object`, or None where there is none. Raises SystemError for\n"
    "what is no code object."};

const FunctionDecl kCodeSetExtra = {
    "_Code_SetExtra", kSetParams, set_extra,
    "Stores `value` in slot `index` (an int) of `code_object`, with a reference of its own. Returns None. Raises\n"
    "SystemError for what is no code object and for a slot that was not reserved here."};
