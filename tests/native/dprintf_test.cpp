// Diagnostics inside a living interpreter: what is written, what is dropped, and that neither the caller's
// exception nor sys.stderr nor a trace function ever notices.

#include "xoptmonitoring/diagnostics/dprintf.h"

#include <cerrno>
#include <functional>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include "live_interpreter.h"

namespace {

constexpr const char* kHelpers =
    "import sys\n"
    "class File(object):\n"
    "    def __init__(self): self.text, self.writes, self.flushes = '', 0, 0\n"
    "    def write(self, text):\n"
    "        self.text += str(text)\n"
    "        self.writes += 1\n"
    "    def flush(self): self.flushes += 1\n"
    "class FailingWrite(File):\n"
    "    def write(self, text):\n"
    "        File.write(self, text)\n"
    "        raise ValueError('cannot write')\n"
    "class FailingFlush(File):\n"
    "    def flush(self):\n"
    "        File.flush(self)\n"
    "        raise ValueError('cannot flush')\n"
    "class NoFile(object): pass\n"
    "class Unprintable(object):\n"
    "    reprs = 0\n"
    "    def __repr__(self):\n"
    "        Unprintable.reprs += 1\n"
    "        raise KeyError('no repr')\n"
    "class Printable(object):\n"
    "    reprs = 0\n"
    "    def __repr__(self):\n"
    "        Printable.reprs += 1\n"
    "        return '<printable>'\n"
    "file = File()\n";

/// What the function `reenter` that Python code can call does; set by a test.
std::function<void()> gReenter;

extern "C" PyObject* call_reenter(PyObject* /*self*/, PyObject* /*args*/) {
    gReenter();
    return new_none().release();
}

class Diagnostics : public LiveInterpreterTest {
  protected:
    void SetUp() override {
        LiveInterpreterTest::SetUp();
        reset_diagnostics();
        run(kHelpers);
        static PyMethodDef definition = {"reenter", call_reenter, METH_VARARGS, nullptr};
        const Ref function = Ref::steal(xpy.PyCFunction_NewEx(&definition, nullptr, nullptr));
        set_global("reenter", function.get());
    }
    void TearDown() override {
        reset_diagnostics();
        gReenter = nullptr;
        LiveInterpreterTest::TearDown();
    }

    static void reset_diagnostics() {
        set_dprintf_file(nullptr, -1, nullptr);
        for (tDPData* dp_data : {&gUnsafeGlobalDPData, &gDP}) {
            clear_dp_data(dp_data);
            init_dp_data(dp_data, 1);
        }
        gDPrintfMask = kLogCore | kLogExceptions | kLogInternalFailures;
    }

