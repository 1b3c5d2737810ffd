// Reference counting in each of its three ways, on made-up objects in plain memory.

#include "xoptmonitoring/binding/refs.h"

#include <cstring>
#include <limits>

#include <gtest/gtest.h>

namespace {

/// An object header of any layout, with room on all sides.
struct FakeObject {
    alignas(8) unsigned char bytes[64];

    PyObject* object() {
        return reinterpret_cast<PyObject*>(bytes);
    }
    template <class Count>
    Count count(std::size_t offset) const {
        Count value;
        std::memcpy(&value, bytes + offset, sizeof value);
        return value;
    }
    template <class Count>
    void set_count(std::size_t offset, Count value) {
        std::memcpy(bytes + offset, &value, sizeof value);
    }
};

int gIncRefCalls = 0;
int gDecRefCalls = 0;

extern "C" void count_inc_ref(PyObject* /*object*/) {
    ++gIncRefCalls;
}

extern "C" void count_dec_ref(PyObject* /*object*/) {
    ++gDecRefCalls;
}

class ReferenceCounting : public testing::Test {
  protected:
    void SetUp() override {
        std::memset(&xpy, 0, sizeof xpy);
        std::memset(&object_, 0, sizeof object_);
        gIncRefCalls = 0;
        gDecRefCalls = 0;
        xpy.Py_IncRef = count_inc_ref;
        xpy.Py_DecRef = count_dec_ref;
    }
    void TearDown() override {
        std::memset(&xpy, 0, sizeof xpy);
    }

    static void choose(bool direct, bool narrow, std::int64_t offset) {
        xpy.can_update_refcount_directly = direct ? 1 : 0;
        xpy.refcnt_is_32bit = narrow ? 1 : 0;
        xpy.pyobject_offsets.refcnt = offset;
    }

    PyObject* object() {
        return object_.object();
    }

