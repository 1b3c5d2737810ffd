// Fallbacks, each called through its slot, on whatever interpreter runs this.
//
// Most slots hold a real function here. The tests empty every slot that has a fallback, let binding's own
// step fill them, and put the record back afterwards.

#include "xoptmonitoring/binding/xpy_fallbacks.h"

#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "live_interpreter.h"

namespace {

class Fallbacks : public LiveInterpreterTest {
  protected:
    void SetUp() override {
        LiveInterpreterTest::SetUp();
        real_.emplace();
#define XPY_BACKED(need, backup, result, name, parameters) xpy.name = nullptr;
#define XPY_OLDER(older, backup, result, name, parameters) \
    xpy.name = nullptr;                                    \
    xpy.older = nullptr;
#define XPY_UNICODE_BACKED(backup, result, name, suffix, parameters) xpy.name = nullptr;
#include "xoptmonitoring/binding/xpy_api_slots.def"
        install_fallbacks();
    }

    void TearDown() override {
        real_.reset();
        LiveInterpreterTest::TearDown();
    }

    static bool has_frame_layout() {
        return version_number() < 311;
    }

    /// Where nothing says how a frame is laid out, each reader refuses whatever it is given.
    static void expect_an_unread_frame(PyObject* frame) {
        EXPECT_EQ(xpy.PyFrame_GetBack(frame), nullptr);
        EXPECT_EQ(take_exception(), "RuntimeError: PyFrame_GetBack not available and frame_offsets.back not set");
        EXPECT_EQ(xpy.PyFrame_GetCode(frame), nullptr);
        EXPECT_EQ(take_exception(), "RuntimeError: PyFrame_GetCode not available and frame_offsets.code not set");
        EXPECT_EQ(xpy.PyFrame_GetBuiltins(frame), nullptr);
        EXPECT_EQ(take_exception(),
                  "RuntimeError: PyFrame_GetBuiltins not available and frame_offsets.builtins not set");
        EXPECT_EQ(xpy.PyFrame_GetGlobals(frame), nullptr);
        EXPECT_EQ(take_exception(), "RuntimeError: PyFrame_GetGlobals not available and frame_offsets.globals not set");
        EXPECT_EQ(xpy.PyFrame_GetLocals(frame), nullptr);
        EXPECT_EQ(take_exception(), "RuntimeError: PyFrame_GetLocals not available and frame_offsets.locals not set");
    }