    /// Lines go to the object that an expression gives.
    void log_to(const char* expression) {
        const Ref file = eval(expression);
        set_dprintf_file(file.get(), -1, nullptr);
    }
    /// What the test's file has got.
    std::string written() {
        return eval_text("file.text");
    }
    static int guard() {
        return gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count;
    }
    static bool is_generation_2() {
        return xpy.major_version == 2;
    }
    /// What is written for "%R" and an object whose repr fails. Generation 2 does not know "%R" and copies it.
    static std::string text_of_failing_repr() {
        return is_generation_2() ? "%R" : "DPRINTF error: exception while formatting string\n";
    }
};

// ---- do_dprintf ----

TEST_F(Diagnostics, a_line_is_written_exactly_as_formatted_and_flushed) {
    log_to("file");
    do_dprintf(kLogCore, "%s = %d, no line end", "answer", 42);
    EXPECT_EQ(written(), "answer = 42, no line end");
    EXPECT_EQ(eval_long("file.writes"), 1);
    EXPECT_EQ(eval_long("file.flushes"), 1);
    do_dprintf(kLogExceptions, "; next\n");
    EXPECT_EQ(written(), "answer = 42, no line end; next\n");
    EXPECT_EQ(guard(), 0);
}

TEST_F(Diagnostics, a_kind_outside_the_mask_makes_no_call) {
    log_to("file");
    do_dprintf(kLogThreading, "not wanted");
    EXPECT_EQ(eval_long("file.writes + file.flushes"), 0);
    set_dprintf_mask(kLogThreading);
    do_dprintf(kLogThreading, "wanted");
    do_dprintf(kLogCore, "not wanted any more");
    EXPECT_EQ(written(), "wanted");
}

TEST_F(Diagnostics, no_file_and_none_are_no_output) {
    do_dprintf(kLogCore, "nowhere");
    log_to("None");
    do_dprintf(kLogCore, "nowhere");
    EXPECT_EQ(gUnsafeGlobalDPData.core, nullptr);
    log_to("file");
    EXPECT_NE(gUnsafeGlobalDPData.core, nullptr);
    do_dprintf(kLogCore, nullptr);
    EXPECT_EQ(written(), "");
}

TEST_F(Diagnostics, a_pending_exception_survives_a_line) {
    log_to("file");
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(take_exception(), "ValueError: mine");
    EXPECT_EQ(written(), "line\n");
}

TEST_F(Diagnostics, a_file_that_raises_is_forgiven) {
    for (const char* expression : {"FailingWrite()", "FailingFlush()", "NoFile()", "3"}) {
        log_to(expression);
        xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
        do_dprintf(kLogCore, "line\n");
        EXPECT_EQ(take_exception(), "ValueError: mine") << expression;
        do_dprintf(kLogCore, "line\n");
        EXPECT_EQ(take_exception(), "") << expression;
        EXPECT_EQ(guard(), 0);
    }
    run("file = FailingWrite()");
    log_to("file");
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(eval_long("file.flushes"), 1) << "a failed write does not stop the flush";
}

TEST_F(Diagnostics, a_closed_python_file_is_forgiven) {
    run("import tempfile\nclosed = tempfile.TemporaryFile()\nclosed.close()\n");
    log_to("closed");
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(take_exception(), "");
}

TEST_F(Diagnostics, a_format_that_fails_is_replaced_by_a_fixed_text) {
    log_to("file");
    const Ref unprintable = eval("Unprintable()");
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
    do_dprintf(kLogCore, "%R", unprintable.get());
    EXPECT_EQ(take_exception(), "ValueError: mine");
    EXPECT_EQ(written(), text_of_failing_repr());
}

TEST_F(Diagnostics, a_format_that_makes_no_sense_is_survived) {
    log_to("file");
    for (const char* format : {"%q\n", "%\n", "100%", "%-%\n"}) {
        do_dprintf(kLogCore, format);
        EXPECT_EQ(take_exception(), "") << format;
        EXPECT_EQ(guard(), 0) << format;
        if (version_number() >= 312) {
            // Older versions copy what they do not know.
            EXPECT_EQ(eval_text("file.text.split(chr(10))[-2]"), "DPRINTF error: exception while formatting string");
        }
    }
}

PyObject* fail_to_format(const char* /*format*/, va_list /*arguments*/) {
    xpy.PyErr_SetString(xpy.PyExc_MemoryError, "no room");
    return nullptr;
}

PyObject* fail_to_make(const char* /*text*/) {
    xpy.PyErr_SetString(xpy.PyExc_MemoryError, "no room");
    return nullptr;
}

TEST_F(Diagnostics, a_format_that_fails_twice_or_three_times_is_given_up) {
    log_to("file");
    const SavedRecord saved;
    static decltype(xpy.PyUnicode_FromString) real_maker = nullptr;
    static int failures_left = 0;
    const auto fail_sometimes = [](const char* text) -> PyObject* {
        return --failures_left >= 0 ? fail_to_make(text) : real_maker(text);
    };
    (is_generation_2() ? xpy.PyString_FromFormatV : xpy.PyUnicode_FromFormatV) = fail_to_format;
    auto& maker = is_generation_2() ? xpy.PyString_FromString : xpy.PyUnicode_FromString;
    real_maker = maker;
    maker = fail_sometimes;

    failures_left = 0;
    do_dprintf(kLogCore, "line\n");
    failures_left = 1;
    do_dprintf(kLogCore, "line\n");
    failures_left = 2;
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(written(),
              "DPRINTF error: exception while formatting string\n"
              "DPRINTF error: unable to create output string\n");
    EXPECT_EQ(guard(), 0);
}

TEST_F(Diagnostics, a_missing_formatter_is_named) {
    log_to("file");
    const SavedRecord saved;
    xpy.PyUnicode_FromFormatV = nullptr;
    if (is_generation_2()) {
        do_dprintf(kLogCore, "still %s; ", "formatted");
        xpy.PyString_FromFormatV = nullptr;
        do_dprintf(kLogCore, "line\n");
        EXPECT_EQ(written(), "still formatted; DPRINTF error: no way to make a string\n");
    } else {
        do_dprintf(kLogCore, "line\n");
        EXPECT_EQ(written(), "DPRINTF error: PyUnicode_FromFormatV is NULL\n");
    }
}

TEST_F(Diagnostics, without_any_way_to_make_a_string_nothing_is_written) {
    log_to("file");
    const SavedRecord saved;
    xpy.PyUnicode_FromFormatV = nullptr;
    xpy.PyString_FromFormatV = nullptr;
    xpy.PyUnicode_FromString = nullptr;
    xpy.PyString_FromString = nullptr;
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(eval_long("file.writes"), 0);
    EXPECT_EQ(take_exception(), "");
    EXPECT_EQ(guard(), 0);
}

TEST_F(Diagnostics, a_file_that_logs_itself_is_not_heard) {
    run("class Chatty(File):\n"
        "    def write(self, text):\n"
        "        File.write(self, text)\n"
        "        reenter()\n"
        "    def flush(self): reenter()\n"
        "file = Chatty()\n");
    log_to("file");
    int calls = 0;
    gReenter = [&] {
        ++calls;
        do_dprintf(kLogCore, "inner\n");
        xpy.PyErr_SetString(xpy.PyExc_ValueError, "inner");
        do_dlogexception();
        xpy.PyErr_Clear();
    };
    do_dprintf(kLogCore, "outer\n");
    EXPECT_EQ(written(), "outer\n");
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(guard(), 0);
}

TEST_F(Diagnostics, a_file_may_be_replaced_while_it_is_written_to) {
    run("class Leaving(File):\n"
        "    def write(self, text):\n"
        "        reenter()\n"
        "        File.write(self, text)\n"
        "    def flush(self): Leaving.flushed = self.text\n");
    log_to("Leaving()");
    gReenter = [] { set_dprintf_file(nullptr, -1, nullptr); };
    do_dprintf(kLogCore, "last words\n");
    EXPECT_EQ(eval_text("Leaving.flushed"), "last words\n");
    EXPECT_EQ(gDPrintfFile, nullptr);
}

TEST_F(Diagnostics, a_file_is_held_until_it_is_replaced) {
    const long before = eval_long("sys.getrefcount(file)");
    log_to("file");
    EXPECT_EQ(eval_long("sys.getrefcount(file)"), before + 2) << "one for the file, one for the record";
    log_to("file");
    EXPECT_EQ(eval_long("sys.getrefcount(file)"), before + 2);
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(eval_long("sys.getrefcount(file)"), before + 2);
    set_dprintf_file(nullptr, -1, nullptr);
    EXPECT_EQ(eval_long("sys.getrefcount(file)"), before);
}

TEST_F(Diagnostics, a_file_that_logs_when_it_dies_does_no_harm) {
    run("class Dying(object):\n"
        "    def write(self, text): pass\n"
        "    def flush(self): pass\n"
        "    def __del__(self): reenter()\n");
    bool died = false;
    gReenter = [&] {
        died = true;
        do_dprintf(kLogCore, "from the grave\n");
    };
    log_to("Dying()");
    log_to("file");
    EXPECT_TRUE(died);
    EXPECT_EQ(written(), "from the grave\n") << "the new file is in place by then";
}

int gTracedCalls = 0;

int count_traced_calls(PyObject* /*object*/, PyFrameObject* /*frame*/, int what, PyObject* /*argument*/) {
    gTracedCalls += what == 0 ? 1 : 0;
    return 0;
}

TEST_F(Diagnostics, what_a_line_runs_is_not_traced) {
    log_to("file");
    const Ref printable = eval("Printable()");
    const Ref tag = eval("object()");
    gTracedCalls = 0;
    xpy.PyEval_SetTrace(count_traced_calls, tag.get());
    do_dprintf(kLogCore, "line\n");
    get_dprintf_repr_str1(&gUnsafeGlobalDPData, printable.get());
    do_dprintf_repr(kLogCore, "", printable.get(), "");
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
    do_dlogexception();
    xpy.PyErr_Clear();
    const int traced = gTracedCalls;
    Ref::steal(xpy.PyObject_Repr(printable.get())) = Ref();
    xpy.PyEval_SetTrace(nullptr, nullptr);
    EXPECT_EQ(traced, 0);
    EXPECT_EQ(gTracedCalls, 1) << "tracing goes on afterwards";
    EXPECT_EQ(eval_long("Printable.reprs"), 3);
}

TEST_F(Diagnostics, a_line_is_written_also_where_the_thread_state_can_be_asked_for_in_one_way_only) {
    log_to("file");
    {
        const SavedRecord saved;
        xpy.PyThreadState_GetUnchecked = nullptr;
        xpy._PyThreadState_UncheckedGet = nullptr;
        xpy._PyThreadState_Current = nullptr;
        do_dprintf(kLogCore, "line\n");
        EXPECT_EQ(XPy_CurrentThreadStateOrNull(), xpy.PyThreadState_Get());
    }
    EXPECT_EQ(written(), "line\n");
}

TEST_F(Diagnostics, a_thread_without_a_thread_state_writes_nothing) {
    log_to("file");
    std::string frame_text = "unset";
    std::string repr_text = "unset";
    const Ref printable = eval("Printable()");
    std::thread([&] {
        do_dprintf(kLogCore, "line\n");
        do_dp(gUnsafeGlobalDPData.core, "line\n");
        do_dlogexception();
        do_dprintf_repr(kLogCore, "", printable.get(), "");
        frame_text = get_dprintf_frame_str1(printable.get());
        repr_text = get_dprintf_repr_str1(&gUnsafeGlobalDPData, printable.get());
    }).join();
    EXPECT_EQ(written(), "");
    EXPECT_EQ(frame_text, "");
    EXPECT_EQ(repr_text, "fill_str_with_repr() failed: tstate is NULL");
    EXPECT_EQ(guard(), 0);
}

// ---- do_dp ----

TEST_F(Diagnostics, a_record_writes_to_the_process_wide_file_and_not_to_its_own) {
    run("own = File()");
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, eval("own").get(), -1, nullptr);
    ASSERT_NE(record->core, nullptr);
    do_dp(record->core, "nowhere\n");
    log_to("file");
    do_dp(record->core, "%s\n", "line");
    do_dp(record->filenames, "off\n");
    EXPECT_EQ(written(), "line\n");
    EXPECT_EQ(eval_text("own.text"), "");
    free_dp_data(record);
}

