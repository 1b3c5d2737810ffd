// A debug build that traces references: two more words before every object header, and another entry point.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#include "fake_names.inc"
FAKE_ENTRY_POINT(PyModule_Create2TraceRefs)

namespace {

class TracedReferences : public FakeInterpreter {
  protected:
    void SetUp() override {
        FakeInterpreter::SetUp();
        gFake.version[1] = 10;
        ASSERT_EQ(bind(), Bound(0, ""));
    }
};

TEST_F(TracedReferences, are_recognised_by_the_entry_point) {
    EXPECT_EQ(record().pydebug_build, 1);
    EXPECT_EQ(reinterpret_cast<void*>(record().PyModule_Create2), dlsym(RTLD_DEFAULT, "PyModule_Create2TraceRefs"));
}

TEST_F(TracedReferences, shift_the_object_header_by_16_bytes) {
    const XPyObjectOffsets& header = record().pyobject_offsets;
    EXPECT_EQ(header.refcnt, 16);
    EXPECT_EQ(header.type, 24);
    EXPECT_EQ(header.mutex, -1) << "what is not there is not shifted";
    EXPECT_EQ(header.overflow, -1);
    EXPECT_EQ(header.flags, -1);
}

TEST_F(TracedReferences, make_every_structure_with_a_header_longer) {
    EXPECT_EQ(record().typeobject_offsets.tp_basicsize, 48);
    EXPECT_EQ(record().typeobject_offsets.tp_base, 272);
    EXPECT_EQ(record().frame_offsets.back, 40);
    EXPECT_EQ(record().tstate_offsets.interp, 16) << "a thread state is no object";

    XPyModuleDef module{};
    module.m_name = "sample";
    auto* definition = exported<PyModuleDefBlock*(XPyModuleDef*)>("XPy_CreatePy3ModuleDef")(&module);
    ASSERT_NE(definition, nullptr);
    const char* name = nullptr;
    std::memcpy(&name, reinterpret_cast<const char*>(definition) + 56, sizeof name);
    EXPECT_STREQ(name, "sample");
}

TEST_F(TracedReferences, leave_counting_to_the_interpreter) {
    EXPECT_EQ(record().can_update_refcount_directly, 0);
    EXPECT_EQ(record().refcnt_is_32bit, 0);
}

}  // namespace
