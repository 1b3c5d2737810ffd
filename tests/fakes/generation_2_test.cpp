// Generation 2. Built twice: the name FAKE_ENTRY comes from the build and tells whether references are
// traced.

#include "fake_interpreter.h"
#define FAKE_GENERATION 2
#include "fake_names.inc"

namespace {

const char* gCreatedName = nullptr;
int gCreatedVersion = 0;
FakeObject gModule;

}  // namespace

extern "C" PyObject* FAKE_ENTRY(const char* name, PyMethodDef* methods, const char* doc, PyObject* self,
                                int api_version) {
    EXPECT_EQ(methods, nullptr);
    EXPECT_EQ(doc, nullptr);
    EXPECT_EQ(self, nullptr);
    gCreatedName = name;
    gCreatedVersion = api_version;
    return as_py(&gModule);
}

namespace {

class Generation2 : public FakeInterpreter {
  protected:
    void SetUp() override {
        FakeInterpreter::SetUp();
        gFake.version[0] = 2;
        gFake.version[1] = 7;
        gFake.version[2] = 18;
        gFake.api_version = 1017;
    }
};

TEST_F(Generation2, is_bound_and_its_strings_serve_as_bytes) {
    ASSERT_EQ(bind(), Bound(0, ""));
    EXPECT_EQ(record().major_version, 2);
    EXPECT_EQ(record().minor_version, 7);
    EXPECT_EQ(record().micro_version, 18);
    EXPECT_EQ(record().api_version, 1017);
    EXPECT_EQ(record().pydebug_build, FAKE_TRACES_REFERENCES);
    EXPECT_EQ(record().pyobject_offsets.refcnt, 16 * FAKE_TRACES_REFERENCES);
    EXPECT_EQ(record().can_update_refcount_directly, 1 - FAKE_TRACES_REFERENCES);
    EXPECT_EQ(record().refcnt_is_32bit, 0);
    EXPECT_EQ(record().PyModule_Create2, nullptr);
    EXPECT_EQ(record().PyBytes_AsString, record().PyString_AsString);
    EXPECT_NE(record().PyBytes_AsString, nullptr);
    EXPECT_EQ(record().PyBytes_FromString, record().PyString_FromString);
    EXPECT_EQ(record().PyBytes_Size, record().PyString_Size);
    EXPECT_EQ(record().PyBytes_Type_ptr, record().PyString_Type_ptr);
    EXPECT_EQ(gFake.references, 0) << "what binding asked for was given back";
}

TEST_F(Generation2, makes_modules_in_one_phase) {
    PyObject* module = exported<PyObject*(const char*, PyMethodDef*)>("XPy_InitModule")("sample", nullptr);
    EXPECT_EQ(module, as_py(&gModule));
    EXPECT_STREQ(gCreatedName, "sample");
    EXPECT_EQ(gCreatedVersion, 1017);
}

TEST_F(Generation2, knows_no_phases) {
    XPyModuleDef definition{};
    definition.m_name = "sample";
    EXPECT_EQ(exported<PyObject*(XPyModuleDef*)>("XPyModuleDef_Init")(&definition), nullptr);
    expect_import_error();
}

TEST_F(Generation2, ends_the_import_of_this_module_in_an_exception_every_time) {
    for (int again = 0; again < 2; ++again) {
        gFake.pending = nullptr;
        gFake.message.clear();
        exported<void()>("initxoptmonitoring")();
        expect_import_error();
    }
}

}  // namespace