TEST_F(Diagnostics, a_record_is_not_gated_by_the_process_wide_mask) {
    log_to("file");
    set_dprintf_mask(0);
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, nullptr, 1, nullptr);
    do_dp(record->core, "line\n");
    EXPECT_EQ(written(), "line\n");
    free_dp_data(record);
}

TEST_F(Diagnostics, a_record_has_a_guard_of_its_own) {
    run("class Chatty(File):\n"
        "    def write(self, text):\n"
        "        File.write(self, text)\n"
        "        reenter()\n"
        "file = Chatty()\n");
    log_to("file");
    tDPData* outer = create_dp_data();
    tDPData* inner = create_dp_data();
    set_dp_data_file_obj(outer, nullptr, 1, nullptr);
    set_dp_data_file_obj(inner, nullptr, 1, nullptr);
    bool has_reentered = false;
    gReenter = [&] {
        if (!has_reentered) {
            has_reentered = true;
            do_dp(outer->core, "suppressed\n");
            do_dp(inner->core, "inner\n");
        }
    };
    do_dp(outer->core, "outer\n");
    EXPECT_EQ(written(), "outer\ninner\n");
    EXPECT_EQ(outer->shared_single_dp_data.in_dprint_count, 0);
    EXPECT_EQ(inner->shared_single_dp_data.in_dprint_count, 0);
    free_dp_data(outer);
    free_dp_data(inner);
}

