// 3.4: the last version that makes modules in one phase only.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#include "fake_names.inc"

namespace {

const void* gDefinition = nullptr;
FakeObject gModule;

}  // namespace

extern "C" PyObject* PyModule_Create2(void* definition, int api_version) {
    EXPECT_EQ(api_version, 1013);
    gDefinition = definition;
    return as_py(&gModule);
}

namespace {

class MinorVersion4 : public FakeInterpreter {
  protected:
    void SetUp() override {
        FakeInterpreter::SetUp();
        gFake.version[1] = 4;
        ASSERT_EQ(bind(), Bound(0, ""));
    }
};

template <class Field>
Field field_at(const void* definition, std::size_t offset) {
    Field value;
    std::memcpy(&value, static_cast<const char*>(definition) + offset, sizeof value);
    return value;
}

PyObject* create(PyObject* /*spec*/, PyModuleDefBlock* /*definition*/) {
    return nullptr;
}

TEST_F(MinorVersion4, reports_a_create_hook_without_a_line_end_and_goes_on) {
    XPyModuleDef module{};
    module.m_name = "sample";
    module.m_size = 8;
    module.m_create = create;
    testing::internal::CaptureStderr();
    auto* definition = exported<PyModuleDefBlock*(XPyModuleDef*)>("XPy_CreatePy3ModuleDef")(&module);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Setting multi-phase module loading functions not supported before 3.5");
    ASSERT_NE(definition, nullptr);
    EXPECT_STREQ(field_at<const char*>(definition, 40), "sample");
    EXPECT_EQ(field_at<Py_ssize_t>(definition, 56), 8);
    EXPECT_EQ(field_at<void*>(definition, 72), nullptr) << "no slots";
}

TEST_F(MinorVersion4, makes_modules_in_one_phase) {
    PyMethodDef methods[] = {{nullptr, nullptr, 0, nullptr}};
    PyObject* module = exported<PyObject*(const char*, PyMethodDef*)>("XPy_InitModule")("sample", methods);
    EXPECT_EQ(module, as_py(&gModule));
    EXPECT_STREQ(field_at<const char*>(gDefinition, 40), "sample");
    EXPECT_EQ(field_at<const char*>(gDefinition, 48), nullptr);
    EXPECT_EQ(field_at<Py_ssize_t>(gDefinition, 56), -1);
    EXPECT_EQ(field_at<PyMethodDef*>(gDefinition, 64), methods);
}

TEST_F(MinorVersion4, knows_no_phases) {
    XPyModuleDef definition{};
    definition.m_name = "sample";
    EXPECT_EQ(exported<PyObject*(XPyModuleDef*)>("XPyModuleDef_Init")(&definition), nullptr);
    expect_import_error();
    gFake.pending = nullptr;
    EXPECT_EQ(import(), nullptr);
    expect_import_error();
}

TEST_F(MinorVersion4, has_the_layouts_of_its_time) {
    EXPECT_EQ(record().frame_offsets.lineno, 124);
    EXPECT_EQ(record().tstate_offsets.thread_id, 152);
    EXPECT_EQ(record().typeobject_offsets.tp_base, -1);
}

}  // namespace
