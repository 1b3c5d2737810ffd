// Interpreters that have dropped names which nothing in the module uses: of versions that are known, and of later ones.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#define PyNumber_Add hidden_PyNumber_Add
#define PyExc_EOFError hidden_PyExc_EOFError
#define PyTraceBack_Type hidden_PyTraceBack_Type
#include "fake_names.inc"
#undef PyNumber_Add
#undef PyExc_EOFError
#undef PyTraceBack_Type
FAKE_ENTRY_POINT(PyModule_Create2)

namespace {

struct Version {
    int major;
    int minor;
};

constexpr Version kLaterVersions[] = {{3, 15}, {3, 16}, {3, 40}, {4, 0}, {4, 12}};

class UnusedNames : public FakeInterpreter {
  protected:
    void pretend(const Version& version) {
        std::memset(&record(), 0, sizeof(XPy_C_API_Data));
        gFake = FakeState();
        gFake.version[0] = version.major;
        gFake.version[1] = version.minor;
    }

    static void expect_bound_without_them() {
        EXPECT_EQ(record().initialized, 1);
        EXPECT_EQ(record().PyNumber_Add, nullptr);
        EXPECT_EQ(record().PyExc_EOFError, nullptr);
        EXPECT_EQ(record().PyTraceBack_Type_ptr, nullptr);
        EXPECT_NE(record().PyNumber_And, nullptr) << "what stands behind them is bound";
        EXPECT_NE(record().PyType_Type_ptr, nullptr);
    }
};

TEST_F(UnusedNames, that_a_later_version_has_dropped_are_told_and_binding_goes_on) {
    for (const Version& version : kLaterVersions) {
        SCOPED_TRACE(std::to_string(version.major) + "." + std::to_string(version.minor));
        pretend(version);
        EXPECT_EQ(bind(), Bound(0,
                                "GetPtr() failed for PyNumber_Add\n"
                                "GetPtr() failed for PyExc_EOFError\n"
                                "GetPtr() failed for PyTraceBack_Type\n"
                                "Cannot find tstate fields for this python version\n"));
        expect_bound_without_them();
    }
}

TEST_F(UnusedNames, that_a_later_version_has_dropped_are_not_told_where_that_is_no_news) {
    auto* set_quiet = exported<int(int)>("XPy_SetQuietAboutLaterVersions");
    set_quiet(1);
    pretend({3, 16});
    EXPECT_EQ(bind(), Bound(0, ""));
    set_quiet(0);
    expect_bound_without_them();
}

TEST_F(UnusedNames, are_required_of_every_version_that_is_known) {
    for (const int minor : {4, 12, 14}) {
        pretend({3, minor});
        EXPECT_EQ(bind(), Bound(-1, "GetPtr() failed for PyNumber_Add\n")) << minor;
        expect_import_error();
        EXPECT_EQ(record().initialized, 0);
    }
}

TEST_F(UnusedNames, are_required_where_the_version_cannot_be_told) {
    pretend({3, 16});
    gFake.has_version_info = false;
    EXPECT_EQ(bind(), Bound(-1, "Unable to get version numbers\nGetPtr() failed for PyNumber_Add\n"));
    expect_import_error();
}

}  // namespace