TEST_F(Diagnostics, a_record_that_is_busy_writes_nothing) {
    log_to("file");
    gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count = 1;
    do_dp(gUnsafeGlobalDPData.core, "line\n");
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(written(), "");
    EXPECT_EQ(guard(), 1);
}

TEST_F(Diagnostics, a_failing_format_of_a_record_writes_its_fixed_text_only) {
    log_to("file");
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, nullptr, 1, nullptr);
    const Ref unprintable = eval("Unprintable()");
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
    do_dp(record->core, "%R", unprintable.get());
    EXPECT_EQ(take_exception(), "ValueError: mine");
    EXPECT_EQ(written(), text_of_failing_repr());
    EXPECT_EQ(record->shared_single_dp_data.in_dprint_count, 0);
    free_dp_data(record);
}

TEST_F(Diagnostics, leave_errno_as_it_was_where_nothing_can_be_written) {
    constexpr int kNoFile = 9999;
    set_dprintf_file(nullptr, kNoFile, nullptr);
    errno = ERANGE;
    dprint_no_tstate(kLogCore, "lost\n");
    EXPECT_EQ(errno, ERANGE);
    set_dprintf_file(nullptr, -1, nullptr);
}

// ---- exceptions ----

class ExceptionLog : public Diagnostics {
  protected:
    void SetUp() override {
        Diagnostics::SetUp();
        run("real_stderr = sys.stderr\n"
            "def fail(): raise KeyError('lost')\n");
        log_to("file");
    }
    void TearDown() override {
        run("sys.stderr = real_stderr");
        Diagnostics::TearDown();
    }

    /// Leaves an exception with a traceback pending.
    void raise_exception() {
        const Ref function = eval("fail");
        EXPECT_EQ(xpy.PyObject_CallObject(function.get(), nullptr), nullptr);
        ASSERT_NE(xpy.PyErr_Occurred(), nullptr);
    }
};

TEST_F(ExceptionLog, holds_the_traceback_without_the_banner) {
    raise_exception();
    do_dlogexception();
    EXPECT_EQ(take_exception(), "KeyError: 'lost'");
    EXPECT_EQ(written().find("Traceback (most recent call last):\n"), 0U) << written();
    EXPECT_NE(written().find(" in fail\n"), std::string::npos) << written();
    EXPECT_NE(written().find("KeyError: 'lost'\n"), std::string::npos) << written();
    EXPECT_EQ(written().find("EXCEPTION IN DEBUG TRACER"), std::string::npos) << written();
    EXPECT_EQ(eval_text("repr(sys.stderr is real_stderr)"), "True");
    EXPECT_EQ(guard(), 0);
}

TEST_F(ExceptionLog, leaves_the_very_exception_pending) {
    run("def keep(): raise kept\nkept = KeyError('kept')\n");
    const Ref function = eval("keep");
    EXPECT_EQ(xpy.PyObject_CallObject(function.get(), nullptr), nullptr);
    do_dlogexception();
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    xpy.PyErr_Fetch(&type, &value, &traceback);
    EXPECT_EQ(value, eval("kept").get());
    EXPECT_NE(traceback, nullptr);
    Ref::steal(type) = Ref();
    Ref::steal(value) = Ref();
    Ref::steal(traceback) = Ref();
}

TEST_F(ExceptionLog, keeps_nothing_of_what_it_wrote) {
    run("import gc, weakref\n"
        "class Local(object): pass\n"
        "def fail_with_a_local():\n"
        "    global seen\n"
        "    local = Local()\n"
        "    seen = weakref.ref(local)\n"
        "    raise KeyError('lost')\n");
    const Ref function = eval("fail_with_a_local");
    EXPECT_EQ(xpy.PyObject_CallObject(function.get(), nullptr), nullptr);
    do_dlogexception();
    EXPECT_EQ(take_exception(), "KeyError: 'lost'");
    run("gc.collect()");
    EXPECT_EQ(eval_text("repr(seen())"), "None") << "the traceback, or what it leads to, is still held";
}

