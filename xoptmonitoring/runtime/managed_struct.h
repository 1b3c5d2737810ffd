// Managed structs: objects whose fields live in a data block of their class, described by a member table.
//
// The same table serves instances of the module's classes, the class-level records that their metaclasses carry, and
// the module's function objects: traversal, clearing, finalisation and attribute access are all read off it.
#pragma once

#include "xoptmonitoring/runtime/locks.h"
#include "xoptmonitoring/runtime/python_calls.h"

#include <cstddef>
#include <span>

/// How a field is stored and what may be assigned to it.
enum class FieldType {
    Object,  ///< any object; PyObject*, owned
    Dict,    ///< a dict; PyObject*, owned
    Int,     ///< a signed machine word; Py_ssize_t
    Bool,    ///< True or False; std::int32_t
};

inline constexpr int kReadOnlyField = Py_READONLY;
inline constexpr int kFinalField = 2;   ///< set once
inline constexpr int kHiddenField = 4;  ///< kept, visited and cleared, but no attribute

/// One field of a data block.
struct FieldDecl {
    const char* name;
    FieldType type;
    std::size_t offset;  ///< within the data block
    int flags;
    const char* doc;
    /// For an Int: called with the data block after each assignment, for what is derived from the field.
    void (*changed)(void* data) = nullptr;
    /// For an Object: called with what an assignment or the finaliser has taken out of the field, before it is dropped;
    /// for who uses it without a reference. What `clear_members` and the interpreter drop later is used by nobody.
    void (*let_go)(PyObject* old) = nullptr;
};

constexpr bool is_object_field(const FieldDecl& field) {
    return field.type == FieldType::Object || field.type == FieldType::Dict;
}

/// Address of a field in a data block.
template <class Value>
Value& field_at(void* data, const FieldDecl& field) {
    return *reinterpret_cast<Value*>(static_cast<char*>(data) + field.offset);
}

/// Visits the object fields of a data block, for the garbage collector.
int XPy_VisitDataObjrefMembers(void* data, std::span<const FieldDecl> fields, visitproc visit, void* arg);

/// Empties the object fields of a data block; each is null before what it held is dropped.
void clear_members(void* data, std::span<const FieldDecl> fields);

/// What finalising an object does: the base type's finaliser first, then every object field is emptied. The pending
/// exception is left alone; one that a base finaliser leaves behind is reported under `where` and not propagated.
void finalize_members(PyObject* self, PyTypeObject* base, void* data, std::span<const FieldDecl> fields,
                      const char* where);

/// Value of a field as a Python object; AttributeError "Attribute error" where an object field holds nothing.
/// `owner` is the object whose lock guards the field.
Ref read_member(PyObject* owner, void* data, const FieldDecl& field);

/// Sets a field as an attribute assignment does: checked by its type, refused where it is read-only or final, and
/// never deleted. Returns 0, or -1 with an exception set.
int write_member(PyObject* owner, void* data, const FieldDecl& field, PyObject* value);

/// Replaces what `slot`, the field's place in the data block, holds.
void replace_member(PyObject* owner, PyObject*& slot, const FieldDecl& field, Ref value);

/// Raises AttributeError "readonly attribute: NAME".
XPY_COLD void raise_readonly(const char* name);

/// Raises TypeError "deletion not supported".
XPY_COLD void raise_no_deletion();

/// Object field of a data block, by reference: a new reference, or AttributeError "Attribute error".
Ref load_field(PyObject* owner, PyObject* const& slot);

/// Replaces an object field.
inline void store_field(PyObject* owner, PyObject*& slot, Ref value) {
    put_slot(owner, slot, std::move(value));
}
