// Fuzz targets for the native parts that take bytes and formats, run inside a live interpreter by run_fuzzer.py.
//
// Each target builds its case from the input's bytes, calls the module's own function and compares what that says with
// a second, plainer account of the same rule. The sanitizers watch meanwhile.

#include "xoptmonitoring/binding/xpy_c_api.h"
#include "xoptmonitoring/binding/xpy_layouts.h"
#include "xoptmonitoring/pathnames/pathname_kinds.h"
#include "xoptmonitoring/runtime/arguments.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using Target = int (*)(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerRunDriver(int* argument_count, char*** arguments, Target target);
extern "C" [[gnu::visibility("default")]] int run_fuzzer(const char* target, PyObject* module, int argument_count,
                                                         char** arguments);

namespace {

/// The module under test, borrowed.
PyObject* gModule = nullptr;

/// Ends the run; the fuzzer keeps the input that led here.
[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "fuzz target: %s\n", what);
    std::abort();
}

void require(bool holds, const char* what) {
    if (!holds) {
        fail(what);
    }
}

/// The input, read from its beginning; zeros once it is used up.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

    unsigned byte() {
        if (left_ == 0) {
            return 0;
        }
        --left_;
        return *data_++;
    }
    unsigned below(unsigned limit) {
        return byte() % limit;
    }
    unsigned word() {
        const unsigned high = byte();
        return high << 8U | byte();
    }
    std::string rest() {
        std::string text(reinterpret_cast<const char*>(data_), left_);
        left_ = 0;
        return text;
    }
    std::string text(std::size_t limit) {
        std::string text(below(static_cast<unsigned>(limit) + 1), '\0');
        for (char& character : text) {
            character = static_cast<char>(byte());
        }
        return text;
    }

  private:
    const std::uint8_t* data_;
    std::size_t left_;
};

Ref checked(PyObject* object, const char* what) {
    if (object == nullptr) {
        xpy.PyErr_Print();
        fail(what);
    }
    return Ref::steal(object);
}

/// The pending exception's text, taken away; its class has to be the one given.
std::string take_exception(PyObject* expected_type) {
    require(xpy.PyErr_Occurred() != nullptr, "a failure without an exception");
    require(xpy.PyErr_ExceptionMatches(expected_type) != 0, "an exception of another class");
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    xpy.PyErr_Fetch(&type, &value, &traceback);
    const Ref type_ref = Ref::steal(type);
    const Ref value_ref = Ref::steal(value);
    const Ref traceback_ref = Ref::steal(traceback);
    const Ref text = checked(xpy.PyObject_Str(value), "an exception without a text");
    return xpy.PyUnicode_AsUTF8(text.get());
}

// ---- layouts ----

/// Where a field lies, worked out with every size known to be small: the plain account.
Py_ssize_t plain_offset(const char* name, const std::vector<XPy_FieldWithSize>& rows, std::int64_t type_offset) {
    Py_ssize_t at = 0;
    for (std::size_t index = 0; rows[index].name != nullptr; ++index) {
        Py_ssize_t size = rows[index].size;
        const std::string row = rows[index].name;
        if (row == "<PyObject_HEAD>" || row == "<PyObject_VAR_HEAD>") {
            size = type_offset > 0 ? type_offset + 8 + (row == "<PyObject_VAR_HEAD>" ? 8 : 0) : -1;
        }
        if (size <= 0) {
            return -1;
        }
        const Py_ssize_t alignment = size < 8 ? size : 8;
        while (index != 0 && at % alignment != 0) {
            ++at;
        }
        if (name != nullptr && row == name) {
            return at;
        }
        at += size;
    }
    return name == nullptr ? at : -1;
}

constexpr std::array kFieldNames = {"a", "b", "", "ob_type", "<PyObject_HEAD>", "<PyObject_VAR_HEAD>"};

