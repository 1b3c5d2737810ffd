// The layout tables: how they are laid out, which one is chosen for which interpreter, and where every field
// comes to lie. No interpreter is needed, since tables are data and the version is a word in the record.

#include "xoptmonitoring/binding/xpy_c_api.h"
#include "xoptmonitoring/binding/xpy_layouts.h"

#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

/// What an offset record has to hold, -1 where nothing is known.
constexpr std::int64_t kNone = -1;

/// A pretended interpreter: its version, and how it was built.
struct Interpreter {
    int major;
    int minor;
    bool free_threaded = false;
    bool traces_references = false;
};

/// Starts from an empty record and ends with one, as in a process that has not bound yet.
class Layouts : public testing::Test {
  protected:
    void SetUp() override {
        std::memset(&xpy, 0, sizeof xpy);
        forget_layouts();
    }
    void TearDown() override {
        std::memset(&xpy, 0, sizeof xpy);
    }

    /// Learns the layouts of an interpreter as binding does. Returns what went to standard error.
    static std::string learn(const Interpreter& interpreter) {
        std::memset(&xpy, 0, sizeof xpy);
        forget_layouts();
        xpy.major_version = interpreter.major;
        xpy.minor_version = interpreter.minor;
        xpy.pydebug_build = interpreter.traces_references ? 1 : 0;
        testing::internal::CaptureStderr();
        learn_object_layout(interpreter.free_threaded);
        learn_frame_layouts();
        return testing::internal::GetCapturedStderr();
    }

    /// Gives header pseudo-rows their size without any interpreter.
    static void set_type_offset(std::int64_t offset) {
        xpy.pyobject_offsets.type = offset;
    }
};

Py_ssize_t offset_in(const XPy_FieldWithSize* table, const char* name) {
    return FindFieldOffsetMissingOk(name, table);
}

Py_ssize_t size_of(const XPy_FieldWithSize* table) {
    return FindFieldOffsetMissingOk(nullptr, table);
}

// ---- laying a table out ----

TEST_F(Layouts, a_field_is_aligned_to_its_size) {
    const XPy_FieldWithSize table[] = {{"a", 1}, {"b", 2}, {"c", 1}, {"d", 4}, {"e", 1}, {"f", 8}, {nullptr, 0}};
    EXPECT_EQ(offset_in(table, "a"), 0);
    EXPECT_EQ(offset_in(table, "b"), 2);
    EXPECT_EQ(offset_in(table, "c"), 4);
    EXPECT_EQ(offset_in(table, "d"), 8);
    EXPECT_EQ(offset_in(table, "e"), 12);
    EXPECT_EQ(offset_in(table, "f"), 16);
    EXPECT_EQ(size_of(table), 24);
}

TEST_F(Layouts, no_field_is_aligned_to_more_than_a_word) {
    const XPy_FieldWithSize table[] = {{"a", 4}, {"inner", 36}, {"b", 4}, {"wide", 16}, {nullptr, 0}};
    EXPECT_EQ(offset_in(table, "inner"), 8);
    EXPECT_EQ(offset_in(table, "b"), 44);
    EXPECT_EQ(offset_in(table, "wide"), 48);
    EXPECT_EQ(size_of(table), 64);
}

TEST_F(Layouts, the_total_size_ends_with_the_last_field_and_not_with_padding) {
    const XPy_FieldWithSize table[] = {{"a", 8}, {"b", 1}, {nullptr, -1}};
    EXPECT_EQ(size_of(table), 9);
    const XPy_FieldWithSize empty[] = {{nullptr, 0}};
    EXPECT_EQ(size_of(empty), 0);
    EXPECT_EQ(offset_in(empty, "a"), -1);
}

