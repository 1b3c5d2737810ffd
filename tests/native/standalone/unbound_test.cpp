// The exported functions in a process without any interpreter: nothing is called through an empty slot, and
// what does not need an interpreter works.

#include "xoptmonitoring/binding/xpy_c_api_extra.h"
#include "xoptmonitoring/diagnostics/dprintf.h"

#include <cerrno>
#include <clocale>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

/// Memory that can stand for an object as long as nobody looks into it.
PyObject* some_object() {
    static char memory[64];
    return reinterpret_cast<PyObject*>(memory);
}

/// A pipe whose writing end is given to the code under test.
class Pipe {
  public:
    Pipe() {
        EXPECT_EQ(pipe(ends_), 0);
        EXPECT_NE(fcntl(ends_[0], F_SETFL, O_NONBLOCK), -1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        close(ends_[0]);
        close(ends_[1]);
    }

    int writing_end() const {
        return ends_[1];
    }

    /// What has been written since the last call.
    std::string read_all() const {
        std::string all;
        char buffer[4096];
        for (;;) {
            const ssize_t size = read(ends_[0], buffer, sizeof buffer);
            if (size <= 0) {
                return all;
            }
            all.append(buffer, static_cast<std::size_t>(size));
        }
    }

  private:
    int ends_[2] = {-1, -1};
};

class Unbound : public testing::Test {
  protected:
    void SetUp() override {
        std::memset(&xpy, 0, sizeof xpy);
        reset_diagnostics();
    }
    void TearDown() override {
        reset_diagnostics();
        std::memset(&xpy, 0, sizeof xpy);
    }