TEST_F(ExceptionLog, leaves_an_exception_whose_making_fails_as_it_was) {
    run("class Unmakeable(Exception):\n"
        "    def __init__(self, *args): raise TypeError('cannot be made')\n");
    const Ref type = eval("Unmakeable");
    xpy.PyErr_SetString(type.get(), "text");
    if (version_number() >= 312) {
        EXPECT_EQ(take_exception(), "TypeError: cannot be made") << "3.12 makes exceptions at once";
        return;
    }
    do_dlogexception();
    EXPECT_EQ(xpy.PyErr_Occurred(), type.get());
    xpy.PyErr_Clear();
    EXPECT_NE(written().find("TypeError: cannot be made"), std::string::npos) << written();
}

TEST_F(ExceptionLog, is_empty_without_an_exception) {
    do_dlogexception();
    do_dp_logexception(gUnsafeGlobalDPData.core);
    EXPECT_EQ(written(), "");
}

TEST_F(ExceptionLog, is_empty_without_a_file) {
    set_dprintf_file(nullptr, -1, nullptr);
    raise_exception();
    do_dlogexception();
    EXPECT_EQ(take_exception(), "KeyError: 'lost'");
    EXPECT_EQ(eval_text("repr(sys.stderr is real_stderr)"), "True");
}

TEST_F(ExceptionLog, is_empty_while_a_line_is_under_way) {
    gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count = 1;
    raise_exception();
    do_dlogexception();
    EXPECT_EQ(take_exception(), "KeyError: 'lost'");
    EXPECT_EQ(written(), "");
    EXPECT_EQ(guard(), 1);
}

TEST_F(ExceptionLog, is_written_in_a_trace_function_but_not_deeper) {
    if (xpy.tstate_offsets.tracing == -1) {
        raise_exception();
        do_dlogexception();
        xpy.PyErr_Clear();
        EXPECT_NE(written(), "") << "a depth that cannot be read does not silence anything";
        return;
    }
    auto* tracing = XPy_GetFieldAddress<std::int32_t>(XPy_CurrentThreadStateOrNull(), xpy.tstate_offsets.tracing);
    for (const int depth : {2, 1}) {
        raise_exception();
        *tracing += depth;
        do_dlogexception();
        *tracing -= depth;
        EXPECT_EQ(take_exception(), "KeyError: 'lost'");
        EXPECT_EQ(written().empty(), depth == 2);
    }
}

TEST_F(ExceptionLog, without_a_standard_error_silences_the_process_from_then_on) {
    for (const char* lose_stderr : {"sys.stderr = None", "del sys.stderr"}) {
        clear_dp_data(&gUnsafeGlobalDPData);
        init_dp_data(&gUnsafeGlobalDPData, 1);
        log_to("file");
        run(lose_stderr);
        raise_exception();
        do_dlogexception();
        EXPECT_EQ(take_exception(), "KeyError: 'lost'");
        EXPECT_EQ(guard(), 1) << "deliberately left taken";
        run("sys.stderr = real_stderr");
        do_dprintf(kLogCore, "never seen\n");
        raise_exception();
        do_dlogexception();
        EXPECT_EQ(take_exception(), "KeyError: 'lost'");
        EXPECT_EQ(written(), "");
        EXPECT_STREQ(get_dprintf_repr_str1(&gUnsafeGlobalDPData, none()),
                     "fill_str_with_repr() failed: in_dprint_count is not 0");
    }
}

TEST_F(ExceptionLog, of_a_record_holds_the_traceback_without_the_banner) {
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, nullptr, 1, nullptr);
    raise_exception();
    do_dp_logexception(record->core);
    EXPECT_EQ(take_exception(), "KeyError: 'lost'");
    EXPECT_EQ(written().find("Traceback (most recent call last):\n"), 0U) << written();
    EXPECT_EQ(written().find("EXCEPTION IN DEBUG TRACER"), std::string::npos) << written();
    EXPECT_EQ(record->shared_single_dp_data.in_dprint_count, 0);
    free_dp_data(record);
}

TEST_F(ExceptionLog, of_a_record_without_a_standard_error_silences_that_record) {
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, nullptr, 1, nullptr);
    run("sys.stderr = None");
    raise_exception();
    do_dp_logexception(record->core);
    EXPECT_EQ(take_exception(), "KeyError: 'lost'");
    run("sys.stderr = real_stderr");
    EXPECT_EQ(record->shared_single_dp_data.in_dprint_count, 1);
    do_dp(record->core, "never seen\n");
    do_dprintf(kLogCore, "seen\n");
    EXPECT_EQ(written(), "seen\n");
    free_dp_data(record);
}

TEST_F(ExceptionLog, survives_a_file_that_raises) {
    log_to("FailingWrite()");
    raise_exception();
    CapturedStderr captured;  // where newer interpreters put what they cannot write
    do_dlogexception();
    captured.take();
    EXPECT_EQ(take_exception(), "KeyError: 'lost'");
    EXPECT_EQ(eval_text("repr(sys.stderr is real_stderr)"), "True");
    EXPECT_EQ(guard(), 0);
}

