// Module definitions: the block and the slot array that come out for each version, and modules made of them.

#include "xoptmonitoring/binding/xpy_c_api_extra.h"
#include "xoptmonitoring/binding/xpy_layouts.h"

#include <utility>
#include <vector>

#include "live_interpreter.h"

namespace {

PyObject* create(PyObject* /*spec*/, PyModuleDefBlock* /*definition*/) {
    return nullptr;
}

int execute(PyObject* /*module*/) {
    return 0;
}

int traverse(PyObject* /*module*/, visitproc /*visit*/, void* /*arg*/) {
    return 0;
}

int clear(PyObject* /*module*/) {
    return 0;
}

void release(void* /*module*/) {}

PyObject* answer(PyObject* /*self*/, PyObject* /*args*/) {
    return xpy.PyLong_FromLong(42);
}

PyMethodDef gMethods[] = {{"answer", answer, METH_VARARGS, "The answer."}, {nullptr, nullptr, 0, nullptr}};

XPyModuleDef full_definition() {
    XPyModuleDef module{};
    module.m_name = "sample";
    module.m_doc = "A sample.";
    module.m_size = 24;
    module.m_methods = gMethods;
    module.m_create = create;
    module.m_exec = execute;
    module.m_multiple_interp_flag = 2;
    module.m_no_gil_support_flag = 1;
    module.m_traverse = traverse;
    module.m_clear = clear;
    module.m_free = release;
    return module;
}

class ModuleDefinition : public LiveInterpreterTest {
  protected:
    template <class Field>
    static Field field(PyModuleDefBlock* definition, const char* name) {
        const Py_ssize_t offset = FindFieldOffsetMissingOk(name, py3_mod_def_fields);
        EXPECT_NE(offset, -1) << name;
        return *XPy_GetFieldAddress<Field>(definition, offset);
    }

    static PyModuleDef_Slot* slots_of(PyModuleDefBlock* definition) {
        return field<PyModuleDef_Slot*>(definition, "m_slots");
    }

    /// Converts for a pretended minor version and lists slot ids and values, without the end.
    static std::vector<std::pair<int, void*>> slots_on(int minor, XPyModuleDef module) {
        const PretendedVersion version(3, minor);
        PyModuleDefBlock* definition = XPy_CreatePy3ModuleDef(&module);
        EXPECT_NE(definition, nullptr);
        std::vector<std::pair<int, void*>> slots;
        const PyModuleDef_Slot* slot = slots_of(definition);
        for (; slot != nullptr && slot->slot != 0; ++slot) {
            slots.emplace_back(slot->slot, slot->value);
        }
        if (slot != nullptr) {
            EXPECT_EQ(slot->value, nullptr);
        }
        return slots;
    }

