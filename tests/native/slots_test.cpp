// Every slot of the list, held against what the running interpreter really exports.

#include "xoptmonitoring/binding/xpy_fallbacks.h"

#include <algorithm>
#include <dlfcn.h>
#include <unistd.h>
#include <vector>

#include "live_interpreter.h"

namespace {

enum class Need { REQUIRED, ON_2, ON_3, OFFERED, OFFERED_ON_3, OPTIONAL };

/// One entry of the list: what the record holds, and what may stand there.
struct SlotState {
    Need need;
    std::string name;
    const void* held;
    const void* exported;            // what the interpreter offers under the name, read as the slot reads it
    const void* fallback = nullptr;  // what takes the place of a missing function
    const void* older = nullptr;     // what the interpreter offers under the function's older name
};

template <class Function>
const void* as_pointer(Function* function) {
    return reinterpret_cast<const void*>(function);
}

const void* exported_function(const std::string& name) {
    return dlsym(RTLD_DEFAULT, name.c_str());
}

const void* exported_unicode(const std::string& suffix) {
    for (const char* infix : {"", "UCS2", "UCS4"}) {
        if (const void* found = exported_function("PyUnicode" + (infix + suffix))) {
            return found;
        }
    }
    return nullptr;
}

enum class Read { ADDRESS, VALUE };

const void* exported_data(Read read, const std::string& name) {
    void* found = dlsym(RTLD_DEFAULT, name.c_str());
    return found != nullptr && read == Read::VALUE ? *static_cast<void**>(found) : found;
}

std::vector<SlotState> all_slots() {
    std::vector<SlotState> slots;
#define XPY_SLOT(need, result, name, parameters) \
    slots.push_back({Need::need, #name, as_pointer(xpy.name), exported_function(#name)});
#define XPY_FOUND(result, name, parameters)                                                                 \
    if (std::string(#name) != "Py_InitModule") {                                                            \
        slots.push_back({Need::ON_3, #name, as_pointer(xpy.name), exported_function(#name)});               \
    } else {                                                                                                \
        slots.push_back({Need::ON_2, #name, as_pointer(xpy.name), exported_function("Py_InitModule4_64")}); \
    }
#define XPY_BACKED(need, backup, result, name, parameters) \
    slots.push_back({Need::need, #name, as_pointer(xpy.name), exported_function(#name), as_pointer(&backup)});
#define XPY_OLDER(older, backup, result, name, parameters)                                                       \
    slots.push_back({Need::OPTIONAL, #name, as_pointer(xpy.name), exported_function(#name), as_pointer(&backup), \
                     exported_function(#older)});
#define XPY_UNICODE(need, result, name, suffix, parameters) \
    slots.push_back({Need::need, #name, as_pointer(xpy.name), exported_unicode(suffix)});
#define XPY_UNICODE_BACKED(backup, result, name, suffix, parameters) \
    slots.push_back({Need::OPTIONAL, #name, as_pointer(xpy.name), exported_unicode(suffix), as_pointer(&backup)});
#define XPY_DATA(need, read, type, name) \
    slots.push_back({Need::need, #name, xpy.name, exported_data(Read::read, #name)});
#define XPY_TYPE(need, name) slots.push_back({Need::need, #name, xpy.name##_ptr, exported_data(Read::ADDRESS, #name)});
#include "xoptmonitoring/binding/xpy_api_slots.def"
    return slots;
}

class Slots : public LiveInterpreterTest {};

TEST_F(Slots, a_name_that_this_generation_requires_is_held_as_exported) {
    int checked = 0;
    for (const SlotState& slot : all_slots()) {
        const bool is_of_3 = slot.need == Need::ON_3 || slot.need == Need::OFFERED_ON_3;
        if (slot.need == Need::REQUIRED || slot.need == Need::OFFERED ||
            (xpy.major_version == 2 ? slot.need == Need::ON_2 : is_of_3)) {
            EXPECT_NE(slot.exported, nullptr) << slot.name;
            EXPECT_EQ(slot.held, slot.exported) << slot.name;
            ++checked;
        }
    }
    EXPECT_GT(checked, 250);
}

TEST_F(Slots, a_name_of_the_other_generation_is_not_looked_up) {
    // Generation 2 spells these PyString_, and its strings are its bytes.
    const std::vector<std::string> aliases = {"PyBytes_AsString", "PyBytes_FromString", "PyBytes_Size", "PyBytes_Type"};
    for (const SlotState& slot : all_slots()) {
        const bool is_of_3 = slot.need == Need::ON_3 || slot.need == Need::OFFERED_ON_3;
        const bool is_of_other = xpy.major_version == 2 ? is_of_3 : slot.need == Need::ON_2;
        if (is_of_other && std::count(aliases.begin(), aliases.end(), slot.name) == 0) {
            EXPECT_EQ(slot.held, nullptr) << slot.name;
        }
    }
}

TEST_F(Slots, an_optional_name_is_held_as_exported_or_by_its_older_name_or_by_its_fallback) {
    for (const SlotState& slot : all_slots()) {
        if (slot.need != Need::OPTIONAL) {
            continue;
        }
        const void* expected = slot.exported;
        expected = expected != nullptr ? expected : slot.older;
        expected = expected != nullptr ? expected : slot.fallback;
        EXPECT_EQ(slot.held, expected) << slot.name;
        if (slot.fallback != nullptr) {
            EXPECT_NE(slot.held, nullptr) << slot.name;
        }
    }
}

TEST_F(Slots, bytes_are_strings_on_generation_2_and_a_type_of_their_own_on_3) {
    if (xpy.major_version == 2) {
        EXPECT_EQ(xpy.PyBytes_AsString, xpy.PyString_AsString);
        EXPECT_EQ(xpy.PyBytes_FromString, xpy.PyString_FromString);
        EXPECT_EQ(xpy.PyBytes_Size, xpy.PyString_Size);
        EXPECT_EQ(xpy.PyBytes_Type_ptr, xpy.PyString_Type_ptr);
    } else {
        EXPECT_EQ(xpy.PyString_AsString, nullptr);
        EXPECT_EQ(xpy.PyString_FromString, nullptr);
        EXPECT_EQ(xpy.PyString_Size, nullptr);
        EXPECT_EQ(xpy.PyString_Type_ptr, nullptr);
        EXPECT_EQ(eval("type(b'')").get(), as_object(xpy.PyBytes_Type_ptr));
    }
    const Ref bytes = Ref::steal(xpy.PyBytes_FromString("bytes"));
    ASSERT_TRUE(bytes) << take_exception();
    EXPECT_EQ(XPy_BorrowType(bytes.get()), xpy.PyBytes_Type_ptr);
    EXPECT_EQ(xpy.PyBytes_Size(bytes.get()), 5);
    EXPECT_STREQ(xpy.PyBytes_AsString(bytes.get()), "bytes");
}

TEST_F(Slots, code_extra_goes_by_the_newest_name_that_the_interpreter_has) {
    const int version = version_number();
    const Ref code = eval("(lambda: 0).__code__");
    if (version < 306) {
        // Nothing can be attached to a code object there, and each of the three says so.
        CapturedStderr captured;
        void* found = nullptr;
        EXPECT_EQ(xpy.PyUnstable_Eval_RequestCodeExtraIndex(nullptr), -1);
        EXPECT_EQ(take_exception(), "RuntimeError: _PyEval_RequestCodeExtraIndex not available");
        EXPECT_EQ(xpy.PyUnstable_Code_SetExtra(code.get(), 0, &found), -1);
        EXPECT_EQ(take_exception(), "RuntimeError: _PyCode_SetExtra not available");
        EXPECT_EQ(xpy.PyUnstable_Code_GetExtra(code.get(), 0, &found), -1);
        EXPECT_EQ(take_exception(), "RuntimeError: _PyCode_GetExtra not available");
        EXPECT_NE(captured.take().find("_PyEval_RequestCodeExtraIndex not available"), std::string::npos);
        return;
    }
    const bool has_older_names = version < 312;
    EXPECT_EQ(as_pointer(xpy.PyUnstable_Code_GetExtra),
              exported_function(has_older_names ? "_PyCode_GetExtra" : "PyUnstable_Code_GetExtra"));
    EXPECT_EQ(as_pointer(xpy.PyUnstable_Code_SetExtra),
              exported_function(has_older_names ? "_PyCode_SetExtra" : "PyUnstable_Code_SetExtra"));
    EXPECT_EQ(
        as_pointer(xpy.PyUnstable_Eval_RequestCodeExtraIndex),
        exported_function(has_older_names ? "_PyEval_RequestCodeExtraIndex" : "PyUnstable_Eval_RequestCodeExtraIndex"));

    const Py_ssize_t index = xpy.PyUnstable_Eval_RequestCodeExtraIndex(nullptr);
    ASSERT_GE(index, 0);
    int marker = 0;
    ASSERT_EQ(xpy.PyUnstable_Code_SetExtra(code.get(), index, &marker), 0);
    void* found = nullptr;
    ASSERT_EQ(xpy.PyUnstable_Code_GetExtra(code.get(), index, &found), 0);
    EXPECT_EQ(found, &marker);
}

TEST_F(Slots, singletons_and_exception_classes_are_the_objects_themselves) {
    EXPECT_EQ(eval("None").get(), xpy._Py_NoneStruct);
    EXPECT_EQ(eval("True").get(), xpy._Py_TrueStruct);
    EXPECT_EQ(eval("False").get(), xpy.major_version == 2 ? xpy._Py_ZeroStruct : xpy._Py_FalseStruct);
    EXPECT_EQ(eval("KeyError").get(), xpy.PyExc_KeyError);
    EXPECT_EQ(eval("ZeroDivisionError").get(), xpy.PyExc_ZeroDivisionError);
    EXPECT_EQ(eval("dict").get(), as_object(xpy.PyDict_Type_ptr));
}

TEST_F(Slots, the_file_system_encoding_is_the_one_that_the_interpreter_has_decided_on) {
    EXPECT_EQ(as_pointer(xpy.Py_FileSystemDefaultEncoding), exported_data(Read::VALUE, "Py_FileSystemDefaultEncoding"));
    run("import sys");
    if (xpy.Py_FileSystemDefaultEncoding != nullptr) {
        EXPECT_EQ(xpy.Py_FileSystemDefaultEncoding, eval_text("sys.getfilesystemencoding()"));
    } else {
        // Nothing is decided on generation 2 as long as the locale is not asked; 3.12 and later leave the variable
        // behind and keep the name elsewhere.
        EXPECT_TRUE(xpy.major_version == 2 || version_number() >= 312) << version_number();
    }
}

// ---- what binding learned besides the slots ----

class Binding : public LiveInterpreterTest {};

TEST_F(Binding, knows_the_version_that_the_interpreter_reports) {
    run("import sys");
    EXPECT_EQ(XPy_GetMajorVersion(), eval_long("sys.version_info[0]"));
    EXPECT_EQ(XPy_GetMinorVersion(), eval_long("sys.version_info[1]"));
    EXPECT_EQ(xpy.micro_version, eval_long("sys.version_info[2]"));
    EXPECT_EQ(xpy.api_version, eval_long("sys.api_version"));
}

TEST_F(Binding, knows_whether_there_is_a_global_lock) {
    run("import sysconfig");
    EXPECT_EQ(is_free_threaded(), eval_long("int(bool(sysconfig.get_config_var('Py_GIL_DISABLED')))") == 1);
}

TEST_F(Binding, is_final_and_says_nothing_when_repeated) {
    CapturedStderr captured;
    EXPECT_EQ(XPy_Initialize(), 0);
    EXPECT_EQ(XPy_InitializeWithDllPtr(nullptr), 0);
    EXPECT_EQ(captured.take(), "");
    EXPECT_EQ(xpy.initialized, 1);
    EXPECT_EQ(xpy.failed_to_initialize, 0);
    EXPECT_EQ(xpy.dll_ptr, nullptr);
    EXPECT_EQ(xpy.cached_pid, getpid());
}

TEST_F(Binding, from_scratch_writes_nothing_but_what_3_15_is_known_for) {
    const SavedRecord saved;
    std::memset(&xpy, 0, sizeof xpy);
    CapturedStderr captured;
    EXPECT_EQ(XPy_Initialize(), 0);
    const std::string message = captured.take();
    if (version_number() > 314) {
        EXPECT_EQ(message, "Cannot find tstate fields for this python version\n");
    } else {
        EXPECT_EQ(message, "");
    }
}

TEST_F(Binding, fails_without_trying_while_the_test_switch_is_on) {
    const SavedRecord saved;
    std::memset(&xpy, 0, sizeof xpy);
    EXPECT_EQ(XPy_DbgSetFailOnImport(1), 0);
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(xpy.initialized, 0);
    EXPECT_EQ(xpy.major_version, 0) << "nothing was bound";
    ASSERT_NE(xpy.PyErr_Occurred, nullptr);
    EXPECT_EQ(xpy.PyErr_Occurred(), xpy.PyExc_ImportError);
    reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "PyErr_Clear"))();
    EXPECT_EQ(XPy_DbgSetFailOnImport(0), 1);
}

TEST_F(Binding, leaves_an_exception_that_is_pending_already_where_it_fails) {
    XPy_DbgSetFailOnImport(1);
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(take_exception(), "ValueError: mine");
    XPy_DbgSetFailOnImport(0);
}

TEST_F(Binding, finds_further_symbols_by_name_and_nothing_for_a_null_name) {
    EXPECT_EQ(XPy_LookupPythonFunction("Py_GetVersion"), dlsym(RTLD_DEFAULT, "Py_GetVersion"));
    EXPECT_NE(XPy_LookupPythonFunction("Py_GetVersion"), nullptr);
    EXPECT_EQ(XPy_LookupPythonFunction("Py_NoSuchFunctionAnywhere"), nullptr);
    EXPECT_EQ(XPy_LookupPythonFunction(nullptr), nullptr);
    EXPECT_EQ(take_exception(), "");
}

TEST_F(Binding, borrows_a_type_without_keeping_a_reference) {
    run("class Plain(object): pass\nplain = Plain()");
    run("import sys");
    const Ref plain = eval("plain");
    const long before = eval_long("sys.getrefcount(Plain)");
    EXPECT_EQ(as_object(XPy_BorrowType(plain.get())), eval("Plain").get());
    EXPECT_EQ(eval_long("sys.getrefcount(Plain)"), before);
    EXPECT_EQ(XPy_BorrowType(nullptr), nullptr);
}

TEST_F(Binding, compares_by_equality) {
    run("class Raising(object):\n"
        "    def __eq__(self, other): raise ValueError('not today')\n"
        "    __hash__ = None\n");
    const Ref one = eval("'a' + 'b'");
    const Ref same = eval("'AB'.lower()");
    const Ref other = eval("'abc'");
    EXPECT_EQ(XPy_PyObjectsEqual(one.get(), same.get()), 1);
    EXPECT_EQ(XPy_PyObjectsEqual(one.get(), other.get()), 0);
    EXPECT_EQ(XPy_PyObjectsEqual(eval("Raising()").get(), eval("Raising()").get()), -1);
    EXPECT_EQ(take_exception(), "ValueError: not today");
    EXPECT_EQ(XPy_PyObjectsEqual(nullptr, one.get()), -1);
    EXPECT_EQ(XPy_PyObjectsEqual(one.get(), nullptr), -1);
}

TEST_F(Binding, compares_by_order_where_there_is_no_rich_comparison) {
    ASSERT_NE(xpy.PyObject_RichCompareBool, nullptr);
    if (xpy.major_version != 2) {
        EXPECT_EQ(xpy.PyObject_Compare, nullptr) << "there is no other comparison that could be asked";
        return;
    }
    run("class Raising(object):\n    def __cmp__(self, other): raise ValueError('not today')\n");
    const SavedRecord saved;
    xpy.PyObject_RichCompareBool = nullptr;
    EXPECT_EQ(XPy_PyObjectsEqual(eval("3").get(), eval("3").get()), 1);
    EXPECT_EQ(XPy_PyObjectsEqual(eval("3").get(), eval("4").get()), 0);
    EXPECT_EQ(XPy_PyObjectsEqual(eval("4").get(), eval("3").get()), 0);
    EXPECT_EQ(XPy_PyObjectsEqual(eval("Raising()").get(), eval("3").get()), -1);
    EXPECT_EQ(take_exception(), "ValueError: not today");
}

}  // namespace