TEST_F(Layouts, a_name_that_no_row_has_gives_minus_1_silently) {
    const XPy_FieldWithSize table[] = {{"a", 8}, {nullptr, 0}};
    testing::internal::CaptureStderr();
    EXPECT_EQ(offset_in(table, "b"), -1);
    EXPECT_EQ(offset_in(table, ""), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Layouts, a_required_field_that_is_missing_is_named_on_standard_error) {
    const XPy_FieldWithSize table[] = {{"a", 8}, {nullptr, 0}};
    testing::internal::CaptureStderr();
    EXPECT_EQ(FindFieldOffset("b", table), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to find field offset for: b\n");
}

TEST_F(Layouts, an_unknown_size_hides_itself_and_what_follows_but_not_what_precedes) {
    for (const Py_ssize_t unknown : {Py_ssize_t{-1}, Py_ssize_t{0}}) {
        const XPy_FieldWithSize table[] = {{"a", 8}, {"inner", unknown}, {"b", 8}, {nullptr, 0}};
        EXPECT_EQ(offset_in(table, "a"), 0);
        EXPECT_EQ(offset_in(table, "inner"), -1);
        EXPECT_EQ(offset_in(table, "b"), -1);
        EXPECT_EQ(size_of(table), -1);
    }
}

TEST_F(Layouts, a_header_row_counts_once_the_type_offset_is_known) {
    const XPy_FieldWithSize plain[] = {{"<PyObject_HEAD>", 0}, {"a", 8}, {nullptr, 0}};
    const XPy_FieldWithSize var[] = {{"<PyObject_VAR_HEAD>", 0}, {"a", 8}, {nullptr, 0}};
    for (const std::int64_t unknown : {-1, 0}) {
        set_type_offset(unknown);
        EXPECT_EQ(offset_in(plain, "a"), -1);
        EXPECT_EQ(offset_in(var, "a"), -1);
        EXPECT_EQ(size_of(var), -1);
    }
    set_type_offset(8);
    EXPECT_EQ(offset_in(plain, "a"), 16);
    EXPECT_EQ(offset_in(var, "a"), 24);
    set_type_offset(24);
    EXPECT_EQ(offset_in(plain, "a"), 32);
    EXPECT_EQ(offset_in(var, "a"), 40);
}

// ---- single tables ----

TEST_F(Layouts, of_object_headers) {
    EXPECT_EQ(offset_in(pre312_pyobject_fields, "ob_refcnt"), 0);
    EXPECT_EQ(offset_in(pre312_pyobject_fields, "ob_type"), 8);
    EXPECT_EQ(offset_in(py312_13_64bit_pyobject_fields, "ob_refcnt"), 0);
    EXPECT_EQ(offset_in(py312_13_64bit_pyobject_fields, "ob_refcnt_high"), 4);
    EXPECT_EQ(offset_in(py312_13_64bit_pyobject_fields, "ob_type"), 8);
    EXPECT_EQ(offset_in(py314_64bit_pyobject_fields, "ob_refcnt"), 0);
    EXPECT_EQ(offset_in(py314_64bit_pyobject_fields, "ob_overflow"), 4);
    EXPECT_EQ(offset_in(py314_64bit_pyobject_fields, "ob_flags"), 6);
    EXPECT_EQ(offset_in(py314_64bit_pyobject_fields, "ob_type"), 8);
    EXPECT_EQ(offset_in(free_t_pyobject_fields, "ob_flags"), 8);
    EXPECT_EQ(offset_in(free_t_pyobject_fields, "ob_mutex"), 10);
    EXPECT_EQ(offset_in(free_t_pyobject_fields, "ob_gc_bits"), 11);
    EXPECT_EQ(offset_in(free_t_pyobject_fields, "ob_ref_local"), 12);
    EXPECT_EQ(offset_in(free_t_pyobject_fields, "ob_ref_shared"), 16);
    EXPECT_EQ(offset_in(free_t_pyobject_fields, "ob_type"), 24);
    EXPECT_EQ(offset_in(free_t_pyobject_fields, "ob_refcnt"), -1);
}

TEST_F(Layouts, of_type_objects) {
    set_type_offset(8);
    EXPECT_EQ(offset_in(typeobject_fields, "tp_name"), 24);
    EXPECT_EQ(offset_in(typeobject_fields, "tp_basicsize"), 32);
    EXPECT_EQ(offset_in(typeobject_fields, "tp_vectorcall_offset"), 56);
    EXPECT_EQ(offset_in(typeobject_fields, "tp_flags"), 168);
    EXPECT_EQ(offset_in(typeobject_fields, "tp_base"), 256);
}

TEST_F(Layouts, of_module_definitions) {
    set_type_offset(8);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_base.m_init"), 16);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_base.m_index"), 24);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_base.m_copy"), 32);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_name"), 40);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_doc"), 48);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_size"), 56);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_methods"), 64);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_slots"), 72);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_traverse"), 80);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_clear"), 88);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_free"), 96);
    EXPECT_EQ(size_of(py3_mod_def_fields), 104);
}

