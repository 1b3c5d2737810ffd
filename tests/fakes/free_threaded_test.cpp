// A free-threaded build: another object header, and no count that may be touched.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#include "fake_names.inc"
FAKE_ENTRY_POINT(PyModule_Create2)

extern "C" void* _Py_GetThreadLocal_Addr() {
    unexpected_call("_Py_GetThreadLocal_Addr");
}

namespace {

class FreeThreaded : public FakeInterpreter {};

TEST_F(FreeThreaded, headers_have_a_mutex_and_no_plain_count) {
    for (const long minor : {13, 14}) {
        std::memset(&record(), 0, sizeof(XPy_C_API_Data));
        gFake.version[1] = minor;
        ASSERT_EQ(bind(), Bound(0, ""));
        const XPyObjectOffsets& header = record().pyobject_offsets;
        EXPECT_EQ(header.refcnt, -1);
        EXPECT_EQ(header.type, 24);
        EXPECT_EQ(header.mutex, 10);
        EXPECT_EQ(header.overflow, -1);
        EXPECT_EQ(header.flags, 8);
        EXPECT_EQ(record().can_update_refcount_directly, 0);
        EXPECT_EQ(record().refcnt_is_32bit, 1);
        EXPECT_EQ(record().typeobject_offsets.tp_basicsize, 48);
    }
}

}  // namespace