  private:
    std::optional<SavedRecord> real_;
};

TEST_F(Fallbacks, fill_every_slot_that_has_one) {
#define XPY_BACKED(need, backup, result, name, parameters) EXPECT_EQ(xpy.name, &backup);
#define XPY_OLDER(older, backup, result, name, parameters) EXPECT_EQ(xpy.name, &backup);
#define XPY_UNICODE_BACKED(backup, result, name, suffix, parameters) EXPECT_EQ(xpy.name, &backup);
#include "xoptmonitoring/binding/xpy_api_slots.def"
}

TEST_F(Fallbacks, leave_a_filled_slot_alone) {
    const auto function = [](PyObject*) -> PyObject* { return nullptr; };
    xpy.PyFrame_GetCode = function;
    install_fallbacks();
    EXPECT_EQ(xpy.PyFrame_GetCode, static_cast<PyObject* (*)(PyObject*)>(function));
}

TEST_F(Fallbacks, come_after_the_older_name) {
    const auto function = [](PyObject*, Py_ssize_t, void**) { return 0; };
    xpy.PyUnstable_Code_GetExtra = nullptr;
    xpy._PyCode_GetExtra = function;
    install_fallbacks();
    EXPECT_EQ(xpy.PyUnstable_Code_GetExtra, static_cast<int (*)(PyObject*, Py_ssize_t, void**)>(function));
}

// ---- functions that say so and raise ----

struct Raising {
    const char* text;
    std::function<bool()> gives_failure_value;
};

TEST_F(Fallbacks, that_cannot_do_anything_say_so_twice_and_fail) {
    PyObject* const object = none();
    PyTypeObject* const type = xpy.PyType_Type_ptr;
    Py_tss_t* const key = nullptr;
    int some_value = 0;
    void* extra = &some_value;
    Py_ssize_t size = 0;
    const std::vector<Raising> cases = {
        {"PyObject_CallFunctionObjArgs not available",
         [&] { return xpy.PyObject_CallFunctionObjArgs(object, nullptr) == nullptr; }},
        {"PyUnicode_AsUTF8AndSize not available",
         [&] { return xpy.PyUnicode_AsUTF8AndSize(object, &size) == nullptr; }},
        {"PyType_GetSlot not available", [&] { return xpy.PyType_GetSlot(type, 1) == nullptr; }},
        {"PyType_GetModuleState() not available before 3.9",
         [&] { return xpy.PyType_GetModuleState(type) == nullptr; }},
        {"PyType_GetModule() not available before 3.9", [&] { return xpy.PyType_GetModule(type) == nullptr; }},
        {"PyType_GetModule() not available before 3.9",
         [&] { return xpy.PyType_GetModuleByDef(type, nullptr) == nullptr; }},
        {"PyType_FromModuleAndSpec() not available before 3.9",
         [&] { return xpy.PyType_FromModuleAndSpec(object, nullptr, nullptr) == nullptr; }},
        {"PyType_FromMetaclass() not available before 3.12",
         [&] { return xpy.PyType_FromMetaclass(type, object, nullptr, nullptr) == nullptr; }},
        {"PyModule_GetState() not available before 3.9", [&] { return xpy.PyModule_GetState(object) == nullptr; }},
        {"PyThread_tss_alloc not available", [&] { return xpy.PyThread_tss_alloc() == nullptr; }},
        {"PyThread_tss_create not available", [&] { return xpy.PyThread_tss_create(key) == 0; }},
        {"PyThread_tss_get not available", [&] { return xpy.PyThread_tss_get(key) == nullptr; }},
        {"PyThread_tss_set not available", [&] { return xpy.PyThread_tss_set(key, extra) == 0; }},
        {"PyThread_tss_delete not available", [&] { return xpy.PyThread_tss_delete(key), true; }},
        {"PyThread_tss_free not available", [&] { return xpy.PyThread_tss_free(key), true; }},
        {"_PyEval_RequestCodeExtraIndex not available",
         [&] { return xpy.PyUnstable_Eval_RequestCodeExtraIndex(nullptr) == -1; }},
        {"_PyCode_GetExtra not available",
         [&] { return xpy.PyUnstable_Code_GetExtra(object, 0, &extra) == -1 && extra == &some_value; }},
        {"_PyCode_SetExtra not available", [&] { return xpy.PyUnstable_Code_SetExtra(object, 0, extra) == -1; }},
        {"PyErr_GetRaisedException not available", [&] { return xpy.PyErr_GetRaisedException() == nullptr; }},
        {"PyErr_SetRaisedException not available", [&] { return xpy.PyErr_SetRaisedException(object), true; }},
        {"PyErr_GetHandledException not available", [&] { return xpy.PyErr_GetHandledException() == nullptr; }},
        {"PyErr_SetHandledException not available", [&] { return xpy.PyErr_SetHandledException(object), true; }},
        {"PyCapsule not available", [&] { return xpy.PyCapsule_New(extra, "name", nullptr) == nullptr; }},
        {"PyCapsule not available", [&] { return xpy.PyCapsule_GetPointer(object, "name") == nullptr; }},
        {"PyCapsule not available", [&] { return xpy.PyCapsule_SetDestructor(object, nullptr) == 0; }},
        {"PyCMethod_New not available", [&] { return xpy.PyCMethod_New(nullptr, object, object, type) == nullptr; }},
    };
    for (const Raising& fallback : cases) {
        CapturedStderr captured;
        const bool failed = fallback.gives_failure_value();
        EXPECT_EQ(captured.take(), fallback.text);
        EXPECT_TRUE(failed) << fallback.text;
        EXPECT_EQ(take_exception(), std::string("RuntimeError: ") + fallback.text);
    }
}

TEST(FallbacksOfThisVersion, a_class_cannot_be_made_for_a_module_before_3_9) {
    ASSERT_EQ(XPy_Initialize(), 0);
    if (version_number() >= 309) {
        EXPECT_EQ(reinterpret_cast<void*>(xpy.PyType_FromModuleAndSpec),
                  XPy_LookupPythonFunction("PyType_FromModuleAndSpec"));
        return;
    }
    CapturedStderr captured;
    EXPECT_EQ(xpy.PyType_FromModuleAndSpec(none(), nullptr, nullptr), nullptr);
    EXPECT_EQ(captured.take(), "PyType_FromModuleAndSpec() not available before 3.9");
    EXPECT_EQ(take_exception(), "RuntimeError: PyType_FromModuleAndSpec() not available before 3.9");
}

// ---- functions that say that they were called ----

struct Reporting {
    const char* text;
    std::function<bool()> gives_zero;
};

TEST_F(Fallbacks, that_do_nothing_say_that_they_were_called_and_raise_nothing) {
    PyThreadState* const tstate = nullptr;
    const std::vector<Reporting> cases = {
        {"Backup_PyObject_VectorcallDict called\n",
         [&] { return xpy.PyObject_VectorcallDict(none(), nullptr, 0, nullptr) == nullptr; }},
        {"Backup_PyThreadState_GetInterpreter called\n",
         [&] { return xpy.PyThreadState_GetInterpreter(tstate) == nullptr; }},
        {"Backup_PyThreadState_GetDict called\n", [&] { return xpy.PyThreadState_GetDict() == nullptr; }},
        {"Backup_PyThread_acquire_lock_timed() called\n",
         [&] { return xpy.PyThread_acquire_lock_timed(nullptr, 0, 0) == 0; }},
        {"Backup__PyEval_SetTrace() called\n", [&] { return xpy._PyEval_SetTrace(tstate, nullptr, nullptr) == 0; }},
        {"Backup_PyEval_SetTraceAllThreads called\n",
         [&] { return xpy.PyEval_SetTraceAllThreads(nullptr, nullptr), true; }},
    };
    for (const Reporting& fallback : cases) {
        CapturedStderr captured;
        const bool gave_zero = fallback.gives_zero();
        EXPECT_EQ(captured.take(), fallback.text);
        EXPECT_TRUE(gave_zero) << fallback.text;
        EXPECT_EQ(take_exception(), "");
    }
}

TEST_F(Fallbacks, that_answer_without_the_interpreter_are_silent) {
    CapturedStderr captured;
    EXPECT_EQ(xpy._Py_IsFinalizing(), 0);
    EXPECT_EQ(xpy.PyFrame_GetGenerator(none()), nullptr);
    EXPECT_EQ(captured.take(), "");
}

PyThreadState* gInitialised = nullptr;

TEST_F(Fallbacks, setting_the_current_thread_state_goes_through_its_initialisation) {
    // The real function would abort on a thread state that is in use.
    xpy._PyThreadState_Init = [](PyThreadState* tstate) { gInitialised = tstate; };
    gInitialised = nullptr;
    xpy._PyThreadState_SetCurrent(XPy_CurrentThreadStateOrNull());
    EXPECT_EQ(gInitialised, XPy_CurrentThreadStateOrNull());
    xpy._PyThreadState_Init = nullptr;
    xpy._PyThreadState_SetCurrent(nullptr);
}

// ---- emulations: numbers, text, calls ----

TEST_F(Fallbacks, convert_integers) {
    EXPECT_EQ(xpy.PyLong_AsSsize_t(eval("1 << 40").get()), Py_ssize_t{1} << 40);
    EXPECT_EQ(xpy.PyLong_AsSsize_t(eval("1 << 70").get()), -1);
    EXPECT_NE(take_exception().find("OverflowError"), std::string::npos);
    const Ref number = Ref::steal(xpy.PyLong_FromSsize_t(-12));
    EXPECT_EQ(repr_of(number.get()), "-12");
}

TEST_F(Fallbacks, read_the_text_of_a_string) {
    run("# -*- coding: ascii -*-\nclass Derived(type(u'')): pass");
    const Ref text = eval("u'plain'");
    EXPECT_STREQ(xpy.PyUnicode_AsString(text.get()), "plain");
    const Ref derived = eval("Derived(u'derived')");
    EXPECT_STREQ(xpy.PyUnicode_AsString(derived.get()), "derived");
    const Ref holed = eval("u'a\\0b'");
    EXPECT_EQ(xpy.PyUnicode_AsString(holed.get()), nullptr) << "not a text for C";
    EXPECT_NE(take_exception(), "");
}

TEST_F(Fallbacks, report_an_internal_error_for_what_is_no_string) {
    for (const char* expression : {"3", "None", "[u'text']", "bytearray(b'text')"}) {
        const Ref object = eval(expression);
        EXPECT_EQ(xpy.PyUnicode_AsString(object.get()), nullptr);
        const std::string exception = take_exception();
        EXPECT_EQ(exception.find("SystemError: xoptmonitoring/xpy_c_api.c:"), 0U) << exception;
        EXPECT_NE(exception.find("bad argument to internal function"), std::string::npos) << exception;
    }
    EXPECT_EQ(xpy.PyUnicode_AsString(nullptr), nullptr);
    EXPECT_NE(take_exception(), "");
}

TEST_F(Fallbacks, call_with_no_and_with_one_argument) {
    run("def none(*args, **kwargs): return repr((args, kwargs))\n"
        "def fail(*args): raise ValueError(len(args))\n"
        "argument = object()\n"
        "import sys\n");
    const Ref function = eval("none");
    const Ref without = Ref::steal(xpy.PyObject_CallNoArgs(function.get()));
    EXPECT_EQ(text_of(without.get()), "((), {})");
    const Ref three = eval("3");
    const Ref with = Ref::steal(xpy.PyObject_CallOneArg(function.get(), three.get()));
    EXPECT_EQ(text_of(with.get()), "((3,), {})");

    const Ref failing = eval("fail");
    EXPECT_EQ(xpy.PyObject_CallNoArgs(failing.get()), nullptr);
    EXPECT_EQ(take_exception(), "ValueError: 0");
    const long references = eval_long("sys.getrefcount(argument)");
    {
        const Ref argument = eval("argument");
        EXPECT_EQ(xpy.PyObject_CallOneArg(failing.get(), argument.get()), nullptr);
    }
    EXPECT_EQ(take_exception(), "ValueError: 1");
    EXPECT_EQ(eval_long("sys.getrefcount(argument)"), references);
}

TEST_F(Fallbacks, find_the_data_that_a_class_adds_to_its_base) {
    if (xpy.typeobject_offsets.tp_base == -1) {
        EXPECT_LT(version_number(), 308) << "type objects are read from 3.8 on";
        EXPECT_EQ(xpy.PyObject_GetTypeData(none(), xpy.PyDict_Type_ptr), nullptr);
        EXPECT_EQ(take_exception(), "RuntimeError: PyObject_GetTypeData not available");
        return;
    }
    // Sizes of the base on both sides of a multiple of the alignment, and on it.
    for (const char* base_fields : {"('a', 'b')", "('a', 'b', 'c')", "('a', 'b', 'c', 'd')"}) {
        run(std::string("class Base(object): __slots__ = ") + base_fields +
            "\nclass Derived(Base): __slots__ = ('last',)\n");
        const Ref object = eval("Derived()");
        const Ref type = eval("Derived");
        CapturedStderr captured;
        void* found = xpy.PyObject_GetTypeData(object.get(), as_type(type.get()));
        EXPECT_EQ(captured.take(), "");
        const long base_size = eval_long("Base.__basicsize__");
        const long distance = static_cast<char*>(found) - reinterpret_cast<char*>(object.get());
        EXPECT_EQ(distance, (base_size + 15) / 16 * 16);
        if (auto* real = reinterpret_cast<void* (*)(PyObject*, PyTypeObject*)>(
                XPy_LookupPythonFunction("PyObject_GetTypeData"))) {
            EXPECT_EQ(real(object.get(), as_type(type.get())), found) << "as the interpreter's own";
        }
    }
}

TEST_F(Fallbacks, find_no_data_where_types_cannot_be_read) {
    xpy.typeobject_offsets.tp_base = -1;
    CapturedStderr captured;
    EXPECT_EQ(xpy.PyObject_GetTypeData(none(), xpy.PyDict_Type_ptr), nullptr);
    EXPECT_EQ(captured.take(), "PyObject_GetTypeData not available");
    EXPECT_EQ(take_exception(), "RuntimeError: PyObject_GetTypeData not available");
}

TEST_F(Fallbacks, find_no_data_for_the_class_without_a_base) {
    CapturedStderr captured;
    EXPECT_EQ(xpy.PyObject_GetTypeData(none(), as_type(eval("object").get())), nullptr);
    EXPECT_EQ(captured.take(), "PyObject_GetTypeData not available");
    EXPECT_EQ(take_exception(), "RuntimeError: PyObject_GetTypeData not available");
}

// ---- emulations: containers ----

TEST_F(Fallbacks, walk_an_iterator) {
    run("def fail():\n    yield 'item'\n    raise ValueError('no more')\n");
    const Ref iterator = eval("fail()");
    PyObject* item = nullptr;
    ASSERT_EQ(xpy.PyIter_NextItem(iterator.get(), &item), 1);
    EXPECT_EQ(text_of(item), "item");
    XPy_DoDecRef(item);
    EXPECT_EQ(xpy.PyIter_NextItem(iterator.get(), &item), -1);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(take_exception(), "ValueError: no more");
    const Ref empty = eval("iter(())");
    EXPECT_EQ(xpy.PyIter_NextItem(empty.get(), &item), 0);
    EXPECT_EQ(item, nullptr);
    EXPECT_EQ(take_exception(), "");
}

TEST_F(Fallbacks, look_a_key_up_and_give_a_reference) {
    run("import sys\nvalue = object()\nmapping = {'key': value}");
    const Ref mapping = eval("mapping");
    const Ref key = eval("'key'");
    const long references = eval_long("sys.getrefcount(value)");
    PyObject* found = nullptr;
    ASSERT_EQ(xpy.PyDict_GetItemRef(mapping.get(), key.get(), &found), 1);
    EXPECT_EQ(found, eval("value").get());
    EXPECT_EQ(eval_long("sys.getrefcount(value)"), references + 1);
    XPy_DoDecRef(found);
    EXPECT_EQ(xpy.PyDict_GetItemRef(mapping.get(), none(), &found), 0);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(take_exception(), "");
}

TEST_F(Fallbacks, tell_a_failed_look_up_from_a_missing_key) {
    const Ref mapping = eval("{'key': 1}");
    const Ref unhashable = eval("[]");
    PyObject* found = none();
    const int error = xpy.major_version == 2 ? 0 : -1;  // whose only look-up swallows what goes wrong
    EXPECT_EQ(xpy.PyDict_GetItemRef(mapping.get(), unhashable.get(), &found), error);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(take_exception().empty(), error == 0);
    found = none();
    EXPECT_EQ(xpy.PyDict_Pop(mapping.get(), unhashable.get(), &found), error);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(take_exception().empty(), error == 0);
}

TEST_F(Fallbacks, pop_a_key_and_hand_its_value_out_or_drop_it) {
    run("import sys\nvalue = object()\nmapping = {'kept': value, 'dropped': value}");
    const Ref mapping = eval("mapping");
    const long references = eval_long("sys.getrefcount(value)");
    PyObject* popped = nullptr;
    ASSERT_EQ(xpy.PyDict_Pop(mapping.get(), eval("'kept'").get(), &popped), 1);
    EXPECT_EQ(popped, eval("value").get());
    EXPECT_EQ(eval_long("sys.getrefcount(value)"), references) << "the reference moved";
    XPy_DoDecRef(popped);
    EXPECT_EQ(xpy.PyDict_Pop(mapping.get(), eval("'dropped'").get(), nullptr), 1);
    EXPECT_EQ(eval_long("sys.getrefcount(value)"), references - 2);
    EXPECT_EQ(eval_long("len(mapping)"), 0);
    popped = none();
    EXPECT_EQ(xpy.PyDict_Pop(mapping.get(), eval("'missing'").get(), &popped), 0);
    EXPECT_EQ(popped, nullptr);
    EXPECT_EQ(xpy.PyDict_Pop(mapping.get(), eval("'missing'").get(), nullptr), 0);
    EXPECT_EQ(take_exception(), "");
}

TEST_F(Fallbacks, pop_nothing_where_the_key_that_was_found_cannot_be_removed) {
    run("class Key(object):\n"
        "    hashed = 0\n"
        "    def __hash__(self):\n"
        "        Key.hashed += 1\n"
        "        if Key.hashed == 3:  # after the entering and the finding\n"
        "            raise ValueError('hash')\n"
        "        return 5\n"
        "key = Key()\n"
        "mapping = {key: 'value'}\n");
    PyObject* popped = nullptr;
    const int answer = xpy.PyDict_Pop(eval("mapping").get(), eval("key").get(), &popped);
    const Ref value = Ref::steal(popped);
    EXPECT_EQ(answer, -1);
    EXPECT_FALSE(value);
    EXPECT_EQ(take_exception(), "ValueError: hash");
    EXPECT_EQ(eval_long("len(mapping)"), 1);
}

// ---- emulations: frames ----

TEST_F(Fallbacks, hand_out_a_reference_to_the_innermost_frame) {
    const Ref frame = Ref::steal(xpy.PyThreadState_GetFrame(xpy.PyThreadState_Get()));
    ASSERT_EQ(static_cast<bool>(frame), version_number() < 311) << "from then on it is no object";
    if (!frame) {
        return;
    }
    run("import sys");
    set_global("frame", frame.get());
    const long before = eval_long("sys.getrefcount(frame)");
    const Ref again = Ref::steal(xpy.PyThreadState_GetFrame(xpy.PyThreadState_Get()));
    EXPECT_EQ(again.get(), frame.get());
    EXPECT_EQ(eval_long("sys.getrefcount(frame)"), before + 1);
}

TEST_F(Fallbacks, read_a_frame_through_its_layout_or_not_at_all) {
    run("import sys\n"
        "def inner():\n"
        "    return sys._getframe()\n"
        "def outer():\n"
        "    return inner()\n"
        "frame = outer()\n");
    const Ref frame = eval("frame");
    if (!has_frame_layout()) {
        expect_an_unread_frame(frame.get());
        return;
    }
    const Ref code = Ref::steal(xpy.PyFrame_GetCode(frame.get()));
    const Ref back = Ref::steal(xpy.PyFrame_GetBack(frame.get()));
    const Ref frame_globals = Ref::steal(xpy.PyFrame_GetGlobals(frame.get()));
    const Ref builtins = Ref::steal(xpy.PyFrame_GetBuiltins(frame.get()));
    EXPECT_EQ(code.get(), eval("inner.__code__").get());
    EXPECT_EQ(back.get(), eval("frame.f_back").get());
    EXPECT_EQ(frame_globals.get(), globals());
    EXPECT_EQ(builtins.get(), eval("frame.f_builtins").get());
    EXPECT_EQ(xpy.PyFrame_GetLocals(frame.get()), nullptr) << "nobody has asked for the locals yet";
    EXPECT_EQ(take_exception(), "");
    const Ref asked = eval("frame.f_locals");
    const Ref locals = Ref::steal(xpy.PyFrame_GetLocals(frame.get()));
    EXPECT_EQ(locals.get(), asked.get());
}

TEST_F(Fallbacks, give_a_reference_to_what_they_read_in_a_frame) {
    run("import sys\ndef function(): return sys._getframe()\nframe = function()\n");
    const Ref frame = eval("frame");
    const long references = eval_long("sys.getrefcount(function.__code__)");
    const Ref code = Ref::steal(xpy.PyFrame_GetCode(frame.get()));
    const int given = has_frame_layout() ? 1 : 0;
    EXPECT_EQ(code.get() != nullptr, given == 1);
    EXPECT_EQ(take_exception().empty(), given == 1);
    EXPECT_EQ(eval_long("sys.getrefcount(function.__code__)"), references + given);
}

TEST_F(Fallbacks, find_no_caller_of_an_outermost_frame) {
    run("def generate(): yield\ngenerator = generate()\nnext(generator)\n");
    const Ref frame = eval("generator.gi_frame");
    if (!has_frame_layout()) {
        expect_an_unread_frame(frame.get());
        return;
    }
    EXPECT_EQ(xpy.PyFrame_GetBack(frame.get()), nullptr);
    EXPECT_EQ(take_exception(), "");
}

TEST_F(Fallbacks, raise_where_a_frame_cannot_be_read) {
    xpy.frame_offsets.back = -1;
    xpy.frame_offsets.code = -1;
    xpy.frame_offsets.builtins = -1;
    xpy.frame_offsets.globals = -1;
    xpy.frame_offsets.locals = -1;
    CapturedStderr captured;
    expect_an_unread_frame(none());
    EXPECT_EQ(captured.take(), "");
}

TEST_F(Fallbacks, ask_a_frame_for_its_line) {
    run("class Frame(object): f_lineno = 17\n"
        "class Odd(object): f_lineno = 'no number'\n");
    EXPECT_EQ(xpy.PyFrame_GetLineNumber(eval("Frame()").get()), 17);
    EXPECT_EQ(xpy.PyFrame_GetLineNumber(eval("Odd()").get()), -1);
    EXPECT_EQ(xpy.PyFrame_GetLineNumber(none()), -1);
    EXPECT_EQ(take_exception(), "") << "failures are cleared";
}

TEST_F(Fallbacks, find_the_frame_of_a_thread_where_it_is_an_object) {
    const Ref frame = Ref::steal(xpy.PyThreadState_GetFrame(XPy_CurrentThreadStateOrNull()));
    if (has_frame_layout()) {
        EXPECT_EQ(frame.get(), xpy.PyEval_GetFrame());
        xpy.tstate_offsets.frame = -1;
        EXPECT_EQ(xpy.PyThreadState_GetFrame(XPy_CurrentThreadStateOrNull()), nullptr);
    } else {
        EXPECT_EQ(frame.get(), nullptr) << "what the thread state holds is not an object to be counted";
    }
    EXPECT_EQ(take_exception(), "");
}

TEST_F(Fallbacks, find_no_frame_in_a_thread_that_runs_none) {
    std::vector<char> empty_state(1024, 0);  // the fallback reads a field of it, on some versions none
    EXPECT_EQ(xpy.PyThreadState_GetFrame(reinterpret_cast<PyThreadState*>(empty_state.data())), nullptr);
}

// ---- emulations: errors that nobody can catch ----

class UnraisableErrors : public Fallbacks {
  protected:
    void SetUp() override {
        Fallbacks::SetUp();
        run("import sys\n"
            "class Collector(object):\n"
            "    def __init__(self): self.text = ''\n"
            "    def write(self, text): self.text += str(text)\n"
            "    def flush(self): pass\n"
            "class Unprintable(object):\n"
            "    def __repr__(self): raise KeyError('no repr')\n"
            "real_stderr, sys.stderr = sys.stderr, Collector()\n");
    }
    void TearDown() override {
        run("sys.stderr = real_stderr");
        Fallbacks::TearDown();
    }
    std::string written() {
        return eval_text("sys.stderr.text");
    }
};

TEST_F(UnraisableErrors, are_written_with_the_formatted_context) {
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "lost");
    xpy.PyErr_FormatUnraisable("while closing %s number %d", "door", 3);
    EXPECT_EQ(take_exception(), "");
    EXPECT_NE(written().find("while closing door number 3"), std::string::npos) << written();
    EXPECT_NE(written().find("ValueError"), std::string::npos) << written();
}