TEST_F(Layouts, of_the_configurations_inside_3_7_and_3_8) {
    EXPECT_EQ(size_of(py3d7_core_config_fields), 220);
    EXPECT_EQ(size_of(py3d7_main_interpreter_config_fields), 80);
    EXPECT_EQ(size_of(py3d8_pyconfig_fields), 360);
    EXPECT_EQ(offset_in(py3d7_core_config_fields, "hash_seed"), 16);
    EXPECT_EQ(offset_in(py3d8_pyconfig_fields, "hash_seed"), 24);
}

TEST_F(Layouts, have_as_many_rows_as_the_structures_have_fields) {
    const auto count = [](const XPy_FieldWithSize* table) {
        int rows = 0;
        for (; table[rows].name != nullptr; ++rows) {
        }
        return rows;
    };
    EXPECT_EQ(count(typeobject_fields), 31);
    EXPECT_EQ(count(py3_mod_def_fields), 12);
    EXPECT_EQ(count(frame_fields_pre_py3d4), 16);
    EXPECT_EQ(count(frame_fields_py3d4), 16);
    EXPECT_EQ(count(frame_fields_py3d7), 15);
    EXPECT_EQ(count(frame_fields_py3d10), 16);
    EXPECT_EQ(count(py2_tstate_fields), 21);
    EXPECT_EQ(count(py3d0_tstate_fields), 23);
    EXPECT_EQ(count(py3d4_tstate_fields), 23);
    EXPECT_EQ(count(py3d7_tstate_fields), 23);
    EXPECT_EQ(count(py3d10_tstate_fields), 22);
    EXPECT_EQ(count(py3d11_tstate_fields), 23);
    EXPECT_EQ(count(py3d12_tstate_fields), 21);
    EXPECT_EQ(count(py3d13_tstate_fields), 24);
    EXPECT_EQ(count(py3d14_tstate_fields), 24);
    EXPECT_EQ(count(py3d15_tstate_fields), 28);
    EXPECT_EQ(count(py3d6_interpreter_state_fields), 16);
    EXPECT_EQ(count(py3d7_interpreter_state_fields), 24);
    EXPECT_EQ(count(py3d8_interpreter_state_fields), 28);
    EXPECT_EQ(count(py3d7_core_config_fields), 34);
    EXPECT_EQ(count(py3d7_main_interpreter_config_fields), 10);
    EXPECT_EQ(count(py3d8_pyconfig_fields), 54);
}

// ---- selection ----

TEST_F(Layouts, every_known_version_is_learned_without_a_word) {
    EXPECT_EQ(learn({2, 6}), "");
    EXPECT_EQ(learn({2, 7}), "");
    for (int minor = 0; minor <= 14; ++minor) {
        EXPECT_EQ(learn({3, minor}), "") << "3." << minor;
        EXPECT_EQ(learn({3, minor, false, true}), "") << "3." << minor << " that traces references";
    }
    EXPECT_EQ(learn({3, 13, true}), "");
    EXPECT_EQ(learn({3, 14, true}), "");
}

TEST_F(Layouts, are_forgotten_as_minus_1) {
    learn({3, 10});
    forget_layouts();
    std::vector<std::int64_t> words;
    for (const auto& [start, size] : std::vector<std::pair<const void*, std::size_t>>{
             {&xpy.pyobject_offsets, sizeof xpy.pyobject_offsets},
             {&xpy.tstate_offsets, sizeof xpy.tstate_offsets},
             {&xpy.frame_offsets, sizeof xpy.frame_offsets},
             {&xpy.interpreter_state_offsets, sizeof xpy.interpreter_state_offsets},
             {&xpy.cframe_offsets, sizeof xpy.cframe_offsets},
             {&xpy.typeobject_offsets, sizeof xpy.typeobject_offsets}}) {
        const auto* first = static_cast<const std::int64_t*>(start);
        words.insert(words.end(), first, first + size / sizeof(std::int64_t));
    }
    EXPECT_EQ(words.size(), 31U);
    EXPECT_THAT(words, testing::Each(kNone));
    EXPECT_EQ(tstate_exc_info_offset, kNone);
    EXPECT_EQ(tstate_dict_offset, kNone);
    EXPECT_EQ(xpy.max_align, 16);
}

