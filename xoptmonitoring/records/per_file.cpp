// CPerFile: the record of one source file, its registry by pathname and its groups by checksum.
//
// A record whose checksum is not None is in the group of that checksum and in no other. No lock spans a method: two
// threads that ask for one new pathname at once may both make a record; the later one stays registered, and the
// callback is told of both.
#include "xoptmonitoring/records/per_file.h"

#include "xoptmonitoring/pathnames/pathname_functions.h"
#include "xoptmonitoring/runtime/log_lines.h"

namespace per_file {
namespace {

using Data = PerFileData;
using ClassData = PerFileClassData;

#define FIELD(name, doc) \
    { #name, FieldType::Object, offsetof(Data, name), 0, doc }
constexpr FieldDecl kFields[] = {
    FIELD(fCanonicalPathname, "The pathname that the record was made for; None for pseudo names."),
    FIELD(fBpSetByLineno, "dict that the tracer keeps the file's breakpoints in, by line number."),
    FIELD(fKnownPerCodeObjects, "set of the CPerCodeObject records of the file's code."),
    FIELD(fChecksum, "The file's checksum as last given by the checksum callback, or None."),
};
#undef FIELD

constexpr FieldDecl kClassFields[] = {
    {"_fPerFileDict", FieldType::Dict, offsetof(ClassData, _fPerFileDict), 0, "dict: pathname -> CPerFile."},
    {"_fByChecksum", FieldType::Dict, offsetof(ClassData, _fByChecksum), 0,
     "dict: checksum -> set of the CPerFile records with that checksum."},
    {"_fNewPerFileCreatedCallback", FieldType::Object, offsetof(ClassData, _fNewPerFileCreatedCallback), 0,
     "Callable that is given each new record, or None."},
};

PyTypeObject* this_class(ModuleState& m) {
    return defined_class(m.globals.CPerFile, "CPerFile");
}

Data& data(PyObject* self) {
    return instance_data_as<Data>(self);
}

/// The registry or callback of the record's own class, which may be a subclass made in Python.
Ref class_slot(PyObject* self, PyObject* ClassData::*slot) {
    return load_class_slot(type_of(self), slot);
}

bool add_to_group(ModuleState& m, PyObject* self, PyObject* groups, PyObject* checksum, PyObject* group) {
    if (group != none()) {
        return static_cast<bool>(call_method(group, m.names.add, self));
    }
    const Ref fresh = Ref::steal(xpy.PySet_New(nullptr));
    return fresh && dict_set(groups, checksum, fresh.get()) && call_method(fresh.get(), m.names.add, self);
}

bool remove_from_group(ModuleState& m, PyObject* self, PyObject* groups, PyObject* checksum, PyObject* group) {
    if (group == none()) {
        return true;
    }
    if (!call_method(group, m.names.discard, self)) {
        return false;
    }
    const Py_ssize_t left = xpy.PyObject_Size(group);
    if (left != 0) {
        return left > 0;
    }
    return static_cast<bool>(dict_pop(groups, checksum, m.names.pop));
}

/// Enters the record into the group of `checksum`, or takes it out.
bool _UpdateByChecksum(ModuleState& m, PyObject* self, PyObject* checksum, bool remove) {
    if (checksum == none()) {
        return true;
    }
    const Ref groups = class_slot(self, &ClassData::_fByChecksum);
    const Ref group = groups ? dict_get(groups.get(), checksum, m.names.get) : Ref();
    if (!group) {
        return false;
    }
    return remove ? remove_from_group(m, self, groups.get(), checksum, group.get())
                  : add_to_group(m, self, groups.get(), checksum, group.get());
}

Ref creation_line(ModuleState& m, PyObject* pathname, PyObject* checksum) {
    const Ref checksum_text = Ref::steal(xpy.PyObject_Repr(checksum));
    if (!checksum_text) {
        return {};
    }
    if (m.literals.newline == nullptr) {
        raise_unset();
        return {};
    }
    return Ref::steal(xpy.PyUnicode_FromFormat("%U%S%U%S%U", m.literals.creating_per_file, pathname,
                                               m.literals.checksum_is, checksum_text.get(), m.literals.newline));
}

bool initialise(ModuleState& m, PyObject* self, PyObject* pathname) {
    store_field(self, data(self).fCanonicalPathname, Ref::share(pathname));
    Ref breakpoints = Ref::steal(xpy.PyDict_New());
    Ref known = breakpoints ? Ref::steal(xpy.PySet_New(nullptr)) : Ref();
    if (!known) {
        return false;
    }
    store_field(self, data(self).fBpSetByLineno, std::move(breakpoints));
    store_field(self, data(self).fKnownPerCodeObjects, std::move(known));
    const Ref checksum = checksum_of_record_pathname(m, pathname);
    if (!checksum) {
        return false;
    }
    store_field(self, data(self).fChecksum, Ref::share(checksum.get()));
    if (is_logging(m, load_global(m.globals.kLogCore)) &&
        !write_log_line(m, creation_line(m, pathname, checksum.get()))) {
        return false;
    }
    return _UpdateByChecksum(m, self, checksum.get(), false);
}

/// Asks for the checksum again and moves the record to the group of the new one.
bool UpdateChecksum(ModuleState& m, PyObject* self) {
    const Ref pathname = load_field(self, data(self).fCanonicalPathname);
    const Ref updated_checksum = pathname ? checksum_of_record_pathname(m, pathname.get()) : Ref();
    const Ref checksum = updated_checksum ? load_field(self, data(self).fChecksum) : Ref();
    if (!checksum) {
        return false;
    }
    const int changed = compare(updated_checksum.get(), checksum.get(), Py_NE);
    if (changed <= 0) {
        return changed == 0;
    }
    if (!_UpdateByChecksum(m, self, checksum.get(), true)) {
        return false;
    }
    store_field(self, data(self).fChecksum, Ref::share(updated_checksum.get()));
    return _UpdateByChecksum(m, self, updated_checksum.get(), false);
}

Ref GetPerFileSetForChecksum(ModuleState& m, PyTypeObject* cls, PyObject* checksum) {
    const Ref groups = load_class_slot(cls, &ClassData::_fByChecksum);
    Ref group = groups ? dict_get(groups.get(), checksum, m.names.get) : Ref();
    if (group && group.get() == none()) {
        return Ref::steal(xpy.PySet_New(nullptr));
    }
    return group;
}

/// Passes a per-file record or None on; anything else is a TypeError.
Ref checked_record(PyTypeObject* record_class, Ref value) {
    if (value && value.get() != none() && !is_instance_of(value.get(), record_class)) {
        raise_expected_or_none("CPerFile", value.get());
        return {};
    }
    return value;
}

/// Makes, stores and announces the record of a pathname that the registry lacks.
Ref make_record(PyTypeObject* cls, PyTypeObject* record_class, PyObject* pathname) {
    Ref per_file = checked_record(record_class, call(as_object(record_class), pathname));
    // The registry of this moment: the checksum callback may have replaced the one that was asked.
    const Ref registry = per_file ? load_class_slot(cls, &ClassData::_fPerFileDict) : Ref();
    if (!registry || !dict_set(registry.get(), pathname, per_file.get())) {
        return {};
    }
    const Ref callback = load_class_slot(cls, &ClassData::_fNewPerFileCreatedCallback);
    if (!callback || (callback.get() != none() && !call(callback.get(), per_file.get()))) {
        return {};
    }
    return per_file;
}

Ref none_or_error(bool done) {
    return done ? new_none() : Ref();
}

constexpr ParamDecl kGetPerFileParams[] = {{"pathname"}, {"create", ValueType::Bool, Default::True}};
constexpr ParamDecl kChecksumParams[] = {{"checksum", ValueType::Str}};
constexpr ParamDecl kCallbackParams[] = {{"callback"}};
constexpr ParamDecl kInitParams[] = {{"pathname"}};
constexpr ParamDecl kUpdateParams[] = {{"checksum", ValueType::StrOrNone, Default::None},
                                       {"remove", ValueType::Bool, Default::False}};

constexpr FunctionDecl kMethods[] = {
    {"GetPerFile", kGetPerFileParams,
     [](ModuleState& m, PyObject* cls, const Argument* args) {
         return GetPerFile(m, as_type(cls), args[0].object, args[1].object == xpy._Py_TrueStruct);
     },
     "Returns the CPerFile of `pathname` (any hashable object, normally a canonical pathname). A missing one is made\n"
     "and announced where `create` (a bool) is true; else None is returned. Raises what the checksum callback and\n"
     "the new-record callback raise.",
     Binding::Class},
    {"GetPerFileSetForChecksum", kChecksumParams,
     [](ModuleState& m, PyObject* cls, const Argument* args) {
         return GetPerFileSetForChecksum(m, as_type(cls), args[0].object);
     },
     "Returns the set of the records whose checksum is the str `checksum`: the registry's own set, or a new empty\n"
     "one.",
     Binding::Class},
    {"GetAllPerFiles",
     {},
     [](ModuleState& m, PyObject* cls, const Argument* /*args*/) {
         const Ref registry = load_class_slot(as_type(cls), &ClassData::_fPerFileDict);
         return registry ? values_snapshot(registry.get(), m.names.values) : Ref();
     },
     "Returns a new list of all records.",
     Binding::Class},
    {"SetNewPerFileCreatedCallback", kCallbackParams,
     [](ModuleState& /*m*/, PyObject* cls, const Argument* args) {
         return none_or_error(xpy.PyObject_SetAttrString(cls, "_fNewPerFileCreatedCallback", args[0].object) == 0);
     },
     "Sets the callable that is given each new record; `callback` None switches that off. Returns None.",
     Binding::Class},
    {"__init__", kInitParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         return none_or_error(initialise(m, self, args[0].object));
     },
     "Makes the record of `pathname`, asks for its checksum and enters it into the group of that. Raises what the\n"
     "checksum callback raises. GetPerFile also registers what it makes.",
     Binding::Instance},
    {"UpdateChecksum",
     {},
     [](ModuleState& m, PyObject* self, const Argument* /*args*/) { return none_or_error(UpdateChecksum(m, self)); },
     "Asks for the checksum again, since the file may have changed, and moves the record to the group of the new\n"
     "one. Returns None. Raises what the checksum callback raises, and changes nothing then.",
     Binding::Instance},
    {"_UpdateByChecksum", kUpdateParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         return none_or_error(_UpdateByChecksum(m, self, args[0].object, args[1].object == xpy._Py_TrueStruct));
     },
     "Enters the record into the group of `checksum` (a str or None), or takes it out where `remove` (a bool) is\n"
     "true. Returns None.",
     Binding::Instance},
};

constexpr ClassDecl kClass = {
    CLASS_NAMES(CPerFile),
    "The record of one source file, by canonical pathname: its breakpoints, the records of its code objects and its\n"
    "content checksum.",
    sizeof(Data),
    kFields,
    sizeof(ClassData),
    kClassFields,
    kMethods};

}  // namespace