void look_up_in_a_made_up_table(Input& input) {
    const std::int64_t type_offset = static_cast<std::int64_t>(input.below(6)) * 8 - 8;
    const unsigned wanted = input.below(kFieldNames.size() + 1);
    const char* name = wanted < kFieldNames.size() ? kFieldNames[wanted] : nullptr;
    std::vector<XPy_FieldWithSize> rows;
    for (unsigned count = input.below(24); count != 0; --count) {
        const char* row_name = kFieldNames[input.below(kFieldNames.size())];
        rows.push_back({row_name, static_cast<std::int16_t>(input.word())});
    }
    rows.push_back({nullptr, static_cast<std::int16_t>(input.word())});

    xpy.pyobject_offsets.type = type_offset;
    const Py_ssize_t offset = FindFieldOffsetMissingOk(name, rows.data());
    require(offset == plain_offset(name, rows, type_offset), "a field lies elsewhere");
}

/// Every offset is absent, or within a structure of some size.
template <class Offsets>
void check_offsets(const Offsets& offsets) {
    std::array<std::int64_t, sizeof(Offsets) / sizeof(std::int64_t)> words{};
    std::memcpy(words.data(), &offsets, sizeof offsets);
    for (const std::int64_t word : words) {
        require(word >= -1 && word < 1024 * 1024, "an offset of no structure");
    }
}

void learn_a_made_up_interpreter(Input& input) {
    xpy.major_version = input.below(4) == 0 ? 2 : 3;
    xpy.minor_version = xpy.major_version == 2 ? 7 : static_cast<std::int32_t>(input.below(15));
    xpy.pydebug_build = input.below(2) != 0 ? 1 : 0;
    const bool free_threaded = input.below(2) != 0;
    forget_layouts();
    learn_object_layout(free_threaded);
    learn_frame_layouts();
    check_offsets(xpy.pyobject_offsets);
    check_offsets(xpy.tstate_offsets);
    check_offsets(xpy.frame_offsets);
    check_offsets(xpy.interpreter_state_offsets);
    check_offsets(xpy.cframe_offsets);
    check_offsets(xpy.typeobject_offsets);
    require(xpy.pyobject_offsets.type > 0, "no type in an object's header");
    require(xpy.tstate_offsets.interp > 0, "no interpreter in a thread state");
}

int fuzz_layouts(const std::uint8_t* data, std::size_t size) {
    XPy_C_API_Data saved{};
    std::memcpy(&saved, &xpy, sizeof xpy);
    const std::int64_t saved_exc_info = tstate_exc_info_offset;
    Input input(data, size);
    if (input.below(4) == 0) {
        learn_a_made_up_interpreter(input);
    } else {
        look_up_in_a_made_up_table(input);
    }
    std::memcpy(&xpy, &saved, sizeof xpy);
    tstate_exc_info_offset = saved_exc_info;
    return 0;
}

// ---- argument binding ----

/// One parameter, where its value goes, and what the plain account says of it.
struct Parameter {
    std::string name;
    int position;
    bool has_default;
    int member_type;
    Argument value;
    Argument expected;
};

constexpr std::array kMemberTypes = {Py_T_OBJECT_EX, Py_T_PYSSIZET, Py_T_INT};

/// A name out of few, so that names meet; sometimes one that is made of the input.
std::string any_name(Input& input) {
    const unsigned choice = input.below(8);
    return choice == 7 ? input.text(6) : choice == 6 ? "" : std::string(1, static_cast<char>('a' + choice));
}

/// A str of those bytes; what is no UTF-8 becomes lone surrogates, which no UTF-8 stands for.
Ref text_object(const std::string& bytes) {
    const auto size = static_cast<Py_ssize_t>(bytes.size());
    return checked(xpy.PyUnicode_DecodeUTF8(bytes.data(), size, "surrogateescape"), "no text");
}

Ref any_value(Input& input) {
    switch (input.below(7)) {
        case 0:
            return Ref::share(none());
        case 1:
            return checked(xpy.PyLong_FromSsize_t(static_cast<std::int16_t>(input.word())), "no int");
        case 2:
            return checked(xpy.PyObject_CallFunctionObjArgs(reinterpret_cast<PyObject*>(xpy.PyList_Type_ptr), nullptr),
                           "no list");
        case 3:
            return text_object(input.text(5));
        case 4:
            return Ref::share(xpy._Py_TrueStruct);
        case 5: {
            const Ref word = checked(xpy.PyLong_FromSsize_t(INTPTR_MAX), "no int");
            return checked(xpy.PyNumber_Add(word.get(), word.get()), "no int");
        }
        default:
            return checked(xpy.PyLong_FromSsize_t(-1), "no int");
    }
}

