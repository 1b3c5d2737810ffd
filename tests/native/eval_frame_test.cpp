// Frame-evaluation hooks: put in, run through, and taken out again, on the versions that each pair serves.

#include "xoptmonitoring/binding/xpy_c_api_extra.h"

#include <thread>

#include "live_interpreter.h"

namespace {

/// One pair of hooks with the versions it serves, and a function of its type that counts and passes on.
struct NoThreadState {
    using Function = XPyEvalFrameNoThreadState;
    static constexpr int kFirst = 306;
    static constexpr int kLast = 308;
    static Function get() {
        return XPy_GetEvalFrameFunctionNoThreadState();
    }
    static int set(Function function) {
        return XPy_SetEvalFrameFunctionNoThreadState(function);
    }
    static PyObject* count(PyFrameObject* frame, int throwflag) {
        ++calls;
        return previous(frame, throwflag);
    }
    static inline Function previous = nullptr;
    static inline int calls = 0;
};

struct WithThreadState {
    using Function = XPyEvalFrameWithThreadState;
    static constexpr int kFirst = 309;
    static constexpr int kLast = 310;
    static Function get() {
        return XPy_GetEvalFrameFunctionWithThreadState();
    }
    static int set(Function function) {
        return XPy_SetEvalFrameFunctionWithThreadState(function);
    }
    static PyObject* count(PyThreadState* tstate, PyFrameObject* frame, int throwflag) {
        ++calls;
        return previous(tstate, frame, throwflag);
    }
    static inline Function previous = nullptr;
    static inline int calls = 0;
};

struct InterpreterFrame {
    using Function = XPyEvalFramePyInterpreterFrame;
    static constexpr int kFirst = 311;
    static constexpr int kLast = 311;
    static Function get() {
        return XPy_GetEvalFrameFunctionPyInterpreterFrame();
    }
    static int set(Function function) {
        return XPy_SetEvalFrameFunctionPyInterpreterFrame(function);
    }
    static PyObject* count(PyThreadState* tstate, _PyInterpreterFrame* frame, int throwflag) {
        ++calls;
        return previous(tstate, frame, throwflag);
    }
    static inline Function previous = nullptr;
    static inline int calls = 0;
};

template <class Family>
class EvalFrame : public LiveInterpreterTest {
  protected:
    static bool is_served() {
        return version_number() >= Family::kFirst && version_number() <= Family::kLast;
    }

    /// On other versions nothing is read or changed.
    void expect_refusal() {
        EXPECT_EQ(Family::get(), nullptr);
        EXPECT_EQ(Family::set(Family::count), -1);
        EXPECT_EQ(eval_long("6 * 7"), 42);
    }
};

using Families = testing::Types<NoThreadState, WithThreadState, InterpreterFrame>;
TYPED_TEST_SUITE(EvalFrame, Families, );

TYPED_TEST(EvalFrame, a_function_is_put_in_runs_every_frame_and_is_taken_out_or_nothing_is_changed) {
    if (!this->is_served()) {
        this->expect_refusal();
        return;
    }
    this->run("def add(a, b): return a + b\ndef twice(a): return add(a, a)\n");
    TypeParam::previous = TypeParam::get();
    ASSERT_NE(TypeParam::previous, nullptr);
    TypeParam::calls = 0;

    ASSERT_EQ(TypeParam::set(TypeParam::count), 0);
    EXPECT_EQ(TypeParam::get(), TypeParam::count);
    EXPECT_EQ(this->eval_long("twice(21)"), 42);
    EXPECT_EQ(TypeParam::calls, 3) << "the expression and two functions";

    ASSERT_EQ(TypeParam::set(TypeParam::previous), 0);
    EXPECT_EQ(TypeParam::get(), TypeParam::previous);
    EXPECT_EQ(this->eval_long("twice(2)"), 4);
    EXPECT_EQ(TypeParam::calls, 3);
}

TYPED_TEST(EvalFrame, an_exception_passes_through_the_function_or_nothing_is_changed) {
    if (!this->is_served()) {
        this->expect_refusal();
        return;
    }
    this->run(
        "def fail():\n"
        "    raise KeyError('gone')\n"
        "def catch():\n"
        "    try: fail()\n"
        "    except KeyError as error: return error.args[0]\n");
    TypeParam::previous = TypeParam::get();
    ASSERT_EQ(TypeParam::set(TypeParam::count), 0);
    EXPECT_EQ(this->eval_text("catch()"), "gone");
    ASSERT_EQ(TypeParam::set(TypeParam::previous), 0);
}

TYPED_TEST(EvalFrame, a_null_function_is_refused) {
    const auto before = TypeParam::get();
    EXPECT_EQ(TypeParam::set(nullptr), -1);
    EXPECT_EQ(TypeParam::get(), before);
}

TYPED_TEST(EvalFrame, a_thread_without_a_thread_state_has_no_interpreter_to_change) {
    typename TypeParam::Function found = TypeParam::count;
    int result = 0;
    std::thread([&] {
        found = TypeParam::get();
        result = TypeParam::set(TypeParam::count);
    }).join();
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(result, -1);
}

TYPED_TEST(EvalFrame, the_interpreter_is_found_also_where_the_thread_state_can_be_asked_for_in_one_way_only) {
    const auto found = TypeParam::get();
    const SavedRecord saved;
    xpy.PyThreadState_GetUnchecked = nullptr;
    xpy._PyThreadState_UncheckedGet = nullptr;
    xpy._PyThreadState_Current = nullptr;
    EXPECT_EQ(TypeParam::get(), found);
    EXPECT_EQ(found != nullptr, this->is_served());
}

TYPED_TEST(EvalFrame, an_interpreter_without_the_entry_points_has_no_hooks) {
    const SavedRecord saved;
    xpy._PyInterpreterState_GetEvalFrameFunc = nullptr;
    xpy._PyInterpreterState_SetEvalFrameFunc = nullptr;
    xpy.interpreter_state_offsets.eval_frame = -1;
    EXPECT_EQ(TypeParam::get(), nullptr);
    EXPECT_EQ(TypeParam::set(TypeParam::count), -1);
}

TYPED_TEST(EvalFrame, an_interpreter_that_cannot_be_found_has_no_hooks) {
    const SavedRecord saved;
    xpy.tstate_offsets.interp = -1;
    EXPECT_EQ(TypeParam::get(), nullptr);
    EXPECT_EQ(TypeParam::set(TypeParam::count), -1);
}

}  // namespace