// ---- reprs ----

TEST_F(Diagnostics, a_line_with_a_repr_is_never_written_though_the_repr_is_asked_for) {
    log_to("file");
    const Ref printable = eval("Printable()");
    const Ref unprintable = eval("Unprintable()");
    do_dprintf_repr(kLogThreading, "before ", printable.get(), " after\n");
    EXPECT_EQ(eval_long("Printable.reprs"), 0) << "not in the mask";
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
    do_dprintf_repr(kLogCore, "before ", printable.get(), " after\n");
    do_dprintf_repr(kLogCore, "before ", unprintable.get(), " after\n");
    do_dprintf_repr(kLogCore, nullptr, nullptr, nullptr);
    EXPECT_EQ(take_exception(), "ValueError: mine");
    EXPECT_EQ(eval_long("Printable.reprs"), 1);
    EXPECT_EQ(eval_long("Unprintable.reprs"), 1);
    EXPECT_EQ(written(), "");
    EXPECT_EQ(guard(), 0);
}

TEST_F(Diagnostics, two_reprs_can_stand_in_one_line) {
    const char* first = get_dprintf_repr_str1(&gUnsafeGlobalDPData, eval("[1, 2]").get());
    const char* second = get_dprintf_repr_str2(&gUnsafeGlobalDPData, eval("{}").get());
    EXPECT_STREQ(first, "[1, 2]");
    EXPECT_STREQ(second, "{}");
    EXPECT_EQ(first, gUnsafeGlobalDPData._repr_str1);
    EXPECT_EQ(second, gUnsafeGlobalDPData._repr_str2);
    EXPECT_STREQ(get_dprintf_repr_str1(&gUnsafeGlobalDPData, nullptr), "<NULL>");
}

TEST_F(Diagnostics, a_repr_that_fails_says_so_and_leaves_the_exception_alone) {
    const Ref unprintable = eval("Unprintable()");
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
    EXPECT_STREQ(get_dprintf_repr_str1(&gUnsafeGlobalDPData, unprintable.get()),
                 "exception getting repr in fill_str_with_repr()");
    EXPECT_EQ(take_exception(), "ValueError: mine");
    EXPECT_EQ(guard(), 0);
}

TEST_F(Diagnostics, a_repr_asked_for_while_a_line_is_written_is_refused) {
    run("class Chatty(File):\n"
        "    def write(self, text):\n"
        "        File.write(self, text)\n"
        "        reenter()\n");
    log_to("Chatty()");
    std::string inner;
    gReenter = [&] { inner = get_dprintf_repr_str1(&gUnsafeGlobalDPData, none()); };
    do_dprintf(kLogCore, "line\n");
    EXPECT_EQ(inner, "fill_str_with_repr() failed: in_dprint_count is not 0");
}

TEST_F(Diagnostics, a_repr_that_logs_is_not_heard) {
    run("class Chatty(object):\n"
        "    def __repr__(self):\n"
        "        reenter()\n"
        "        return '<chatty>'\n");
    log_to("file");
    std::string inner;
    gReenter = [&] {
        do_dprintf(kLogCore, "line\n");
        inner = get_dprintf_repr_str2(&gUnsafeGlobalDPData, none());
    };
    EXPECT_STREQ(get_dprintf_repr_str1(&gUnsafeGlobalDPData, eval("Chatty()").get()), "<chatty>");
    EXPECT_EQ(inner, "fill_str_with_repr() failed: in_dprint_count is not 0");
    EXPECT_EQ(written(), "");
}

TEST_F(Diagnostics, a_repr_is_cut_at_4000_bytes) {
    run("class Long(object):\n    def __init__(self, size): self.size = size\n"
        "    def __repr__(self): return 'x' * self.size\n");
    for (const int size : {3999, 4000, 4001, 100000}) {
        const Ref object = eval("Long(" + std::to_string(size) + ")");
        const std::string text = get_dprintf_repr_str1(&gUnsafeGlobalDPData, object.get());
        EXPECT_EQ(text, std::string(static_cast<std::size_t>(std::min(size, 4000)), 'x'));
    }
}

// ---- frames ----

class FrameText : public Diagnostics {
  protected:
    /// Makes `frame`, of a generator that waits at line 12 of a function which starts at line 10.
    void make_frame(const std::string& filename_expression, const std::string& name = "run") {
        run("source = '\\n' * 9 + 'def " + name +
            "():\\n    a = 1\\n    yield a\\n'\n"
            "space = {}\n"
            "eval(compile(source, " +
            filename_expression +
            ", 'exec'), space)\n"
            "generator = space['" +
            name +
            "']()\n"
            "next(generator)\n"
            "frame = generator.gi_frame\n");
    }
    std::string text() {
        const Ref frame = eval("frame");
        return get_dprintf_frame_str1(frame.get());
    }
};

TEST_F(FrameText, names_line_function_file_and_first_line) {
    make_frame("'/src/app.py'");
    EXPECT_EQ(text(), "line 12 of run (/src/app.py: 10)");
}

TEST_F(FrameText, is_empty_for_no_frame) {
    EXPECT_STREQ(get_dprintf_frame_str1(nullptr), "");
}