/// Whether a value can be stored as the parameter's type; the stored value is put down as the expected one.
bool convert(Parameter& parameter, PyObject* value) {
    if (parameter.member_type == Py_T_OBJECT_EX) {
        parameter.expected.object = value;
        return true;
    }
    if (parameter.member_type == Py_T_INT) {
        parameter.expected.truth = xpy.PyObject_IsTrue(value);
        return true;
    }
    const Py_ssize_t word = xpy.PyLong_AsSsize_t(value);
    if (word == -1 && xpy.PyErr_Occurred() != nullptr) {
        xpy.PyErr_Clear();
        return false;
    }
    parameter.expected.integer = word;
    return true;
}

/// How a call ends by the plain account: empty for success, the text of a TypeError, or "?" for any refusal.
std::string plain_binding(std::vector<Parameter>& parameters, const std::vector<Ref>& values, std::size_t positional,
                          const std::vector<Ref>& names, const ExtraArguments& extra) {
    std::vector<bool> used(names.size());
    std::size_t limit = 0;
    for (Parameter& parameter : parameters) {
        PyObject* given = nullptr;
        if (parameter.position >= 0) {
            const auto position = static_cast<std::size_t>(parameter.position);
            limit = position + 1 > limit ? position + 1 : limit;
            given = position < positional ? values[position].get() : nullptr;
        }
        const Ref wanted = text_object(parameter.name);
        for (std::size_t index = 0; index < names.size(); ++index) {
            const Ref same =
                checked(xpy.PyObject_RichCompare(names[index].get(), wanted.get(), Py_EQ), "no comparison");
            // A row's name is C text; one that is no UTF-8 is the name of nothing.
            const bool is_name =
                same.get() == xpy._Py_TrueStruct && xpy.PyUnicode_AsUTF8(names[index].get()) != nullptr;
            xpy.PyErr_Clear();
            if (!is_name) {
                continue;
            }
            if (given != nullptr) {
                return "argument has both a positional value and a keyword value";
            }
            given = values[positional + index].get();
            used[index] = true;
            break;
        }
        if (given == nullptr && !parameter.has_default) {
            return "argument is missing";
        }
        if (given != nullptr && !convert(parameter, given)) {
            return "?";
        }
    }
    if (positional > limit && !extra.positional) {
        return "Excess positional arguments passed to function";
    }
    for (std::size_t index = 0; index < names.size(); ++index) {
        if (!used[index] && extra.keywords == nullptr) {
            return "Excess keyword arguments passed to function";
        }
    }
    return "";
}

std::vector<Parameter> any_parameters(Input& input) {
    std::vector<Parameter> parameters(input.below(6));
    int position = 0;
    for (Parameter& parameter : parameters) {
        parameter.name = any_name(input);
        parameter.name = parameter.name.c_str();  // a row's name ends at the first zero
        parameter.position = input.below(5) == 0 ? -1 : position++;
        parameter.has_default = input.below(2) != 0;
        parameter.member_type = kMemberTypes[input.below(kMemberTypes.size())];
        parameter.value.integer = -77;
        parameter.expected.integer = -77;
    }
    return parameters;
}

