// 3.15: a version whose thread state is not described.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#include "fake_names.inc"
FAKE_ENTRY_POINT(PyModule_Create2)

namespace {

class MinorVersion15 : public FakeInterpreter {
  protected:
    void SetUp() override {
        FakeInterpreter::SetUp();
        gFake.version[1] = 15;
    }
};

TEST_F(MinorVersion15, is_bound_with_a_word_about_its_thread_state) {
    EXPECT_EQ(bind(), Bound(0, "Cannot find tstate fields for this python version\n"));
    EXPECT_EQ(record().initialized, 1);
    const XPyThreadStateOffsets& tstate = record().tstate_offsets;
    for (const std::int64_t offset :
         {tstate.next, tstate.interp, tstate.frame, tstate.c_tracefunc, tstate.c_traceobj, tstate.thread_id,
          tstate.tracing, tstate.use_tracing, tstate.cframe, tstate.what_event}) {
        EXPECT_EQ(offset, -1);
    }
    EXPECT_EQ(record().pyobject_offsets.refcnt, 0);
    EXPECT_EQ(record().pyobject_offsets.overflow, 4);
    EXPECT_EQ(record().pyobject_offsets.flags, 6);
    EXPECT_EQ(record().refcnt_is_32bit, 1);
}

TEST_F(MinorVersion15, says_it_once) {
    bind();
    EXPECT_EQ(bind(), Bound(0, ""));
}

TEST_F(MinorVersion15, is_bound_without_a_word_where_that_is_no_news) {
    auto* set_quiet = exported<int(int)>("XPy_SetQuietAboutLaterVersions");
    EXPECT_EQ(set_quiet(1), 0);
    EXPECT_EQ(bind(), Bound(0, ""));
    EXPECT_EQ(set_quiet(0), 1);
    EXPECT_EQ(record().initialized, 1);
    EXPECT_EQ(record().tstate_offsets.interp, -1);
}

}  // namespace