    static std::vector<int> slot_ids_on(int minor, const XPyModuleDef& module) {
        std::vector<int> ids;
        for (const auto& [id, value] : slots_on(minor, module)) {
            ids.push_back(id);
        }
        return ids;
    }
};

using Ids = std::vector<int>;

TEST_F(ModuleDefinition, every_field_lies_where_its_table_says) {
    const PretendedVersion version(3, 12);
    XPyModuleDef module = full_definition();
    PyModuleDefBlock* definition = XPy_CreatePy3ModuleDef(&module);
    ASSERT_NE(definition, nullptr);
    EXPECT_STREQ(field<const char*>(definition, "m_name"), "sample");
    EXPECT_STREQ(field<const char*>(definition, "m_doc"), "A sample.");
    EXPECT_EQ(field<Py_ssize_t>(definition, "m_size"), 24);
    EXPECT_EQ(field<PyMethodDef*>(definition, "m_methods"), gMethods);
    EXPECT_EQ(field<traverseproc>(definition, "m_traverse"), traverse);
    EXPECT_EQ(field<inquiry>(definition, "m_clear"), clear);
    EXPECT_EQ(field<freefunc>(definition, "m_free"), release);
}

TEST_F(ModuleDefinition, everything_else_in_the_block_is_zero) {
    const PretendedVersion version(3, 12);
    XPyModuleDef module{};
    module.m_name = "sample";
    PyModuleDefBlock* definition = XPy_CreatePy3ModuleDef(&module);
    ASSERT_NE(definition, nullptr);
    const auto* bytes = reinterpret_cast<const unsigned char*>(definition);
    const Py_ssize_t name = FindFieldOffsetMissingOk("m_name", py3_mod_def_fields);
    for (Py_ssize_t at = 0; at < static_cast<Py_ssize_t>(kModuleDefBlockSize); ++at) {
        if (at < name || at >= name + 8) {
            EXPECT_EQ(bytes[at], 0) << at;
        }
    }
}

TEST_F(ModuleDefinition, slots_follow_the_minor_version) {
    const XPyModuleDef module = full_definition();
    for (int minor = 5; minor <= 11; ++minor) {
        EXPECT_EQ(slot_ids_on(minor, module), (Ids{1, 2})) << minor;
    }
    EXPECT_EQ(slot_ids_on(12, module), (Ids{1, 2, 3})) << "no slot for the lock before 3.13";
    for (int minor = 13; minor <= 15; ++minor) {
        EXPECT_EQ(slot_ids_on(minor, module), (Ids{1, 2, 4, 3})) << minor;
    }
}

TEST_F(ModuleDefinition, slots_hold_hooks_and_flags) {
    const auto slots = slots_on(13, full_definition());
    ASSERT_EQ(slots.size(), 4U);
    EXPECT_EQ(slots[0].second, reinterpret_cast<void*>(create));
    EXPECT_EQ(slots[1].second, reinterpret_cast<void*>(execute));
    EXPECT_EQ(slots[2].second, reinterpret_cast<void*>(1));
    EXPECT_EQ(slots[3].second, reinterpret_cast<void*>(2));
}

TEST_F(ModuleDefinition, a_flag_is_handed_on_as_it_is) {
    XPyModuleDef module = full_definition();
    module.m_multiple_interp_flag = -1;
    module.m_no_gil_support_flag = 7;
    const auto slots = slots_on(14, module);
    EXPECT_EQ(slots[2].second, reinterpret_cast<void*>(7));
    EXPECT_EQ(slots[3].second, reinterpret_cast<void*>(-1));
}

TEST_F(ModuleDefinition, one_hook_is_enough_for_slots) {
    XPyModuleDef module = full_definition();
    module.m_create = nullptr;
    EXPECT_EQ(slot_ids_on(12, module), (Ids{2, 3}));
    module = full_definition();
    module.m_exec = nullptr;
    EXPECT_EQ(slot_ids_on(11, module), (Ids{1}));
}

TEST_F(ModuleDefinition, without_a_hook_there_are_no_slots_unless_the_lock_is_not_needed) {
    XPyModuleDef module = full_definition();
    module.m_create = nullptr;
    module.m_exec = nullptr;
    EXPECT_EQ(slot_ids_on(13, module), (Ids{4, 3}));
    EXPECT_EQ(slot_ids_on(12, module), Ids()) << "the flag says nothing before 3.13";
    module.m_no_gil_support_flag = 0;
    EXPECT_EQ(slot_ids_on(13, module), Ids());
    const PretendedVersion version(3, 13);
    EXPECT_EQ(slots_of(XPy_CreatePy3ModuleDef(&module)), nullptr);
}

TEST_F(ModuleDefinition, without_the_claim_the_lock_has_no_slot) {
    XPyModuleDef module = full_definition();
    module.m_no_gil_support_flag = 0;
    EXPECT_EQ(slot_ids_on(13, module), (Ids{1, 2, 3}));
}

TEST_F(ModuleDefinition, before_3_5_a_create_hook_is_reported_and_a_single_phase_definition_made) {
    const PretendedVersion version(3, 4);
    XPyModuleDef module = full_definition();
    CapturedStderr captured;
    PyModuleDefBlock* definition = XPy_CreatePy3ModuleDef(&module);
    EXPECT_EQ(captured.take(), "Setting multi-phase module loading functions not supported before 3.5");
    ASSERT_NE(definition, nullptr);
    EXPECT_STREQ(field<const char*>(definition, "m_name"), "sample");
    EXPECT_EQ(field<PyMethodDef*>(definition, "m_methods"), gMethods);
    EXPECT_EQ(slots_of(definition), nullptr);
    EXPECT_EQ(field<traverseproc>(definition, "m_traverse"), nullptr);
    EXPECT_EQ(field<inquiry>(definition, "m_clear"), nullptr);
    EXPECT_EQ(field<freefunc>(definition, "m_free"), nullptr);
}

TEST_F(ModuleDefinition, before_3_5_an_exec_hook_alone_is_dropped_silently) {
    const PretendedVersion version(3, 4);
    XPyModuleDef module = full_definition();
    module.m_create = nullptr;
    CapturedStderr captured;
    PyModuleDefBlock* definition = XPy_CreatePy3ModuleDef(&module);
    EXPECT_EQ(captured.take(), "");
    ASSERT_NE(definition, nullptr);
    EXPECT_EQ(slots_of(definition), nullptr);
}

TEST_F(ModuleDefinition, an_unknown_header_is_reported_with_the_first_field) {
    const SavedRecord saved;
    xpy.pyobject_offsets.type = -1;
    XPyModuleDef module = full_definition();
    CapturedStderr captured;
    EXPECT_EQ(XPy_CreatePy3ModuleDef(&module), nullptr);
    EXPECT_EQ(captured.take(), "Unable to find field offset for: m_name\n");
}

TEST_F(ModuleDefinition, without_a_name_is_refused_with_an_exception) {
    XPyModuleDef module = full_definition();
    module.m_name = nullptr;
    const std::string message = "SystemError: module definition has no name";
    EXPECT_EQ(XPy_CreatePy3ModuleDef(&module), nullptr);
    EXPECT_EQ(take_exception(), message);
    EXPECT_EQ(XPy_CreatePy3ModuleDef(nullptr), nullptr);
    EXPECT_EQ(take_exception(), message);
    EXPECT_EQ(XPy_InitModule(nullptr, gMethods), nullptr);
    EXPECT_EQ(take_exception(), message);
    if (xpy.PyModuleDef_Init != nullptr) {
        EXPECT_EQ(XPyModuleDef_Init(nullptr), nullptr);
        EXPECT_EQ(take_exception(), message);
    }
}

// ---- modules ----

class SinglePhaseModule : public LiveInterpreterTest {
  protected:
    /// Makes a module. Generation 2 lends it to us, since sys.modules holds it.
    static Ref make(const char* name, PyMethodDef* methods) {
        PyObject* module = XPy_InitModule(name, methods);
        return xpy.major_version == 2 ? Ref::share(module) : Ref::steal(module);
    }
};

TEST_F(SinglePhaseModule, has_its_functions) {
    const Ref module = make("xpy_native_sample", gMethods);
    ASSERT_TRUE(module) << take_exception();
    set_global("sample", module.get());
    EXPECT_EQ(eval_text("sample.__name__"), "xpy_native_sample");
    EXPECT_EQ(eval_text("sample.answer.__doc__"), "The answer.");
    EXPECT_EQ(eval_long("sample.answer()"), 42);
}

TEST_F(SinglePhaseModule, may_have_no_functions) {
    const Ref module = make("xpy_native_empty", nullptr);
    ASSERT_TRUE(module) << take_exception();
    set_global("sample", module.get());
    EXPECT_EQ(eval_text("sample.__name__"), "xpy_native_empty");
}

/// Makes binding fail without a try, as long as it is there.
class TestSwitch {
  public:
    TestSwitch() : previous_(XPy_DbgSetFailOnImport(1)) {}
    TestSwitch(const TestSwitch&) = delete;
    TestSwitch& operator=(const TestSwitch&) = delete;
    ~TestSwitch() {
        XPy_DbgSetFailOnImport(previous_);
    }