TEST_F(UnraisableErrors, survive_a_format_that_fails) {
    const Ref unprintable = eval("Unprintable()");
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "lost");
    xpy.PyErr_FormatUnraisable("while looking at %R", unprintable.get());
    EXPECT_EQ(take_exception(), "");
    EXPECT_NE(written().find("ValueError"), std::string::npos) << written();
    EXPECT_EQ(written().find("KeyError"), std::string::npos) << written();
}

TEST_F(UnraisableErrors, need_no_context) {
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "lost");
    xpy.PyErr_FormatUnraisable(nullptr);
    EXPECT_EQ(take_exception(), "");
    EXPECT_NE(written().find("ValueError"), std::string::npos) << written();
}

// ---- emulations: tracing ----

int gSetTraceCalls = 0;
Py_tracefunc gSetFunction = nullptr;
PyObject* gSetObject = nullptr;

int trace_nothing(PyObject* /*object*/, PyFrameObject* /*frame*/, int /*what*/, PyObject* /*argument*/) {
    return 0;
}

/// A thread state of our own making, laid out as the running interpreter's, and a trace setter that only
/// counts.
class SuspendedTracingFallback : public Fallbacks {
  protected:
    void SetUp() override {
        Fallbacks::SetUp();
        xpy.PyEval_SetTrace = [](Py_tracefunc function, PyObject* object) {
            ++gSetTraceCalls;
            gSetFunction = function;
            gSetObject = object;
        };
        gSetTraceCalls = 0;
        gSetFunction = nullptr;
        gSetObject = nullptr;
        // What follows depends on three offsets only; any will do.
        xpy.tstate_offsets.tracing = 16;
        xpy.tstate_offsets.c_tracefunc = 32;
        xpy.tstate_offsets.c_traceobj = 48;
    }

