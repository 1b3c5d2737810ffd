// Offsets read in the running interpreter: each field that is used is compared with what Python reports of
// it.

#include "xoptmonitoring/binding/xpy_layouts.h"

#include <dlfcn.h>
#include <vector>

#include "live_interpreter.h"

namespace {

template <class Field>
Field read(const void* object, std::int64_t offset) {
    EXPECT_NE(offset, -1);
    return *XPy_GetFieldAddress<Field>(const_cast<void*>(object), offset);
}

bool has_old_frames() {
    return version_number() < 311;
}

class LiveLayouts : public LiveInterpreterTest {
  protected:
    PyThreadState* thread_state() {
        PyThreadState* tstate = XPy_CurrentThreadStateOrNull();
        EXPECT_NE(tstate, nullptr);
        return tstate;
    }

    static bool skips_thread_state() {
        return version_number() > 314;
    }

    /// Of a thread state that nobody has described nothing is read.
    static void expect_no_thread_state() {
        const XPyThreadStateOffsets& offsets = xpy.tstate_offsets;
        for (const std::int64_t offset : {offsets.next, offsets.interp, offsets.frame, offsets.tracing,
                                          offsets.thread_id, offsets.c_tracefunc, offsets.c_traceobj}) {
            EXPECT_EQ(offset, -1);
        }
    }