  private:
    int previous_;
};

TEST_F(SinglePhaseModule, is_made_after_binding_whatever_the_test_switch_of_binding_says) {
    const TestSwitch on;
    const Ref module = make("xpy_native_switched", gMethods);
    ASSERT_TRUE(module) << take_exception();
    set_global("sample", module.get());
    EXPECT_EQ(eval_long("sample.answer()"), 42);
}

TEST_F(SinglePhaseModule, is_not_made_before_binding_while_the_test_switch_is_on) {
    const SavedRecord saved;
    const TestSwitch on;
    xpy.initialized = 0;
    EXPECT_EQ(XPy_InitModule("xpy_native_switched", gMethods), nullptr);
    EXPECT_EQ(take_exception(), "ImportError: Unable to init XPy");
}

int gExecuted = 0;

int count_execution(PyObject* module) {
    ++gExecuted;
    return xpy.PyModule_AddIntConstant(module, "constant", 17);
}

class MultiPhaseModule : public LiveInterpreterTest {};

TEST_F(MultiPhaseModule, is_refused_where_the_interpreter_knows_no_phases) {
    const SavedRecord saved;
    xpy.PyModuleDef_Init = nullptr;
    XPyModuleDef module = full_definition();
    EXPECT_EQ(XPyModuleDef_Init(&module), nullptr);
    EXPECT_EQ(take_exception(), "ImportError: Unable to init XPy");
}

TEST_F(MultiPhaseModule, is_defined_after_binding_whatever_the_test_switch_of_binding_says) {
    const SavedRecord saved;
    const TestSwitch on;
    xpy.PyModuleDef_Init = [](PyModuleDefBlock* definition) { return reinterpret_cast<PyObject*>(definition); };
    XPyModuleDef module = full_definition();
    EXPECT_NE(XPyModuleDef_Init(&module), nullptr) << take_exception();
    xpy.initialized = 0;
    EXPECT_EQ(XPyModuleDef_Init(&module), nullptr) << "before binding it has";
    EXPECT_EQ(take_exception(), "ImportError: Unable to init XPy");
}

TEST_F(MultiPhaseModule, is_created_and_executed_by_an_interpreter_that_knows_phases) {
    if (xpy.PyModuleDef_Init == nullptr) {
        EXPECT_EQ(xpy.major_version, 2) << "all of generation 3 that is supported knows phases";
        XPyModuleDef refused = full_definition();
        EXPECT_EQ(XPyModuleDef_Init(&refused), nullptr);
        EXPECT_EQ(take_exception(), "ImportError: Unable to init XPy");
        return;
    }
    using FromDefinition = PyObject* (*)(PyObject * definition, PyObject * spec, int api_version);
    using Execute = int (*)(PyObject * module, PyObject * definition);
    const auto from_definition = reinterpret_cast<FromDefinition>(XPy_LookupPythonFunction("PyModule_FromDefAndSpec2"));
    const auto execute_module = reinterpret_cast<Execute>(XPy_LookupPythonFunction("PyModule_ExecDef"));
    ASSERT_NE(from_definition, nullptr);
    ASSERT_NE(execute_module, nullptr);

    static XPyModuleDef module{};
    module.m_name = "phased";
    module.m_doc = "Made in phases.";
    module.m_methods = gMethods;
    module.m_exec = count_execution;
    module.m_multiple_interp_flag = 2;
    module.m_no_gil_support_flag = 1;
    PyObject* definition = XPyModuleDef_Init(&module);
    ASSERT_NE(definition, nullptr) << take_exception();

    run("import importlib.machinery\nspec = importlib.machinery.ModuleSpec('phased', None)");
    const Ref spec = eval("spec");
    const Ref made = Ref::steal(from_definition(definition, spec.get(), xpy.api_version));
    ASSERT_TRUE(made) << take_exception();
    gExecuted = 0;
    ASSERT_EQ(execute_module(made.get(), definition), 0) << take_exception();
    EXPECT_EQ(gExecuted, 1);
    set_global("made", made.get());
    EXPECT_EQ(eval_long("made.constant"), 17);
    EXPECT_EQ(eval_long("made.answer()"), 42);
    EXPECT_EQ(eval_text("made.__doc__"), "Made in phases.");
}

}  // namespace