    static void pretend(int major, int minor) {
        xpy.major_version = major;
        xpy.minor_version = minor;
    }
    std::int32_t& tracing() {
        return *reinterpret_cast<std::int32_t*>(memory_ + 16);
    }
    void set_trace(Py_tracefunc function, PyObject* object) {
        std::memcpy(memory_ + 32, &function, sizeof function);
        std::memcpy(memory_ + 48, &object, sizeof object);
    }
    PyThreadState* tstate() {
        return reinterpret_cast<PyThreadState*>(memory_);
    }

  private:
    alignas(8) char memory_[64] = {};
};

TEST_F(SuspendedTracingFallback, counts_and_nothing_else_before_3_10) {
    for (const auto& [major, minor] : {std::pair{2, 7}, {3, 6}, {3, 9}}) {
        pretend(major, minor);
        xpy.PyThreadState_EnterTracing(tstate());
        EXPECT_EQ(tracing(), 1);
        xpy.PyThreadState_EnterTracing(tstate());
        EXPECT_EQ(tracing(), 2);
        xpy.PyThreadState_LeaveTracing(tstate());
        xpy.PyThreadState_LeaveTracing(tstate());
        EXPECT_EQ(tracing(), 0);
    }
    EXPECT_EQ(gSetTraceCalls, 0);
}