/// Compares the whole object-header record.
void expect_header(std::int64_t refcnt, std::int64_t type, std::int64_t mutex, std::int64_t overflow,
                   std::int64_t flags) {
    EXPECT_EQ(xpy.pyobject_offsets.refcnt, refcnt);
    EXPECT_EQ(xpy.pyobject_offsets.type, type);
    EXPECT_EQ(xpy.pyobject_offsets.mutex, mutex);
    EXPECT_EQ(xpy.pyobject_offsets.overflow, overflow);
    EXPECT_EQ(xpy.pyobject_offsets.flags, flags);
}

TEST_F(Layouts, of_the_object_header_per_version) {
    for (const Interpreter& old : {Interpreter{2, 7}, {3, 0}, {3, 6}, {3, 11}}) {
        learn(old);
        expect_header(0, 8, kNone, kNone, kNone);
    }
    learn({3, 12});
    expect_header(0, 8, kNone, kNone, kNone);
    learn({3, 13});
    expect_header(0, 8, kNone, kNone, kNone);
    learn({3, 14});
    expect_header(0, 8, kNone, 4, 6);
    learn({3, 15});
    expect_header(0, 8, kNone, 4, 6);
    learn({3, 13, true});
    expect_header(kNone, 24, 10, kNone, 8);
    learn({3, 14, true});
    expect_header(kNone, 24, 10, kNone, 8);
}

TEST_F(Layouts, of_a_build_that_traces_references_are_shifted_by_two_words) {
    learn({3, 10, false, true});
    expect_header(16, 24, kNone, kNone, kNone);
    EXPECT_EQ(xpy.typeobject_offsets.tp_basicsize, 48);
    EXPECT_EQ(xpy.typeobject_offsets.tp_base, 272);
    EXPECT_EQ(xpy.frame_offsets.back, 40);
    EXPECT_EQ(offset_in(py3_mod_def_fields, "m_name"), 56);
    learn({2, 7, false, true});
    expect_header(16, 24, kNone, kNone, kNone);
    EXPECT_EQ(xpy.frame_offsets.back, 40);
    // Structures without an object header stay where they are.
    EXPECT_EQ(xpy.tstate_offsets.interp, 8);
}

TEST_F(Layouts, of_type_objects_are_learned_from_3_8_on) {
    for (const Interpreter& old : {Interpreter{2, 7}, {2, 8}, {3, 3}, {3, 7}}) {
        learn(old);
        EXPECT_EQ(xpy.typeobject_offsets.tp_basicsize, kNone);
        EXPECT_EQ(xpy.typeobject_offsets.tp_vectorcall_offset, kNone);
        EXPECT_EQ(xpy.typeobject_offsets.tp_flags, kNone);
        EXPECT_EQ(xpy.typeobject_offsets.tp_base, kNone);
    }
    for (int minor = 8; minor <= 15; ++minor) {
        learn({3, minor});
        EXPECT_EQ(xpy.typeobject_offsets.tp_basicsize, 32);
        EXPECT_EQ(xpy.typeobject_offsets.tp_vectorcall_offset, 56);
        EXPECT_EQ(xpy.typeobject_offsets.tp_flags, 168);
        EXPECT_EQ(xpy.typeobject_offsets.tp_base, 256);
    }
    learn({3, 13, true});
    EXPECT_EQ(xpy.typeobject_offsets.tp_basicsize, 48);
    EXPECT_EQ(xpy.typeobject_offsets.tp_base, 272);
}

