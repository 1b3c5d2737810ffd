// An interpreter that lacks one required name, and gets it later.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#define PyDict_Keys hidden_PyDict_Keys
#include "fake_names.inc"
#undef PyDict_Keys
FAKE_ENTRY_POINT(PyModule_Create2)

extern "C" PyObject* PyModuleDef_Init(PyModuleDefBlock* definition) {
    return reinterpret_cast<PyObject*>(definition);
}

namespace {

class MissingName : public FakeInterpreter {};

TEST_F(MissingName, is_named_and_does_not_settle_the_matter) {
    EXPECT_EQ(bind(), Bound(-1, "GetPtr() failed for PyDict_Keys\n"));
    expect_import_error();
    EXPECT_EQ(record().initialized, 0);
    EXPECT_EQ(record().failed_to_initialize, 0);
    gFake.pending = nullptr;
    EXPECT_EQ(bind(), Bound(-1, "GetPtr() failed for PyDict_Keys\n")) << "tried from the start";
    expect_import_error();
}

TEST_F(MissingName, is_named_also_where_later_versions_are_no_news) {
    auto* set_quiet = exported<int(int)>("XPy_SetQuietAboutLaterVersions");
    set_quiet(1);
    EXPECT_EQ(bind(), Bound(-1, "GetPtr() failed for PyDict_Keys\n"));
    set_quiet(0);
    expect_import_error();
}

TEST_F(MissingName, is_told_to_the_core_category_as_a_failure) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe(ends), 0);
    exported<int(int, void*)>("XPy_SetDPrintfNativeFile")(ends[1], nullptr);
    bind();
    exported<int(int, void*)>("XPy_SetDPrintfNativeFile")(-1, nullptr);
    close(ends[1]);
    char buffer[1024];
    const ssize_t size = read(ends[0], buffer, sizeof buffer);
    close(ends[0]);
    ASSERT_GT(size, 0);
    EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(size)),
              "IsFreeThreadingBuild(): c_func_ptr = (nil)\n"
              "FindInitFunction() succeeded major_version = 3, free_t_build = 0, pydebug_build = 0\n"
              "pyobject_offsets: refcnt=0 type=8 mutex=-1 overflow=-1 flags=-1\n"
              "typeobject: tp_basicsize offset = 32, tp_vectorcall_offset offset = 56, max_align = 16\n"
              "XPy_InitializeGlobalData() failed\n");
}

TEST_F(MissingName, makes_imports_fail_until_it_is_there) {
    testing::internal::CaptureStderr();
    for (int again = 0; again < 2; ++again) {
        gFake.pending = nullptr;
        EXPECT_EQ(import(), nullptr);
        expect_import_error();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "GetPtr() failed for PyDict_Keys\nGetPtr() failed for PyDict_Keys\n");

    ASSERT_NE(dlopen(std::getenv("XOPT_LATE_NAME"), RTLD_NOW | RTLD_GLOBAL), nullptr) << dlerror();
    gFake.pending = nullptr;
    testing::internal::CaptureStderr();
    PyObject* definition = import();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_NE(definition, nullptr);
    EXPECT_EQ(gFake.pending, nullptr);
    EXPECT_EQ(record().initialized, 1);
    EXPECT_EQ(import(), definition) << "converted once";
}

}  // namespace