TEST_F(SuspendedTracingFallback, sets_the_trace_function_anew_at_the_first_enter_and_the_last_leave_on_3_10) {
    pretend(3, 10);
    set_trace(trace_nothing, none());
    xpy.PyThreadState_EnterTracing(tstate());
    EXPECT_EQ(gSetTraceCalls, 1);
    xpy.PyThreadState_EnterTracing(tstate());
    EXPECT_EQ(gSetTraceCalls, 1);
    xpy.PyThreadState_LeaveTracing(tstate());
    EXPECT_EQ(gSetTraceCalls, 1);
    xpy.PyThreadState_LeaveTracing(tstate());
    EXPECT_EQ(gSetTraceCalls, 2);
    EXPECT_EQ(gSetFunction, trace_nothing);
    EXPECT_EQ(gSetObject, none());
    EXPECT_EQ(tracing(), 0);
}

TEST_F(SuspendedTracingFallback, sets_a_trace_function_without_an_object_or_none_at_all) {
    pretend(3, 10);
    set_trace(trace_nothing, nullptr);
    xpy.PyThreadState_EnterTracing(tstate());
    EXPECT_EQ(gSetFunction, trace_nothing);
    EXPECT_EQ(gSetObject, nullptr);
    set_trace(nullptr, nullptr);
    xpy.PyThreadState_LeaveTracing(tstate());
    EXPECT_EQ(gSetFunction, nullptr);
    EXPECT_EQ(gSetTraceCalls, 2);
}