/// Compares what all frame tables have in common.
void expect_frame(std::int64_t locals, std::int64_t trace, std::int64_t stacktop, std::int64_t state,
                  std::int64_t lineno, std::int64_t iblock) {
    EXPECT_EQ(xpy.frame_offsets.back, 24);
    EXPECT_EQ(xpy.frame_offsets.code, 32);
    EXPECT_EQ(xpy.frame_offsets.builtins, 40);
    EXPECT_EQ(xpy.frame_offsets.globals, 48);
    EXPECT_EQ(xpy.frame_offsets.locals, locals);
    EXPECT_EQ(xpy.frame_offsets.trace, trace);
    EXPECT_EQ(xpy.frame_offsets.stacktop, stacktop);
    EXPECT_EQ(xpy.frame_offsets.state, state);
    EXPECT_EQ(xpy.frame_offsets.lineno, lineno);
    EXPECT_EQ(xpy.frame_offsets.iblock, iblock);
}

TEST_F(Layouts, of_frames_per_version) {
    for (const Interpreter& old : {Interpreter{2, 7}, {3, 0}, {3, 3}, {3, 4}, {3, 6}}) {
        learn(old);
        expect_frame(56, 80, 72, kNone, 124, 128);
    }
    for (int minor = 7; minor <= 9; ++minor) {
        learn({3, minor});
        expect_frame(56, 80, 72, kNone, 108, 112);
    }
    learn({3, 10});
    expect_frame(56, 72, kNone, 108, 100, 104);
}

TEST_F(Layouts, of_frames_end_with_3_10) {
    for (int minor = 11; minor <= 15; ++minor) {
        learn({3, minor});
        for (const std::int64_t offset :
             {xpy.frame_offsets.lineno, xpy.frame_offsets.code, xpy.frame_offsets.builtins, xpy.frame_offsets.trace,
              xpy.frame_offsets.iblock, xpy.frame_offsets.locals, xpy.frame_offsets.globals, xpy.frame_offsets.back,
              xpy.frame_offsets.stacktop, xpy.frame_offsets.state}) {
            EXPECT_EQ(offset, kNone) << "3." << minor;
        }
    }
}

TEST_F(Layouts, of_the_frame_chain_holder_exist_from_3_10_to_3_12) {
    learn({3, 9});
    EXPECT_EQ(xpy.cframe_offsets.current_frame, kNone);
    learn({3, 10});
    EXPECT_EQ(xpy.cframe_offsets.current_frame, 8);
    EXPECT_EQ(xpy.tstate_offsets.cframe, kNone) << "on 3.10 the holder must never be followed";
    learn({3, 11});
    EXPECT_EQ(xpy.cframe_offsets.current_frame, 8);
    learn({3, 12});
    EXPECT_EQ(xpy.cframe_offsets.current_frame, 0);
    learn({3, 13});
    EXPECT_EQ(xpy.cframe_offsets.current_frame, kNone);
}

struct ThreadStateCase {
    int major;
    int minor;
    XPyThreadStateOffsets offsets;
    std::int64_t exc_info;
};

TEST_F(Layouts, of_thread_states_per_version) {
    // next, interp, frame, c_tracefunc, c_traceobj, thread_id, tracing, use_tracing, cframe, what_event
    const ThreadStateCase cases[] = {
        {2, 7, {0, 8, 16, 48, 64, 144, 28, 32, kNone, kNone}, kNone},
        {3, 0, {0, 8, 16, 48, 64, 144, 32, 36, kNone, kNone}, kNone},
        {3, 3, {0, 8, 16, 48, 64, 144, 32, 36, kNone, kNone}, kNone},
        {3, 4, {8, 16, 24, 56, 72, 152, 40, 44, kNone, kNone}, kNone},
        {3, 6, {8, 16, 24, 56, 72, 152, 40, 44, kNone, kNone}, kNone},
        {3, 7, {8, 16, 24, 64, 80, 176, 44, 48, kNone, kNone}, 144},
        {3, 9, {8, 16, 24, 64, 80, 176, 44, 48, kNone, kNone}, 144},
        {3, 10, {8, 16, 24, 64, 80, 176, 44, kNone, kNone, kNone}, 144},
        {3, 11, {8, 16, kNone, 72, 88, 152, 44, kNone, 56, kNone}, 120},
        {3, 12, {8, 16, kNone, 72, 88, 136, 44, kNone, 56, 48}, 104},
        {3, 13, {8, 16, 72, 88, 104, 152, 60, kNone, kNone, 64}, 120},
        {3, 14, {8, 16, 72, 88, 104, 152, 60, kNone, kNone, 64}, 120},
    };
    for (const ThreadStateCase& expected : cases) {
        learn({expected.major, expected.minor});
        const XPyThreadStateOffsets& found = xpy.tstate_offsets;
        SCOPED_TRACE(std::to_string(expected.major) + "." + std::to_string(expected.minor));
        EXPECT_EQ(found.next, expected.offsets.next);
        EXPECT_EQ(found.interp, expected.offsets.interp);
        EXPECT_EQ(found.frame, expected.offsets.frame);
        EXPECT_EQ(found.c_tracefunc, expected.offsets.c_tracefunc);
        EXPECT_EQ(found.c_traceobj, expected.offsets.c_traceobj);
        EXPECT_EQ(found.thread_id, expected.offsets.thread_id);
        EXPECT_EQ(found.tracing, expected.offsets.tracing);
        EXPECT_EQ(found.use_tracing, expected.offsets.use_tracing);
        EXPECT_EQ(found.cframe, expected.offsets.cframe);
        EXPECT_EQ(found.what_event, expected.offsets.what_event);
        EXPECT_EQ(tstate_exc_info_offset, expected.exc_info);
    }
}