int fuzz_arguments(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    std::vector<Parameter> parameters = any_parameters(input);
    std::vector<tFastArgInfo> rows;
    for (Parameter& parameter : parameters) {
        rows.push_back({parameter.name.c_str(), parameter.position, parameter.has_default, parameter.member_type,
                        &parameter.value});
    }
    rows.push_back({});

    const std::size_t positional = input.below(7);
    std::vector<Ref> names;
    const bool has_names = input.below(3) != 0;
    for (unsigned count = has_names ? input.below(5) : 0; count != 0; --count) {
        names.push_back(text_object(any_name(input)));
    }
    std::vector<Ref> values;
    std::vector<PyObject*> vector;  // exactly as long as it has to be
    for (std::size_t index = 0; index < positional + names.size(); ++index) {
        values.push_back(any_value(input));
        vector.push_back(values.back().get());
    }
    vector.shrink_to_fit();
    Ref kwnames;
    if (has_names) {
        kwnames = checked(xpy.PyTuple_New(static_cast<Py_ssize_t>(names.size())), "no tuple");
        for (std::size_t index = 0; index < names.size(); ++index) {
            PyObject* name = Ref::share(names[index].get()).release();
            require(xpy.PyTuple_SetItem(kwnames.get(), static_cast<Py_ssize_t>(index), name) == 0, "no tuple item");
        }
    }
    Ref collected;
    ExtraArguments extra;
    extra.positional = input.below(2) != 0;
    extra.keywords = input.below(2) != 0 ? &collected : nullptr;

    const std::string expected = plain_binding(parameters, values, positional, names, extra);
    const bool bound =
        XPy_GetFastArgs(vector.data(), static_cast<Py_ssize_t>(positional), kwnames.get(), rows.data(), extra);
    require(bound == expected.empty(), bound ? "bound what is to be refused" : "refused what is to be bound");
    if (!bound) {
        PyObject* const type = expected == "?" ? xpy.PyExc_Exception : xpy.PyExc_TypeError;
        const std::string text = take_exception(type);
        require(expected == "?" || text == expected, "refused for another reason");
        return 0;
    }
    require(xpy.PyErr_Occurred() == nullptr, "success with an exception");
    for (const Parameter& parameter : parameters) {
        const bool same = parameter.member_type == Py_T_INT ? parameter.value.truth == parameter.expected.truth
                                                            : parameter.value.integer == parameter.expected.integer;
        require(same, "another value is bound");
    }
    require(extra.keywords == nullptr || static_cast<bool>(collected), "no dictionary of the other keywords");
    return 0;
}

// ---- pathnames ----

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

int plain_kind(const std::string& bytes) {
    const bool closed = !bytes.empty() && bytes.back() == '>';
    if (closed && starts_with(bytes, "<frozen ")) {
        return kFrozenImportLibPathname;
    }
    if (bytes.empty() || (closed && bytes.front() == '<')) {
        return kPseudoPathname;
    }
    return starts_with(bytes, "x-vornide-python-shell://") ? kVornShellPathname : kRegularPathname;
}

/// A name out of parts that mean something, or of bytes.
std::string any_pathname(Input& input) {
    static const std::array<std::string, 18> parts = {
        "/",    "\\",  ".",  "..", "<", ">",    "<frozen ", "x-vornide-python-shell://", ".pyc",
        ".PYO", ".py", "C:", "?",  "a", "/usr", "\xc3\xa9", "\xf0\x9f\x90\x8d",          " "};
    std::string made;
    for (unsigned count = input.below(8); count != 0; --count) {
        made += parts[input.below(parts.size())];
    }
    return made + input.text(4);
}

Ref module_attribute(PyObject* object, const char* name) {
    return checked(xpy.PyObject_GetAttrString(object, name), name);
}

/// `object.name(argument)`; empty where that raises ValueError, as the system does for names that it cannot take.
Ref call_with(PyObject* object, const char* name, PyObject* argument) {
    const Ref method = module_attribute(object, name);
    Ref result = Ref::steal(xpy.PyObject_CallFunctionObjArgs(method.get(), argument, nullptr));
    if (!result) {
        take_exception(xpy.PyExc_ValueError);
    }
    return result;
}

std::string utf8_or_nothing(PyObject* text) {
    const char* bytes = xpy.PyUnicode_AsUTF8(text);
    xpy.PyErr_Clear();
    return bytes == nullptr ? "" : bytes;
}

bool is_equal(const Ref& left, const Ref& right) {
    const Ref same = checked(xpy.PyObject_RichCompare(left.get(), right.get(), Py_EQ), "no comparison");
    return same.get() == xpy._Py_TrueStruct;
}

/// Whether a name is absolute on win32 in a form that needs no look at the working directory.
bool plain_is_obvious_on_win32(const std::string& ascii) {
    const auto separates = [&ascii](std::size_t at) {
        return at < ascii.size() && std::strchr("/\\", ascii[at]) != nullptr;
    };
    if (separates(0) && separates(1)) {
        if (ascii.size() > 3 && ascii[2] == '?' && separates(3)) {
            return true;
        }
        int separators = 0;
        for (std::size_t at = 2; at < ascii.size(); ++at) {
            separators += separates(at) ? 1 : 0;
        }
        if (separators >= 2) {
            return true;
        }
    }
    return ascii.size() > 2 && ascii[1] == ':' && separates(2);
}