Ref GetPerFile(ModuleState& m, PyTypeObject* cls, PyObject* pathname, bool create_missing) {
    PyTypeObject* record_class = this_class(m);
    const Ref registry = record_class != nullptr ? load_class_slot(cls, &ClassData::_fPerFileDict) : Ref();
    if (!registry) {
        return {};
    }
    Ref per_file = checked_record(record_class, dict_get(registry.get(), pathname, m.names.get));
    if (!per_file || per_file.get() != none() || !create_missing) {
        return per_file;
    }
    return make_record(cls, record_class, pathname);
}

Ref known_per_code_objects(ModuleState& m, PyObject* per_file) {
    const Data* record = record_data<Data>(per_file, this_class(m), "CPerFile");
    return record != nullptr ? load_field(per_file, record->fKnownPerCodeObjects) : Ref();
}

bool reset(ModuleState& m) {
    PyTypeObject* cls = this_class(m);
    if (cls == nullptr) {
        return false;
    }
    for (PyObject* ClassData::*slot : {&ClassData::_fPerFileDict, &ClassData::_fByChecksum}) {
        const Ref dict = load_class_slot(cls, slot);
        if (!dict || !call_method(dict.get(), m.names.clear)) {
            return false;
        }
    }
    store_class_slot(cls, &ClassData::_fNewPerFileCreatedCallback, new_none());
    return true;
}

Ref create(ModuleState& m) {
    Ref cls = create_class(m, blueprint<kClass>(), m.types.CPerFile_class);
    Ref by_name = cls ? Ref::steal(xpy.PyDict_New()) : Ref();
    Ref by_checksum = by_name ? Ref::steal(xpy.PyDict_New()) : Ref();
    if (!by_checksum) {
        return {};
    }
    store_class_slot(as_type(cls.get()), &ClassData::_fPerFileDict, std::move(by_name));
    store_class_slot(as_type(cls.get()), &ClassData::_fByChecksum, std::move(by_checksum));
    store_class_slot(as_type(cls.get()), &ClassData::_fNewPerFileCreatedCallback, new_none());
    return cls;
}

}  // namespace per_file
