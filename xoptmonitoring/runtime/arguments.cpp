// Argument binding for fast calls.
#include "xoptmonitoring/runtime/arguments.h"

#include <cstdlib>
#include <string_view>

namespace {

/// Which keywords of the call a row has taken.
class UsedFlags {
  public:
    explicit UsedFlags(Py_ssize_t count) noexcept
        : flags_(static_cast<bool*>(std::calloc(static_cast<std::size_t>(count) + 1, sizeof(bool)))) {}
    ~UsedFlags() {
        std::free(flags_);
    }
    UsedFlags(const UsedFlags&) = delete;
    UsedFlags& operator=(const UsedFlags&) = delete;
    UsedFlags(UsedFlags&&) = delete;
    UsedFlags& operator=(UsedFlags&&) = delete;

    bool failed() const noexcept {
        return flags_ == nullptr;
    }
    bool at(Py_ssize_t index) const noexcept {
        return flags_[index];
    }
    void set(Py_ssize_t index) noexcept {
        flags_[index] = true;
    }

  private:
    bool* flags_;  // one more than needed, so that none is no special case
};

void raise_type_error(const char* message) {
    xpy.PyErr_SetString(xpy.PyExc_TypeError, message);
}

/// Whether the keyword `name` is spelled exactly like `wanted`. A name without a UTF-8 form matches nothing.
bool keyword_is(PyObject* name, const char* wanted) {
    Py_ssize_t size = 0;
    const char* text = xpy.PyUnicode_AsUTF8AndSize(name, &size);
    if (text == nullptr) {
        xpy.PyErr_Clear();
        return false;
    }
    return std::string_view(text, static_cast<std::size_t>(size)) == wanted;
}

/// Index of the keyword spelled like `wanted`, or -1.
Py_ssize_t find_keyword(PyObject* kwnames, Py_ssize_t count, const char* wanted) {
    for (Py_ssize_t index = 0; index < count; ++index) {
        if (keyword_is(xpy.PyTuple_GetItem(kwnames, index), wanted)) {
            return index;
        }
    }
    return -1;
}

/// Collects the keywords that no row took into a new dict, or refuses them.
bool finish_keywords(PyObject* const* values, PyObject* kwnames, Py_ssize_t count, const UsedFlags& used,
                     Ref* collected) {
    if (collected != nullptr) {
        *collected = Ref::steal(xpy.PyDict_New());
        if (!*collected) {
            return false;
        }
    }
    for (Py_ssize_t index = 0; index < count; ++index) {
        if (used.at(index)) {
            continue;
        }
        if (collected == nullptr) {
            raise_type_error("Excess keyword arguments passed to function");
            return false;
        }
        if (xpy.PyDict_SetItem(collected->get(), xpy.PyTuple_GetItem(kwnames, index), values[index]) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool XPy_GetFastArgs(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, const tFastArgInfo* rows,
                     ExtraArguments extra) {
    const Py_ssize_t keyword_count = kwnames == nullptr ? 0 : xpy.PyTuple_Size(kwnames);
    UsedFlags used(keyword_count);
    if (used.failed()) {
        xpy.PyErr_NoMemory();
        return false;
    }
    Py_ssize_t positional_limit = 0;
    for (const tFastArgInfo* row = rows; row->name != nullptr; ++row) {
        PyObject* value = nullptr;
        if (row->pos >= 0) {
            positional_limit = row->pos >= positional_limit ? row->pos + 1 : positional_limit;
            value = row->pos < nargs ? args[row->pos] : nullptr;
        }
        const Py_ssize_t keyword = find_keyword(kwnames, keyword_count, row->name);
        if (keyword >= 0) {
            if (value != nullptr) {
                raise_type_error("argument has both a positional value and a keyword value");
                return false;
            }
            value = args[nargs + keyword];
            used.set(keyword);
        }
        if (value == nullptr) {
            if (!row->has_default) {
                raise_type_error("argument is missing");
                return false;
            }
            continue;
        }
        if (!XPy_StoreMemberValue(row->member_type, value, row->value_ptr)) {
            return false;
        }
    }
    if (nargs > positional_limit && !extra.positional) {
        raise_type_error("Excess positional arguments passed to function");
        return false;
    }
    return finish_keywords(args + nargs, kwnames, keyword_count, used, extra.keywords);
}