TEST_F(FrameText, keeps_a_pending_exception) {
    make_frame("'/src/app.py'");
    const Ref frame = eval("frame");
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
    EXPECT_STREQ(get_dprintf_frame_str1(frame.get()), "line 12 of run (/src/app.py: 10)");
    EXPECT_EQ(take_exception(), "ValueError: mine");
}

TEST_F(FrameText, can_be_had_of_a_finished_generator) {
    make_frame("'/src/app.py'");
    run("generator.close()\ngenerator = None");
    const std::string finished = text();
    EXPECT_EQ(finished.find("line "), 0U) << finished;
    EXPECT_NE(finished.find(" of run (/src/app.py: 10)"), std::string::npos) << finished;
}

TEST_F(FrameText, hides_a_file_name_that_is_not_ascii_when_lines_go_to_python) {
    make_frame("b'/src/caf\\xc3\\xa9.py'.decode('utf-8')" + std::string(is_generation_2() ? ".encode('utf-8')" : ""));
    EXPECT_EQ(text(), "line 12 of run (/src/caf\xc3\xa9.py: 10)");
    log_to("file");
    EXPECT_EQ(text(), "line 12 of run ((non-ascii string): 10)");
}

TEST_F(FrameText, is_cut_at_4000_bytes) {
    make_frame("'/' + 'x' * 5000");
    const std::string expected = "line 12 of run (/" + std::string(5000, 'x');
    EXPECT_EQ(text(), expected.substr(0, 4000));
}

TEST_F(FrameText, stops_where_a_code_object_is_none) {
    make_frame("'/src/app.py'");
    const SavedRecord saved;
    xpy.PyFrame_GetCode = [](PyObject*) { return new_none().release(); };
    EXPECT_EQ(text(), "line 12 of ");
    xpy.PyFrame_GetCode = [](PyObject*) -> PyObject* {
        xpy.PyErr_SetString(xpy.PyExc_RuntimeError, "no code");
        return nullptr;
    };
    EXPECT_EQ(text(), "line 12 of ");
    EXPECT_EQ(take_exception(), "");
}

Ref gCode;

TEST_F(FrameText, stops_where_the_first_line_is_no_number_and_names_what_is_no_string) {
    make_frame("'/src/app.py'");
    run("class Code(object): co_name, co_filename, co_firstlineno = 3, None, 'ten'\n");
    const SavedRecord saved;
    xpy.PyFrame_GetCode = [](PyObject*) { return Ref::share(gCode.get()).release(); };
    gCode = eval("Code()");
    EXPECT_EQ(text(), "line 12 of ");
    run("Code.co_firstlineno = 10");
    EXPECT_EQ(text(), "line 12 of (non-PyString PyObject*) ((non-PyString PyObject*): 10)");
    run("del Code.co_name");
    EXPECT_EQ(text(), "line 12 of (NULL PyObject*) ((non-PyString PyObject*): 10)");
    gCode = Ref();
}

// ---- checked texts ----

TEST_F(Diagnostics, a_string_object_gives_its_text_and_anything_else_a_fixed_one) {
    run("class Derived(str): pass\nclass DerivedUnicode(type(u'')): pass");
    EXPECT_STREQ(dprint_check_pystr(eval("'text'").get()), "text");
    const Ref derived = eval("Derived('derived')");
    EXPECT_STREQ(dprint_check_pystr(derived.get()), "derived");
    const Ref derived_unicode = eval("DerivedUnicode(u'unicode')");
    EXPECT_STREQ(dprint_check_pystr(derived_unicode.get()), "unicode");
    EXPECT_STREQ(dprint_check_pystr(nullptr), "(NULL PyObject*)");
    EXPECT_STREQ(dprint_check_pystr(none()), "(non-PyString PyObject*)");
    EXPECT_STREQ(dprint_check_pystr(eval("bytearray(b'text')").get()), "(non-PyString PyObject*)");
}

TEST_F(Diagnostics, a_string_without_a_utf_8_form_shows_as_null) {
    const Ref text = eval(is_generation_2() ? "u'\\xe9'" : "'\\ud800'");
    xpy.PyErr_SetString(xpy.PyExc_ValueError, "mine");
    EXPECT_STREQ(dprint_check_pystr(text.get()), "(NULL)");
    EXPECT_EQ(take_exception(), "ValueError: mine");
}

TEST_F(Diagnostics, a_text_that_is_not_ascii_is_hidden_when_lines_go_to_python) {
    const char* text = "caf\xc3\xa9";
    EXPECT_EQ(dprint_check_str(text), text);
    log_to("file");
    EXPECT_STREQ(dprint_check_str(text), "(non-ascii string)");
    EXPECT_STREQ(dprint_check_str("\x7f plain"), "\x7f plain");
    EXPECT_STREQ(dprint_check_str(nullptr), "(NULL)");
    log_to("None");
    EXPECT_EQ(dprint_check_str(text), text);
}

// ---- the binding layer's record ----