bool is_ascii(const std::string& bytes) {
    for (const char character : bytes) {
        if (character == '\0' || static_cast<unsigned char>(character) > 0x7f) {
            return false;
        }
    }
    return true;
}

void check_on_win32(PyObject* manager, PyObject* pathname, const std::string& bytes) {
    const Ref sys = module_attribute(gModule, "sys");
    const Ref platform = module_attribute(sys.get(), "platform");
    const Ref win32 = text_object("win32");
    require(xpy.PyObject_SetAttrString(sys.get(), "platform", win32.get()) == 0, "sys.platform stays");
    const Ref obvious = call_with(manager, "_IsObviousAbsPathname", pathname);
    const Ref absolute = call_with(manager, "_GetAbsnameForCanonical", pathname);
    const Ref canonical = call_with(manager, "Get", pathname);
    require(xpy.PyObject_SetAttrString(sys.get(), "platform", platform.get()) == 0, "sys.platform stays");
    require(static_cast<bool>(obvious), "not to be told whether a name is absolute");
    if (is_ascii(bytes)) {
        const bool expected = plain_is_obvious_on_win32(bytes);
        require((obvious.get() == xpy._Py_TrueStruct) == expected, "obvious on win32, or not");
    }
}

void check_canonical(PyObject* manager, const Ref& pathname, int kind) {
    const Ref canonical = call_with(manager, "Get", pathname.get());
    if (!canonical) {
        return;  // the system cannot take it
    }
    if (kind == kPseudoPathname) {
        require(canonical.get() == none(), "a pseudo name has a canonical form");
        return;
    }
    if (kind != kRegularPathname) {
        require(is_equal(canonical, pathname), "a name that is none of a file has another canonical form");
        return;
    }
    require(utf8_or_nothing(canonical.get()).substr(0, 1) != ".", "a canonical form that is relative");
    // "a.pyc/" ends compiled only once it is made absolute, and pruning comes before that.
    const Ref pruned = call_with(manager, "_PrunePycPyo", canonical.get());
    if (is_equal(pruned, canonical)) {
        const Ref again = call_with(manager, "Get", canonical.get());
        require(again && is_equal(again, canonical), "the canonical form has another canonical form");
    }
    const Ref found = call_with(manager, "Lookup", pathname.get());
    require(found && is_equal(found, canonical), "another form is looked up than was registered");
}

int fuzz_pathnames(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const bool on_win32 = input.below(3) == 0;
    const std::string bytes = any_pathname(input);
    const Ref pathname = text_object(bytes);
    const Ref reset = module_attribute(gModule, "reset");
    static_cast<void>(checked(xpy.PyObject_CallFunctionObjArgs(reset.get(), nullptr), "reset"));
    const Ref manager = module_attribute(gModule, "_gCanonicalPathnameMgr");

    const Ref kind = call_with(gModule, "GetPathnameKind", pathname.get());
    const int expected = plain_kind(bytes);
    require(kind && xpy.PyLong_AsLong(kind.get()) == expected, "a name of another kind");
    if (on_win32) {
        check_on_win32(manager.get(), pathname.get(), bytes);
        return 0;
    }
    check_canonical(manager.get(), pathname, expected);
    return 0;
}

struct NamedTarget {
    const char* name;
    Target run;
};
constexpr NamedTarget kTargets[] = {
    {"layouts", fuzz_layouts},
    {"arguments", fuzz_arguments},
    {"pathnames", fuzz_pathnames},
};

}  // namespace

/// Runs the target of that name on the calling thread, which holds the interpreter's lock. Returns the fuzzer's exit
/// status, if it returns at all, or 2 where there is no such target.
int run_fuzzer(const char* target, PyObject* module, int argument_count, char** arguments) {
    gModule = module;
    for (const NamedTarget& known : kTargets) {
        if (std::strcmp(known.name, target) == 0) {
            return LLVMFuzzerRunDriver(&argument_count, &arguments, known.run);
        }
    }
    return 2;
}