    FakeObject object_;
};

TEST_F(ReferenceCounting, asks_the_interpreter_where_the_count_is_not_a_plain_word) {
    choose(false, true, -1);
    XPy_DoIncRef(object());
    XPy_DoDecRef(object());
    XPy_DoDecRef(object());
    EXPECT_EQ(gIncRefCalls, 1);
    EXPECT_EQ(gDecRefCalls, 2);
    EXPECT_FALSE(XPy_IsImmortal(object()));
}

TEST_F(ReferenceCounting, asks_the_interpreter_of_a_build_that_traces_references) {
    choose(false, false, 16);
    object_.set_count<std::int64_t>(16, 5);
    XPy_DoIncRef(object());
    XPy_DoDecRef(object());
    EXPECT_EQ(gIncRefCalls, 1);
    EXPECT_EQ(gDecRefCalls, 1);
    EXPECT_EQ(object_.count<std::int64_t>(16), 5);
}

TEST_F(ReferenceCounting, moves_a_64_bit_count_in_place_until_the_last_reference) {
    choose(true, false, 0);
    object_.set_count<std::int64_t>(0, 1);
    XPy_DoIncRef(object());
    XPy_DoIncRef(object());
    EXPECT_EQ(object_.count<std::int64_t>(0), 3);
    XPy_DoDecRef(object());
    XPy_DoDecRef(object());
    EXPECT_EQ(object_.count<std::int64_t>(0), 1);
    EXPECT_EQ(gDecRefCalls, 0);
    XPy_DoDecRef(object());
    EXPECT_EQ(gDecRefCalls, 1) << "the interpreter ends the object";
    EXPECT_EQ(object_.count<std::int64_t>(0), 1);
    EXPECT_EQ(gIncRefCalls, 0);
}

TEST_F(ReferenceCounting, carries_a_64_bit_count_over_32_bits) {
    choose(true, false, 0);
    object_.set_count<std::int64_t>(0, 0xffffffff);
    XPy_DoIncRef(object());
    EXPECT_EQ(object_.count<std::int64_t>(0), 0x100000000);
    XPy_DoDecRef(object());
    EXPECT_EQ(object_.count<std::int64_t>(0), 0xffffffff);
    EXPECT_FALSE(XPy_IsImmortal(object())) << "immortality came with 3.12";
}

TEST_F(ReferenceCounting, moves_a_32_bit_count_and_leaves_its_neighbour_alone) {
    choose(true, true, 0);
    object_.set_count<std::int32_t>(0, 1);
    object_.set_count<std::int32_t>(4, 0x5a5a5a5a);
    XPy_DoIncRef(object());
    EXPECT_EQ(object_.count<std::int32_t>(0), 2);
    XPy_DoDecRef(object());
    EXPECT_EQ(object_.count<std::int32_t>(0), 1);
    EXPECT_EQ(gDecRefCalls, 0);
    XPy_DoDecRef(object());
    EXPECT_EQ(gDecRefCalls, 1);
    EXPECT_EQ(object_.count<std::int32_t>(0), 1);
    EXPECT_EQ(object_.count<std::int32_t>(4), 0x5a5a5a5a);
}

TEST_F(ReferenceCounting, leaves_an_immortal_object_alone) {
    choose(true, true, 0);
    for (const std::int32_t immortal : {-1, std::numeric_limits<std::int32_t>::min(), -0x40000000}) {
        object_.set_count<std::int32_t>(0, immortal);
        EXPECT_TRUE(XPy_IsImmortal(object()));
        XPy_DoIncRef(object());
        XPy_DoDecRef(object());
        XPy_DoDecRef(object());
        EXPECT_EQ(object_.count<std::int32_t>(0), immortal);
    }
    EXPECT_EQ(gIncRefCalls + gDecRefCalls, 0);
}

TEST_F(ReferenceCounting, makes_an_object_immortal_rather_than_wrap_its_count) {
    choose(true, true, 0);
    object_.set_count<std::int32_t>(0, std::numeric_limits<std::int32_t>::max());
    EXPECT_FALSE(XPy_IsImmortal(object()));
    XPy_DoIncRef(object());
    EXPECT_TRUE(XPy_IsImmortal(object()));
}

TEST_F(ReferenceCounting, finds_fields_by_their_distance) {
    EXPECT_EQ(static_cast<void*>(XPy_GetFieldAddress<int>(object(), 12)), object_.bytes + 12);
}

// ---- Ref ----

class Refs : public ReferenceCounting {
  protected:
    void SetUp() override {
        ReferenceCounting::SetUp();
        choose(true, false, 0);
        object_.set_count<std::int64_t>(0, 10);
    }
    std::int64_t count() const {
        return object_.count<std::int64_t>(0);
    }
};

TEST_F(Refs, share_counts_up_and_the_end_of_the_scope_counts_down) {
    {
        const Ref ref = Ref::share(object());
        EXPECT_EQ(count(), 11);
        EXPECT_EQ(ref.get(), object());
    }
    EXPECT_EQ(count(), 10);
}

TEST_F(Refs, steal_takes_over_and_release_hands_on) {
    {
        Ref ref = Ref::steal(object());
        EXPECT_EQ(count(), 10);
        EXPECT_EQ(ref.release(), object());
        EXPECT_FALSE(ref);
    }
    EXPECT_EQ(count(), 10);
    { const Ref ref = Ref::steal(object()); }
    EXPECT_EQ(count(), 9);
}

TEST_F(Refs, a_move_changes_no_count_and_leaves_nothing_behind) {
    Ref first = Ref::share(object());
    Ref second = std::move(first);
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): what is left is what is tested
    EXPECT_EQ(count(), 11);
    second = Ref();
    EXPECT_EQ(count(), 10);
}

TEST_F(Refs, an_assignment_drops_what_was_held_before) {
    FakeObject other{};
    other.set_count<std::int64_t>(0, 5);
    Ref ref = Ref::share(object());
    ref = Ref::share(other.object());
    EXPECT_EQ(count(), 10);
    EXPECT_EQ(other.count<std::int64_t>(0), 6);
}

TEST_F(Refs, nothing_can_be_shared_and_dropped) {
    {
        const Ref empty = Ref::share(nullptr);
        EXPECT_FALSE(empty);
        const Ref also_empty;
        EXPECT_EQ(also_empty.get(), nullptr);
    }
    EXPECT_EQ(gIncRefCalls + gDecRefCalls, 0);
}

}  // namespace