TEST_F(Diagnostics, the_binding_layers_record_takes_a_file_and_a_descriptor) {
    const long before = eval_long("sys.getrefcount(file)");
    EXPECT_EQ(XPy_SetDPrintfFile(eval("file").get(), 7, &gDP), 1);
    EXPECT_EQ(eval_long("sys.getrefcount(file)"), before + 1);
    EXPECT_EQ(gDP.shared_single_dp_data.file_obj, eval("file").get());
    EXPECT_EQ(gDP.shared_single_dp_data.fileno, 7);
    EXPECT_EQ(gDP.shared_single_dp_data.win32_handle, &gDP);
    EXPECT_EQ(gDP.core, &gDP.shared_single_dp_data);
    EXPECT_EQ(gDPrintfFile, nullptr) << "the process-wide file is another matter";
    EXPECT_EQ(XPy_SetDPrintfNativeFile(-1, nullptr), 1);
    EXPECT_EQ(eval_long("sys.getrefcount(file)"), before);
    EXPECT_EQ(gDP.core, nullptr);
}

TEST_F(Diagnostics, the_binding_layers_record_may_have_no_file) {
    EXPECT_EQ(XPy_SetDPrintfFile(nullptr, -1, nullptr), 1);
    EXPECT_EQ(gDP.core, nullptr);
    EXPECT_EQ(XPy_SetDPrintfFile(none(), -1, nullptr), 1);
    EXPECT_EQ(gDP.core, nullptr) << "None is no output";
    EXPECT_EQ(XPy_SetDPrintfFile(none(), 7, nullptr), 1);
    EXPECT_NE(gDP.core, nullptr) << "the descriptor is one";
}

TEST_F(Diagnostics, setting_the_binding_layers_mask_keeps_its_file_and_tells_the_old_mask) {
    XPy_SetDPrintfFile(eval("file").get(), -1, nullptr);
    EXPECT_EQ(XPy_SetDPrintfMask(kLogThreading), 84);
    EXPECT_EQ(XPy_SetDPrintfMask(kLogCore), kLogThreading);
    EXPECT_NE(gDP.core, nullptr);
    EXPECT_EQ(gDP.threading, nullptr);
    EXPECT_EQ(get_dprintf_mask(), 84) << "the process-wide mask is another matter";
}

TEST_F(Diagnostics, clearing_a_record_drops_its_file) {
    const long before = eval_long("sys.getrefcount(file)");
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, eval("file").get(), -1, nullptr);
    set_dp_data_file_obj(record, eval("file").get(), -1, nullptr);
    EXPECT_EQ(eval_long("sys.getrefcount(file)"), before + 1);
    clear_dp_data(record);
    EXPECT_EQ(eval_long("sys.getrefcount(file)"), before);
    set_dp_data_file_obj(record, eval("file").get(), -1, nullptr);
    free_dp_data(record);
    EXPECT_EQ(eval_long("sys.getrefcount(file)"), before);
}

TEST_F(Diagnostics, the_steps_of_binding_are_traced_to_a_descriptor) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    XPy_SetDPrintfNativeFile(ends[1], nullptr);
    std::string traces;
    const int minor = xpy.minor_version;
    const XPyObjectOffsets header = xpy.pyobject_offsets;
    const XPyTypeObjectOffsets type = xpy.typeobject_offsets;
    const bool free_threaded = is_free_threaded();
    void* accessor = XPy_LookupPythonFunction("_Py_GetThreadLocal_Addr");
    {
        const SavedRecord saved;
        std::memset(&xpy, 0, sizeof xpy);
        CapturedStderr captured;
        EXPECT_EQ(XPy_Initialize(), 0);
        captured.take();
    }
    XPy_SetDPrintfNativeFile(-1, nullptr);
    close(ends[1]);
    char buffer[2048];
    const ssize_t size = read(ends[0], buffer, sizeof buffer);
    close(ends[0]);
    ASSERT_GT(size, 0);
    traces.assign(buffer, static_cast<std::size_t>(size));

    char expected[2048];
    std::string text;
    if (xpy.major_version == 3) {
        std::snprintf(expected, sizeof expected, "IsFreeThreadingBuild(): c_func_ptr = %p\n", accessor);
        text += expected;
    }
    std::snprintf(expected, sizeof expected,
                  "FindInitFunction() succeeded major_version = %i, free_t_build = %i, pydebug_build = %i\n"
                  "pyobject_offsets: refcnt=%i type=%i mutex=%i overflow=%i flags=%i\n",
                  static_cast<int>(xpy.major_version), free_threaded ? 1 : 0, static_cast<int>(xpy.pydebug_build),
                  static_cast<int>(header.refcnt), static_cast<int>(header.type), static_cast<int>(header.mutex),
                  static_cast<int>(header.overflow), static_cast<int>(header.flags));
    text += expected;
    if (xpy.major_version == 3 && minor > 7) {
        std::snprintf(expected, sizeof expected,
                      "typeobject: tp_basicsize offset = %i, tp_vectorcall_offset offset = %i, max_align = 16\n",
                      static_cast<int>(type.tp_basicsize), static_cast<int>(type.tp_vectorcall_offset));
        text += expected;
    }
    text += "XPy_InitializeGlobalData() succeeded\n";
    EXPECT_EQ(traces, text);
}

}  // namespace