TEST_F(SuspendedTracingFallback, does_nothing_from_3_11_on) {
    for (const int minor : {11, 12, 15}) {
        pretend(3, minor);
        xpy.PyThreadState_EnterTracing(tstate());
        EXPECT_EQ(tracing(), 0);
        xpy.PyThreadState_LeaveTracing(tstate());
        EXPECT_EQ(tracing(), 0);
    }
    EXPECT_EQ(gSetTraceCalls, 0);
}

TEST_F(SuspendedTracingFallback, does_nothing_without_a_thread_state_or_its_layout) {
    pretend(3, 9);
    xpy.PyThreadState_EnterTracing(nullptr);
    xpy.tstate_offsets.tracing = -1;
    xpy.PyThreadState_EnterTracing(tstate());
    xpy.PyThreadState_LeaveTracing(tstate());
    EXPECT_EQ(tracing(), 0);
}

// ---- the slots as they are: tracing really stops ----

class SuspendedTracingSlots : public LiveInterpreterTest {};

int gTracedCalls = 0;

TEST_F(SuspendedTracingSlots, keep_a_trace_function_from_being_called) {
    run("def traced(): pass");
    const Ref function = eval("traced");
    const Ref tag = eval("object()");
    const auto count_calls = [](PyObject*, PyFrameObject*, int what, PyObject*) {
        gTracedCalls += what == 0 ? 1 : 0;
        return 0;
    };
    const auto call = [&] { Ref::steal(xpy.PyObject_CallObject(function.get(), nullptr)) = Ref(); };
    PyThreadState* tstate = XPy_CurrentThreadStateOrNull();
    gTracedCalls = 0;
    xpy.PyEval_SetTrace(count_calls, tag.get());
    call();
    const int while_tracing = gTracedCalls;
    xpy.PyThreadState_EnterTracing(tstate);
    xpy.PyThreadState_EnterTracing(tstate);
    call();
    xpy.PyThreadState_LeaveTracing(tstate);
    call();
    const int while_suspended = gTracedCalls - while_tracing;
    xpy.PyThreadState_LeaveTracing(tstate);
    call();
    const int after = gTracedCalls - while_tracing - while_suspended;
    xpy.PyEval_SetTrace(nullptr, nullptr);
    EXPECT_EQ(while_tracing, 1);
    EXPECT_EQ(while_suspended, 0);
    EXPECT_EQ(after, 1);
}

}  // namespace