TEST_F(Layouts, of_a_thread_state_that_nobody_has_described_are_not_guessed) {
    for (const Interpreter& unknown : {Interpreter{3, 15}, {3, 16}, {3, 40}, {4, 0}, {4, 10}, {4, 12}, {4, 14}}) {
        SCOPED_TRACE(std::to_string(unknown.major) + "." + std::to_string(unknown.minor));
        EXPECT_EQ(learn(unknown), "Cannot find tstate fields for this python version\n");
        const XPyThreadStateOffsets& found = xpy.tstate_offsets;
        for (const std::int64_t offset :
             {found.next, found.interp, found.frame, found.c_tracefunc, found.c_traceobj, found.thread_id,
              found.tracing, found.use_tracing, found.cframe, found.what_event}) {
            EXPECT_EQ(offset, kNone);
        }
        EXPECT_EQ(tstate_exc_info_offset, kNone);
    }
}

TEST_F(Layouts, of_a_thread_states_dictionary_are_known_one_version_further) {
    for (const auto& [minor, offset] : std::vector<std::pair<int, int>>{
             {7, 152}, {10, 152}, {11, 128}, {12, 112}, {13, 128}, {14, 128}, {15, 152}, {16, -1}}) {
        learn({3, minor});
        EXPECT_EQ(tstate_dict_offset, offset) << "3." << minor;
    }
}

TEST_F(Layouts, of_the_interpreter_state_exist_from_3_6_to_3_8) {
    learn({3, 6});
    EXPECT_EQ(xpy.interpreter_state_offsets.eval_frame, 112);
    learn({3, 7});
    EXPECT_EQ(xpy.interpreter_state_offsets.eval_frame, 464);
    learn({3, 8});
    EXPECT_EQ(xpy.interpreter_state_offsets.eval_frame, 568);
    for (const Interpreter& other : {Interpreter{2, 7}, {3, 5}, {3, 9}, {3, 14}}) {
        learn(other);
        EXPECT_EQ(xpy.interpreter_state_offsets.eval_frame, kNone);
    }
}

TEST_F(Layouts, an_inner_structure_whose_size_cannot_be_found_ends_the_interpreter_state_step) {
    for (auto* table : {py3d7_interpreter_state_fields, py3d8_interpreter_state_fields}) {
        XPy_FieldWithSize* config = table;
        while (std::strcmp(config->name, "config") != 0) {
            ++config;
        }
        config->name = "renamed";
        const int minor = table == py3d7_interpreter_state_fields ? 7 : 8;
        EXPECT_EQ(learn({3, minor}), "Unable to find size of all fields\n");
        EXPECT_EQ(xpy.interpreter_state_offsets.eval_frame, kNone);
        EXPECT_NE(xpy.tstate_offsets.interp, kNone) << "the other layouts are learned all the same";
        config->name = "config";
    }
    EXPECT_EQ(learn({3, 7}), "");
}

}  // namespace