    /// From 3.11 on nothing is read in a frame.
    static void expect_no_frame_layout() {
        const auto& offsets = xpy.frame_offsets;
        for (const std::int64_t offset : {offsets.back, offsets.code, offsets.builtins, offsets.globals, offsets.locals,
                                          offsets.trace, offsets.iblock, offsets.stacktop, offsets.state}) {
            EXPECT_EQ(offset, -1);
        }
    }
};

#define EXPECT_ABSENT_WITHOUT_THREAD_STATE() \
    if (skips_thread_state()) {              \
        expect_no_thread_state();            \
        return;                              \
    }

// ---- object header ----

TEST_F(LiveLayouts, the_type_of_an_object) {
    for (const char* expression : {"None", "3", "'text'", "(lambda: 0)", "type", "dict()"}) {
        const Ref object = eval(expression);
        const Ref type = Ref::steal(xpy.PyObject_Type(object.get()));
        EXPECT_EQ(as_object(type_of(object.get())), type.get()) << expression;
    }
}

TEST_F(LiveLayouts, the_reference_count_of_an_object) {
    if (xpy.pyobject_offsets.refcnt == -1) {
        EXPECT_TRUE(is_free_threaded()) << "where a count has two halves";
        return;
    }
    run("import sys\nholder = [object()]");
    const Ref object = eval("holder[0]");
    // Held by the list and by us. Python's own answer counts its argument as well.
    const auto count = read<std::int32_t>(object.get(), xpy.pyobject_offsets.refcnt);
    EXPECT_EQ(count, 2);
    run("holder = holder * 5");
    EXPECT_EQ(read<std::int32_t>(object.get(), xpy.pyobject_offsets.refcnt), 6);
    EXPECT_EQ(eval_long("sys.getrefcount(holder[0])"), 7);
}

TEST_F(LiveLayouts, an_immortal_object_has_a_negative_count_and_is_left_alone) {
    if (xpy.refcnt_is_32bit == 0 || xpy.can_update_refcount_directly == 0) {
        run("import sys\nholder = [object()]");
        const Ref object = eval("holder[0]");
        const long references = eval_long("sys.getrefcount(holder[0])");
        XPy_DoIncRef(object.get());
        EXPECT_EQ(eval_long("sys.getrefcount(holder[0])"), references + 1) << "counted, by whichever way";
        XPy_DoDecRef(object.get());
        EXPECT_EQ(eval_long("sys.getrefcount(holder[0])"), references);
        return;
    }
    const auto before = read<std::int64_t>(xpy._Py_NoneStruct, xpy.pyobject_offsets.refcnt);
    EXPECT_TRUE(XPy_IsImmortal(xpy._Py_NoneStruct));
    EXPECT_LT(static_cast<std::int32_t>(before), 0);
    XPy_DoIncRef(xpy._Py_NoneStruct);
    XPy_DoDecRef(xpy._Py_NoneStruct);
    XPy_DoDecRef(xpy._Py_NoneStruct);
    EXPECT_EQ(read<std::int64_t>(xpy._Py_NoneStruct, xpy.pyobject_offsets.refcnt), before);
}

TEST_F(LiveLayouts, a_free_threaded_header_has_a_free_mutex_and_no_plain_count) {
    if (!is_free_threaded()) {
        EXPECT_EQ(xpy.pyobject_offsets.mutex, -1);
        EXPECT_NE(xpy.pyobject_offsets.refcnt, -1);
        return;
    }
    EXPECT_EQ(xpy.pyobject_offsets.refcnt, -1);
    EXPECT_EQ(xpy.can_update_refcount_directly, 0);
    EXPECT_EQ(xpy.pyobject_offsets.type, 24);
    const Ref object = eval("object()");
    const std::int64_t mutex = xpy.pyobject_offsets.mutex;
    EXPECT_EQ(read<std::uint8_t>(object.get(), mutex), 0);
    xpy.PyMutex_Lock(XPy_GetFieldAddress<PyMutex>(object.get(), mutex));
    EXPECT_EQ(read<std::uint8_t>(object.get(), mutex), 1);
    xpy.PyMutex_Unlock(XPy_GetFieldAddress<PyMutex>(object.get(), mutex));
    EXPECT_EQ(read<std::uint8_t>(object.get(), mutex), 0);
}

// ---- type object ----

TEST_F(LiveLayouts, type_objects) {
    if (xpy.typeobject_offsets.tp_base == -1) {
        EXPECT_LT(version_number(), 308) << "type objects are read from 3.8 on";
        EXPECT_EQ(xpy.typeobject_offsets.tp_basicsize, -1);
        EXPECT_EQ(xpy.typeobject_offsets.tp_flags, -1);
        return;
    }
    run("class Base(object): __slots__ = ('a', 'b')\nclass Derived(Base): pass");
    for (const char* name : {"Base", "Derived", "int", "dict", "type", "BaseException"}) {
        const Ref type = eval(name);
        const std::string text = name;
        EXPECT_EQ(read<Py_ssize_t>(type.get(), xpy.typeobject_offsets.tp_basicsize),
                  eval_long(text + ".__basicsize__"));
        EXPECT_EQ(read<PyObject*>(type.get(), xpy.typeobject_offsets.tp_base), eval(text + ".__base__").get());
        const Ref flags = eval(text + ".__flags__");
        EXPECT_EQ(read<unsigned long>(type.get(), xpy.typeobject_offsets.tp_flags),
                  xpy.PyLong_AsUnsignedLong(flags.get()));
    }
    // A function is called through the pointer that this offset leads to; a plain object has none.
    const Ref function = eval("(lambda: 0)");
    const auto vectorcall_offset =
        read<Py_ssize_t>(type_of(function.get()), xpy.typeobject_offsets.tp_vectorcall_offset);
    EXPECT_GT(vectorcall_offset, 0);
    EXPECT_LT(vectorcall_offset, read<Py_ssize_t>(type_of(function.get()), xpy.typeobject_offsets.tp_basicsize));
    EXPECT_NE(read<void*>(function.get(), vectorcall_offset), nullptr);
    if (void* expected = dlsym(RTLD_DEFAULT, "_PyFunction_Vectorcall")) {
        EXPECT_EQ(read<void*>(function.get(), vectorcall_offset), expected);
    }
    EXPECT_EQ(read<Py_ssize_t>(eval("object").get(), xpy.typeobject_offsets.tp_vectorcall_offset), 0);
}

// ---- frames ----

TEST_F(LiveLayouts, references_held_by_a_frame) {
    if (!has_old_frames()) {
        expect_no_frame_layout();
        return;
    }
    run("import sys\n"
        "def inner():\n"
        "    return sys._getframe()\n"
        "def outer():\n"
        "    return inner()\n"
        "frame = outer()\n");
    const Ref frame = eval("frame");
    EXPECT_EQ(read<PyObject*>(frame.get(), xpy.frame_offsets.code), eval("inner.__code__").get());
    EXPECT_EQ(read<PyObject*>(frame.get(), xpy.frame_offsets.back), eval("frame.f_back").get());
    EXPECT_EQ(read<PyObject*>(frame.get(), xpy.frame_offsets.globals), globals());
    EXPECT_EQ(read<PyObject*>(frame.get(), xpy.frame_offsets.builtins), eval("frame.f_builtins").get());
    EXPECT_EQ(read<PyObject*>(frame.get(), xpy.frame_offsets.locals), nullptr) << "nobody asked for them yet";
    const Ref locals = eval("frame.f_locals");
    EXPECT_EQ(read<PyObject*>(frame.get(), xpy.frame_offsets.locals), locals.get());
}

TEST_F(LiveLayouts, the_trace_function_of_a_frame) {
    if (!has_old_frames()) {
        expect_no_frame_layout();
        return;
    }
    run("def generate(): yield\ngenerator = generate()\nnext(generator)\n"
        "def tracer(frame, event, arg): return tracer\n");
    const Ref frame = eval("generator.gi_frame");
    EXPECT_EQ(read<PyObject*>(frame.get(), xpy.frame_offsets.trace), nullptr);
    run("generator.gi_frame.f_trace = tracer");
    EXPECT_EQ(read<PyObject*>(frame.get(), xpy.frame_offsets.trace), eval("tracer").get());
}

TEST_F(LiveLayouts, the_block_depth_and_the_stack_of_a_frame) {
    if (!has_old_frames()) {
        expect_no_frame_layout();
        return;
    }
    run("def generate():\n"
        "    yield 'outside'\n"
        "    try:\n"
        "        try:\n"
        "            yield 'inside'\n"
        "        finally:\n"
        "            pass\n"
        "    finally:\n"
        "        pass\n"
        "generator = generate()\n");
    const Ref frame = eval("generator.gi_frame");
    const std::int64_t stack_or_state = version_number() == 310 ? xpy.frame_offsets.state : xpy.frame_offsets.stacktop;
    EXPECT_EQ(version_number() == 310 ? xpy.frame_offsets.stacktop : xpy.frame_offsets.state, -1);
    if (version_number() == 310) {
        constexpr int kCreated = -2;
        EXPECT_EQ(read<std::int8_t>(frame.get(), stack_or_state), kCreated);
    }
    run("next(generator)");
    EXPECT_EQ(read<std::int32_t>(frame.get(), xpy.frame_offsets.iblock), 0);
    run("next(generator)");
    EXPECT_EQ(read<std::int32_t>(frame.get(), xpy.frame_offsets.iblock), 2);
    if (version_number() == 310) {
        constexpr int kSuspended = -1;
        EXPECT_EQ(read<std::int8_t>(frame.get(), stack_or_state), kSuspended);
    } else {
        EXPECT_NE(read<void*>(frame.get(), stack_or_state), nullptr) << "a suspended frame has its stack";
    }
    run("generator.close()");
    if (version_number() != 310) {
        EXPECT_EQ(read<void*>(frame.get(), stack_or_state), nullptr) << "a finished frame has none";
    }
}

/// What a native trace function saw in a frame and in its thread state.
struct Seen {
    std::vector<long> lines_in_frame;
    std::vector<long> lines_reported;
    std::vector<int> tracing;
    std::vector<PyObject*> objects;
};
Seen gSeen;

extern "C" int look_at_lines(PyObject* object, PyFrameObject* frame, int what, PyObject* /*argument*/) {
    constexpr int kLineEvent = 2;
    if (what != kLineEvent) {
        return 0;
    }
    auto* frame_object = reinterpret_cast<PyObject*>(frame);
    gSeen.lines_reported.push_back(xpy.PyFrame_GetLineNumber(frame_object));
    if (xpy.frame_offsets.lineno != -1) {
        gSeen.lines_in_frame.push_back(read<std::int32_t>(frame, xpy.frame_offsets.lineno));
    }
    gSeen.tracing.push_back(read<std::int32_t>(XPy_CurrentThreadStateOrNull(), xpy.tstate_offsets.tracing));
    gSeen.objects.push_back(object);
    return 0;
}

TEST_F(LiveLayouts, the_trace_function_of_a_thread) {
    EXPECT_ABSENT_WITHOUT_THREAD_STATE();
    run("def three_lines():\n    a = 1\n    b = 2\n    return a + b\n");
    const Ref tag = eval("object()");
    const Ref function = eval("three_lines");
    PyThreadState* tstate = thread_state();
    const XPyThreadStateOffsets& offsets = xpy.tstate_offsets;
    const auto old_function = read<Py_tracefunc>(tstate, offsets.c_tracefunc);
    ASSERT_EQ(old_function, nullptr) << "these tests are not run under a tracer";
    EXPECT_EQ(read<std::int32_t>(tstate, offsets.tracing), 0);

    gSeen = Seen();
    xpy.PyEval_SetTrace(look_at_lines, tag.get());
    EXPECT_EQ(read<Py_tracefunc>(tstate, offsets.c_tracefunc), look_at_lines);
    EXPECT_EQ(read<PyObject*>(tstate, offsets.c_traceobj), tag.get());
    if (offsets.use_tracing != -1) {
        EXPECT_EQ(read<std::int32_t>(tstate, offsets.use_tracing), 1);
    }
    const Ref result = Ref::steal(xpy.PyObject_CallObject(function.get(), nullptr));
    xpy.PyEval_SetTrace(nullptr, nullptr);

    EXPECT_EQ(read<Py_tracefunc>(tstate, offsets.c_tracefunc), nullptr);
    EXPECT_EQ(read<PyObject*>(tstate, offsets.c_traceobj), nullptr);
    if (offsets.use_tracing != -1) {
        EXPECT_EQ(read<std::int32_t>(tstate, offsets.use_tracing), 0);
    }
    EXPECT_EQ(gSeen.lines_reported, (std::vector<long>{2, 3, 4}));
    EXPECT_EQ(gSeen.tracing, (std::vector<int>{1, 1, 1}));
    EXPECT_EQ(gSeen.objects, (std::vector<PyObject*>{tag.get(), tag.get(), tag.get()}));
    if (has_old_frames()) {
        EXPECT_EQ(gSeen.lines_in_frame, gSeen.lines_reported);
    }
}

// ---- thread state ----

TEST_F(LiveLayouts, the_identity_and_the_interpreter_of_a_thread) {
    EXPECT_ABSENT_WITHOUT_THREAD_STATE();
    PyThreadState* tstate = thread_state();
    EXPECT_EQ(tstate, xpy.PyThreadState_Get());
    EXPECT_EQ(read<unsigned long>(tstate, xpy.tstate_offsets.thread_id), xpy.PyThread_get_thread_ident());
    EXPECT_EQ(read<PyInterpreterState*>(tstate, xpy.tstate_offsets.interp), xpy.PyInterpreterState_Head());
}

TEST_F(LiveLayouts, the_chain_of_thread_states) {
    EXPECT_ABSENT_WITHOUT_THREAD_STATE();
    run("import threading\n"
        "may_end = threading.Event()\n"
        "has_begun = [threading.Event(), threading.Event()]\n"
        "def wait(begun):\n"
        "    begun.set()\n"
        "    may_end.wait()\n"
        "threads = [threading.Thread(target=wait, args=(begun,)) for begun in has_begun]\n"
        "for thread in threads: thread.start()\n"
        "for begun in has_begun: begun.wait()\n");
    int length = 0;
    PyThreadState* tstate = xpy.PyInterpreterState_ThreadHead(xpy.PyInterpreterState_Head());
    for (; tstate != nullptr; tstate = xpy.PyThreadState_Next(tstate)) {
        EXPECT_EQ(read<PyThreadState*>(tstate, xpy.tstate_offsets.next), xpy.PyThreadState_Next(tstate));
        ++length;
    }
    EXPECT_GE(length, 3);
    run("may_end.set()\nfor thread in threads: thread.join()");
}

TEST_F(LiveLayouts, the_innermost_frame_of_a_thread) {
    EXPECT_ABSENT_WITHOUT_THREAD_STATE();
    PyThreadState* tstate = thread_state();
    PyObject* frame = xpy.PyEval_GetFrame();
    ASSERT_NE(frame, nullptr);
    if (has_old_frames()) {
        EXPECT_EQ(read<PyObject*>(tstate, xpy.tstate_offsets.frame), frame);
        return;
    }
    // From 3.11 on a frame object points to the interpreter's own frame, behind its header and its f_back.
    const std::int64_t frame_pointer = xpy.pyobject_offsets.type + 8 + 8;
    const void* inner = read<void*>(frame, frame_pointer);
    if (version_number() >= 313) {
        EXPECT_EQ(read<void*>(tstate, xpy.tstate_offsets.frame), inner);
        return;
    }
    const void* holder = read<void*>(tstate, xpy.tstate_offsets.cframe);
    EXPECT_EQ(read<void*>(holder, xpy.cframe_offsets.current_frame), inner);
}

TEST_F(LiveLayouts, the_dictionary_of_a_thread) {
    if (tstate_dict_offset == -1) {
        EXPECT_GT(version_number(), 315) << "3.15 is the last that is known";
        return;
    }
    PyObject* dict = xpy.PyThreadState_GetDict();
    EXPECT_NE(dict, nullptr);
    EXPECT_EQ(read<PyObject*>(XPy_CurrentThreadStateOrNull(), tstate_dict_offset), dict);
}

extern "C" PyObject* get_handled_exception(PyObject* /*self*/, PyObject* /*args*/) {
    // The record's words are type, value and traceback up to 3.10, and the exception alone from 3.11 on.
    const auto* record = read<PyObject**>(XPy_CurrentThreadStateOrNull(), tstate_exc_info_offset);
    PyObject* exception = record[has_old_frames() ? 1 : 0];
    return Ref::share(exception != nullptr ? exception : none()).release();
}

TEST_F(LiveLayouts, the_handled_exception_of_a_thread) {
    if (tstate_exc_info_offset == -1) {
        EXPECT_TRUE(version_number() < 307 || skips_thread_state()) << "the record came with 3.7";
        return;
    }
    static PyMethodDef definition = {"get_handled_exception", get_handled_exception, METH_VARARGS, nullptr};
    const Ref function = Ref::steal(xpy.PyCFunction_NewEx(&definition, nullptr, nullptr));
    set_global("get_handled_exception", function.get());
    run("before = get_handled_exception()\n"
        "try:\n"
        "    raise KeyError('handled')\n"
        "except KeyError as error:\n"
        "    inside = get_handled_exception() is error\n");
    EXPECT_EQ(eval_text("repr(before)"), "None");
    EXPECT_EQ(eval_text("repr(inside)"), "True");
}

/// What a native monitoring callback saw.
struct MonitoringSeen {
    int calls = 0;
    int what_event = -2;
    int tracing = -2;
};
MonitoringSeen gMonitoringSeen;

extern "C" PyObject* look_at_event(PyObject* /*self*/, PyObject* /*args*/) {
    PyThreadState* tstate = XPy_CurrentThreadStateOrNull();
    ++gMonitoringSeen.calls;
    gMonitoringSeen.what_event = read<std::int32_t>(tstate, xpy.tstate_offsets.what_event);
    gMonitoringSeen.tracing = read<std::int32_t>(tstate, xpy.tstate_offsets.tracing);
    return new_none().release();
}

TEST_F(LiveLayouts, the_monitoring_event_of_a_thread) {
    if (xpy.tstate_offsets.what_event == -1) {
        EXPECT_TRUE(version_number() < 312 || skips_thread_state()) << "monitoring events came with 3.12";
        return;
    }
    PyThreadState* tstate = thread_state();
    EXPECT_EQ(read<std::int32_t>(tstate, xpy.tstate_offsets.what_event), -1);
    EXPECT_EQ(read<std::int32_t>(tstate, xpy.tstate_offsets.tracing), 0);
    static PyMethodDef definition = {"look_at_event", look_at_event, METH_VARARGS, nullptr};
    const Ref callback = Ref::steal(xpy.PyCFunction_NewEx(&definition, nullptr, nullptr));
    set_global("look_at_event", callback.get());
    gMonitoringSeen = MonitoringSeen();
    run("import sys\n"
        "def monitored(): pass\n"
        "mon = sys.monitoring\n"
        "mon.use_tool_id(4, 'layouts')\n"
        "try:\n"
        "    mon.register_callback(4, mon.events.PY_START, look_at_event)\n"
        "    mon.set_local_events(4, monitored.__code__, mon.events.PY_START)\n"
        "    monitored()\n"
        "    mon.set_local_events(4, monitored.__code__, 0)\n"
        "    mon.register_callback(4, mon.events.PY_START, None)\n"
        "finally:\n"
        "    mon.free_tool_id(4)\n");
    EXPECT_EQ(gMonitoringSeen.calls, 1);
    EXPECT_EQ(1 << gMonitoringSeen.what_event, eval_long("sys.monitoring.events.PY_START"));
    EXPECT_EQ(gMonitoringSeen.tracing, 1);
    EXPECT_EQ(read<std::int32_t>(tstate, xpy.tstate_offsets.what_event), -1);
}

TEST_F(LiveLayouts, of_a_thread_state_are_there_up_to_3_14_and_absent_after) {
    EXPECT_ABSENT_WITHOUT_THREAD_STATE();
    EXPECT_NE(xpy.tstate_offsets.next, -1);
    EXPECT_NE(xpy.tstate_offsets.interp, -1);
    EXPECT_NE(xpy.tstate_offsets.thread_id, -1);
}

// ---- interpreter state ----

TEST_F(LiveLayouts, the_frame_evaluation_function_of_an_interpreter) {
    if (xpy.interpreter_state_offsets.eval_frame == -1) {
        EXPECT_TRUE(version_number() < 306 || version_number() > 308) << "the state is read from 3.6 to 3.8";
        return;
    }
    EXPECT_EQ(read<void*>(xpy.PyInterpreterState_Head(), xpy.interpreter_state_offsets.eval_frame),
              dlsym(RTLD_DEFAULT, "_PyEval_EvalFrameDefault"));
}

}  // namespace