  private:
    static void reset_diagnostics() {
        for (tDPData* dp_data : {&gDP, &gUnsafeGlobalDPData}) {
            clear_dp_data(dp_data);
            std::memset(dp_data, 0, sizeof *dp_data);
        }
        gDPrintfMask = kLogCore | kLogExceptions | kLogInternalFailures;
        gDPrintfNativeFileno = -1;
    }
};

// ---- binding ----

TEST_F(Unbound, the_queries_answer_that_nothing_is_known) {
    EXPECT_EQ(XPy_GetMajorVersion(), 0);
    EXPECT_EQ(XPy_GetMinorVersion(), 0);
    EXPECT_EQ(XPy_BorrowType(some_object()), nullptr);
    EXPECT_EQ(XPy_BorrowType(nullptr), nullptr);
    EXPECT_EQ(XPy_PyObjectsEqual(some_object(), some_object()), -1);
    EXPECT_EQ(XPy_LookupPythonFunction("Py_GetVersion"), nullptr);
    EXPECT_EQ(XPy_LookupPythonFunction(nullptr), nullptr);
    EXPECT_EQ(XPy_CurrentThreadStateOrNull(), nullptr);
}

TEST_F(Unbound, a_symbol_of_the_program_itself_is_found) {
    EXPECT_NE(XPy_LookupPythonFunction("malloc"), nullptr);
}

TEST_F(Unbound, a_process_without_an_interpreter_fails_for_good_and_says_so_once) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to find module init function\n");
    EXPECT_EQ(xpy.failed_to_initialize, 1);
    EXPECT_EQ(xpy.initialized, 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(XPy_Initialize(), -1);
    EXPECT_EQ(XPy_InitializeWithDllPtr(nullptr), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "not tried again";
}

TEST_F(Unbound, a_library_that_cannot_be_opened_holds_no_interpreter) {
    char name[] = "no-such-library.so";
    testing::internal::CaptureStderr();
    EXPECT_EQ(XPy_InitializeWithDllPtr(name), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to find module init function\n");
    EXPECT_EQ(xpy.dll_ptr, name);
    EXPECT_EQ(XPy_LookupPythonFunction("malloc"), nullptr);
}

// ---- module definition and hooks ----

TEST_F(Unbound, a_definition_cannot_be_converted_before_the_header_size_is_known) {
    XPyModuleDef module{};
    module.m_name = "sample";
    testing::internal::CaptureStderr();
    EXPECT_EQ(XPy_CreatePy3ModuleDef(&module), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to find field offset for: m_name\n");
    EXPECT_EQ(XPy_CreatePy3ModuleDef(nullptr), nullptr);
}

TEST_F(Unbound, modules_cannot_be_made) {
    XPyModuleDef module{};
    module.m_name = "sample";
    testing::internal::CaptureStderr();
    EXPECT_EQ(XPy_InitModule("sample", nullptr), nullptr);
    EXPECT_EQ(XPyModuleDef_Init(&module), nullptr);
    EXPECT_EQ(XPy_InitModule(nullptr, nullptr), nullptr);
    EXPECT_EQ(XPyModuleDef_Init(nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to find module init function\n");
}

TEST_F(Unbound, frame_evaluation_has_no_hooks) {
    const auto old_style = [](PyFrameObject*, int) -> PyObject* { return nullptr; };
    const auto object_style = [](PyThreadState*, PyFrameObject*, int) -> PyObject* { return nullptr; };
    const auto frame_style = [](PyThreadState*, _PyInterpreterFrame*, int) -> PyObject* { return nullptr; };
    EXPECT_EQ(XPy_GetEvalFrameFunctionNoThreadState(), nullptr);
    EXPECT_EQ(XPy_SetEvalFrameFunctionNoThreadState(old_style), -1);
    EXPECT_EQ(XPy_GetEvalFrameFunctionWithThreadState(), nullptr);
    EXPECT_EQ(XPy_SetEvalFrameFunctionWithThreadState(object_style), -1);
    EXPECT_EQ(XPy_GetEvalFrameFunctionPyInterpreterFrame(), nullptr);
    EXPECT_EQ(XPy_SetEvalFrameFunctionPyInterpreterFrame(frame_style), -1);
}

// ---- diagnostics: outputs of the binding layer ----

TEST_F(Unbound, the_steps_of_binding_go_to_a_native_descriptor_set_before) {
    const Pipe pipe;
    EXPECT_EQ(XPy_SetDPrintfNativeFile(pipe.writing_end(), nullptr), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(XPy_Initialize(), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(pipe.read_all(), "XPy_InitializeGlobalData() failed\n");
}

TEST_F(Unbound, the_steps_of_binding_are_silent_while_their_category_is_off) {
    const Pipe pipe;
    XPy_SetDPrintfNativeFile(pipe.writing_end(), nullptr);
    EXPECT_EQ(XPy_SetDPrintfMask(kLogThreading), kLogCore | kLogExceptions | kLogInternalFailures);
    testing::internal::CaptureStderr();
    EXPECT_EQ(XPy_Initialize(), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(pipe.read_all(), "");
    EXPECT_NE(gDP.threading, nullptr) << "setting the mask keeps the descriptor";
    EXPECT_EQ(XPy_SetDPrintfMask(kLogCore), kLogThreading);
}

TEST_F(Unbound, a_python_file_is_refused_with_a_word_to_the_descriptor) {
    const Pipe pipe;
    EXPECT_EQ(XPy_SetDPrintfFile(some_object(), 1, nullptr), 0);
    XPy_SetDPrintfNativeFile(pipe.writing_end(), nullptr);
    EXPECT_EQ(XPy_SetDPrintfFile(some_object(), 1, nullptr), 0);
    EXPECT_EQ(pipe.read_all(), "XPy_SetDPrintfFile() called when global_XPy_C_API_Data.initialized is false\n");
    EXPECT_EQ(gDP.shared_single_dp_data.fileno, pipe.writing_end()) << "a refusal changes nothing";
}

// ---- diagnostics: records ----

TEST_F(Unbound, a_new_record_has_the_first_mask_and_no_category) {
    tDPData* record = create_dp_data();
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(get_dp_data_mask(record), 84);
    EXPECT_EQ(record->initialized, 1);
    EXPECT_EQ(record->shared_single_dp_data.initialized, 1);
    EXPECT_EQ(record->shared_single_dp_data.fileno, -1);
    EXPECT_EQ(record->core, nullptr);
    EXPECT_EQ(record->internal_failures, nullptr);
    ASSERT_NE(record->_repr_str1, nullptr);
    ASSERT_NE(record->_repr_str2, nullptr);
    EXPECT_STREQ(record->_repr_str1, "");
    EXPECT_STREQ(record->_repr_str2, "");
    free_dp_data(record);
    free_dp_data(nullptr);
}

TEST_F(Unbound, categories_follow_mask_and_descriptor) {
    tDPData* record = create_dp_data();
    const tSingleDPData* output = &record->shared_single_dp_data;
    set_dp_data_file_obj(record, nullptr, 1, nullptr);
    EXPECT_EQ(record->core, output);
    EXPECT_EQ(record->internal_failures, output);
    EXPECT_EQ(record->filenames, nullptr);
    EXPECT_EQ(record->threading, nullptr);

    struct {
        tDPrintfLogMask bit;
        tSingleDPData* tDPData::*category;
    } const categories[] = {
        {4, &tDPData::core},
        {2, &tDPData::filenames},
        {64, &tDPData::internal_failures},
        {128, &tDPData::threading},
        {256, &tDPData::initial_monitoring_callbacks},
        {512, &tDPData::second_monitoring_callbacks},
    };
    for (const auto& on : categories) {
        set_dp_data_mask(record, on.bit);
        for (const auto& other : categories) {
            EXPECT_EQ(record->*other.category, other.bit == on.bit ? output : nullptr) << on.bit << other.bit;
        }
    }
    set_dp_data_mask(record, 1023);
    set_dp_data_file_obj(record, nullptr, -1, nullptr);
    for (const auto& category : categories) {
        EXPECT_EQ(record->*category.category, nullptr) << "no output, no category";
    }
    free_dp_data(record);
}

TEST_F(Unbound, a_file_object_cannot_be_kept_and_the_descriptor_can) {
    tDPData* record = create_dp_data();
    int handle = 0;
    set_dp_data_file_obj(record, some_object(), 7, &handle);
    EXPECT_EQ(record->shared_single_dp_data.file_obj, nullptr);
    EXPECT_EQ(record->shared_single_dp_data.fileno, 7);
    EXPECT_EQ(record->shared_single_dp_data.win32_handle, &handle);
    free_dp_data(record);
    set_dprintf_file(some_object(), 7, nullptr);
    EXPECT_EQ(gDPrintfFile, nullptr);
    EXPECT_EQ(gDPrintfNativeFileno, 7);
}

TEST_F(Unbound, clearing_a_record_ends_its_buffers_and_outputs_and_keeps_its_mask) {
    tDPData* record = create_dp_data();
    set_dp_data_mask(record, 1023);
    set_dp_data_file_obj(record, nullptr, 1, record);
    clear_dp_data(record);
    EXPECT_EQ(record->shared_single_dp_data.fileno, -1);
    EXPECT_EQ(record->shared_single_dp_data.win32_handle, nullptr);
    EXPECT_EQ(record->_repr_str1, nullptr);
    EXPECT_EQ(record->_repr_str2, nullptr);
    EXPECT_EQ(record->core, nullptr);
    EXPECT_EQ(get_dp_data_mask(record), 1023);
    EXPECT_STREQ(get_dprintf_repr_str1(record, some_object()), "get_dprintf_repr_str1() failure: _repr_str1 is NULL");
    EXPECT_STREQ(get_dprintf_repr_str2(record, some_object()), "get_dprintf_repr_str2() failure: _repr_str2 is NULL");
    free_dp_data(record);
}

TEST_F(Unbound, initialising_again_changes_nothing_unless_forced) {
    tDPData* record = create_dp_data();
    set_dp_data_mask(record, 1);
    set_dp_data_file_obj(record, nullptr, 1, nullptr);
    const char* buffer = record->_repr_str1;
    init_dp_data(record, 0);
    EXPECT_EQ(get_dp_data_mask(record), 1);
    EXPECT_EQ(record->shared_single_dp_data.fileno, 1);
    EXPECT_EQ(record->_repr_str1, buffer);
    record->shared_single_dp_data.in_dprint_count = 1;
    clear_dp_data(record);  // or it would be lost
    init_dp_data(record, 1);
    EXPECT_EQ(get_dp_data_mask(record), 84);
    EXPECT_EQ(record->shared_single_dp_data.fileno, -1);
    EXPECT_EQ(record->shared_single_dp_data.in_dprint_count, 0);
    EXPECT_NE(record->_repr_str1, nullptr);
    free_dp_data(record);
}

TEST_F(Unbound, memory_of_any_content_becomes_a_record) {
    for (const int force : {0, 1}) {
        auto* record = static_cast<tDPData*>(std::malloc(sizeof(tDPData)));
        std::memset(record, 0xaa, sizeof *record);
        if (force == 0) {
            record->initialized = 0;
        }
        init_dp_data(record, force);
        EXPECT_EQ(record->initialized, 1);
        EXPECT_EQ(record->mask, 84);
        const tSingleDPData& output = record->shared_single_dp_data;
        EXPECT_EQ(output.initialized, 1);
        EXPECT_EQ(output.file_obj, nullptr);
        EXPECT_EQ(output.fileno, -1);
        EXPECT_EQ(output.win32_handle, nullptr);
        EXPECT_EQ(output.in_dprint_count, 0);
        for (const tSingleDPData* category :
             {record->core, record->filenames, record->internal_failures, record->threading,
              record->initial_monitoring_callbacks, record->second_monitoring_callbacks}) {
            EXPECT_EQ(category, nullptr);
        }
        EXPECT_STREQ(record->_repr_str1, "");
        EXPECT_STREQ(record->_repr_str2, "");
        free_dp_data(record);
    }
}

TEST_F(Unbound, null_records_are_ignored) {
    init_dp_data(nullptr, 1);
    clear_dp_data(nullptr);
    set_dp_data_mask(nullptr, 1);
    EXPECT_EQ(get_dp_data_mask(nullptr), 0);
    set_dp_data_file_obj(nullptr, nullptr, 1, nullptr);
    do_dp(nullptr, "text");
    do_dp_no_py(nullptr, "text");
    do_dp_logexception(nullptr);
    EXPECT_STREQ(get_dprintf_repr_str1(nullptr, some_object()), "get_dprintf_repr_str1() failure: _repr_str1 is NULL");
    EXPECT_STREQ(get_dprintf_repr_str2(nullptr, some_object()), "get_dprintf_repr_str2() failure: _repr_str2 is NULL");
}

// ---- diagnostics: lines and texts ----

TEST_F(Unbound, a_native_line_is_written_exactly_as_formatted) {
    const Pipe pipe;
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, nullptr, pipe.writing_end(), nullptr);
    do_dp_no_py(record->core, "%s = %i, no line end", "answer", 42);
    EXPECT_EQ(pipe.read_all(), "answer = 42, no line end");
    do_dp_no_py(record->core, "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(pipe.read_all(), std::string(5000, 'x')) << "native lines have no limit";
    do_dp_no_py(record->filenames, "off");
    do_dp_no_py(record->core, "%s", "");
    EXPECT_EQ(pipe.read_all(), "");
    free_dp_data(record);
}

TEST_F(Unbound, a_native_line_does_not_look_at_the_guard) {
    const Pipe pipe;
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, nullptr, pipe.writing_end(), nullptr);
    record->shared_single_dp_data.in_dprint_count = 1;
    do_dp_no_py(record->core, "written");
    EXPECT_EQ(pipe.read_all(), "written");
    free_dp_data(record);
}

TEST_F(Unbound, a_native_format_that_fails_is_replaced_by_a_fixed_text) {
    ASSERT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C");
    const Pipe pipe;
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, nullptr, pipe.writing_end(), nullptr);
    do_dp_no_py(record->core, "%ls", L"\x20ac cannot be said in the C locale");
    EXPECT_EQ(pipe.read_all(), "sprintf_to_malloced_str() failed\n");
    free_dp_data(record);
}

TEST_F(Unbound, a_closed_descriptor_is_written_to_in_vain_and_errno_stays) {
    const int closed = dup(1);
    ASSERT_NE(closed, -1);
    close(closed);
    tDPData* record = create_dp_data();
    set_dp_data_file_obj(record, nullptr, closed, nullptr);
    ASSERT_NE(record->core, nullptr);
    errno = 0;
    do_dp_no_py(record->core, "lost");
    EXPECT_EQ(errno, 0);
    set_dprintf_file(nullptr, closed, nullptr);
    dprint_no_tstate(kLogCore, "lost, too");
    EXPECT_EQ(errno, 0);
    free_dp_data(record);
}

TEST_F(Unbound, a_record_that_nobody_initialised_has_no_valid_descriptor) {
    tSingleDPData output{};
    output.fileno = 1;
    testing::internal::CaptureStdout();
    do_dp_no_py(&output, "not written");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(Unbound, a_raw_string_is_written_when_its_kind_is_in_the_mask) {
    const Pipe pipe;
    dprint_no_tstate(kLogCore, "no descriptor yet");
    set_dprintf_file(nullptr, pipe.writing_end(), nullptr);
    dprint_no_tstate(kLogCore, "100% as it is\n");
    dprint_no_tstate(kLogThreading, "not in the mask\n");
    dprint_no_tstate(kLogCore, nullptr);
    EXPECT_EQ(pipe.read_all(), "100% as it is\n");
    set_dprintf_mask(kLogThreading);
    dprint_no_tstate(kLogThreading, "now it is\n");
    dprint_no_tstate(kLogCore, "and this no more\n");
    EXPECT_EQ(pipe.read_all(), "now it is\n");
}

TEST_F(Unbound, the_process_wide_mask_and_its_record_agree) {
    EXPECT_EQ(get_dprintf_mask(), 84);
    set_dprintf_mask(kLogIO | kLogOther);
    EXPECT_EQ(get_dprintf_mask(), kLogIO | kLogOther);
    EXPECT_EQ(gDPrintfMask, kLogIO | kLogOther);
    EXPECT_EQ(get_dp_data_mask(&gUnsafeGlobalDPData), kLogIO | kLogOther);
    const Pipe pipe;
    set_dprintf_file(nullptr, pipe.writing_end(), nullptr);
    EXPECT_EQ(get_dp_data_mask(&gUnsafeGlobalDPData), kLogIO | kLogOther);
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.fileno, pipe.writing_end());
}

TEST_F(Unbound, lines_through_python_are_dropped) {
    do_dprintf(kLogCore, "dropped");
    do_dprintf_repr(kLogCore, "before", some_object(), "after");
    do_dlogexception();
    tSingleDPData output{};
    output.initialized = 1;
    output.fileno = -1;
    do_dp(&output, "dropped");
    do_dp_logexception(&output);
    EXPECT_EQ(output.in_dprint_count, 0);
}

TEST_F(Unbound, texts_say_that_there_is_no_interpreter) {
    tDPData* record = create_dp_data();
    EXPECT_STREQ(get_dprintf_repr_str1(record, some_object()), "fill_str_with_repr() failed: tstate is NULL");
    EXPECT_STREQ(get_dprintf_repr_str2(record, nullptr), "fill_str_with_repr() failed: tstate is NULL");
    free_dp_data(record);
    EXPECT_STREQ(get_dprintf_frame_str1(nullptr), "");
    EXPECT_STREQ(get_dprintf_frame_str1(some_object()), "");
    EXPECT_STREQ(dprint_check_pystr(nullptr), "(NULL PyObject*)");
    EXPECT_STREQ(dprint_check_pystr(some_object()), "(non-PyString PyObject*)");
    EXPECT_STREQ(dprint_check_str(nullptr), "(NULL)");
    EXPECT_STREQ(dprint_check_str("caf\xc3\xa9"), "caf\xc3\xa9") << "no Python file, no encoding to respect";
}

}  // namespace
