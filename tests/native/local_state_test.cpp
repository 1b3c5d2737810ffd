// What a thread borrows under a note: whoever takes it away keeps it for the thread, and for no longer than it is used.
#include "xoptmonitoring/records/local_state.h"

#include <vector>

#include "live_interpreter.h"

namespace {

using local_state::Borrowed;

/// A thread with a state of its own, and a slot of some object with a set in it.
class Notes : public LiveInterpreterTest {
  protected:
    void SetUp() override {
        LiveInterpreterTest::SetUp();
        local_state::create_key();
        local_state::remember(none(), none(), local_state::current_epoch());
        ASSERT_NE(local_state::current, nullptr);
        call = local_state::begin_call(*local_state::current, none());
        ASSERT_NE(call, nullptr);
        slot = new_set();
        death = Ref::steal(xpy.PyWeakref_NewRef(slot, nullptr));
    }

    void TearDown() override {
        local_state::end_call(*call);
        const Ref dropped = Ref::steal(slot);
        LiveInterpreterTest::TearDown();
    }

    static PyObject* new_set() {
        return xpy.PySet_New(nullptr);
    }

    /// Puts `value` into the slot as an assignment to a field does, and drops what was there.
    void put(PyObject* value) {
        const Ref old = Ref::steal(std::exchange(slot, value));
        local_state::keep_for_borrowers(old.get(), old.get());
    }

    bool is_dead() const {
        return Ref::steal(xpy.PyObject_CallObject(death.get(), nullptr)).get() == none();
    }

    CallInProgress* call = nullptr;
    PyObject* slot = nullptr;
    Ref death;
};

TEST_F(Notes, keep_what_is_taken_away_until_the_end_of_its_use) {
    {
        const Borrowed borrowed(call->breakpoints, slot);
        PyObject* set = slot;
        EXPECT_EQ(borrowed.get(), set);
        put(nullptr);
        EXPECT_FALSE(is_dead());
    }
    EXPECT_TRUE(is_dead());
}

TEST_F(Notes, keep_one_reference_where_something_is_taken_away_several_times) {
    {
        const Borrowed borrowed(call->breakpoints, slot);
        for (int i = 0; i < 3; ++i) {
            put(Ref::share(slot).release());
        }
        put(new_set());
        EXPECT_FALSE(is_dead());
    }
    EXPECT_TRUE(is_dead());
}

TEST_F(Notes, that_have_ended_keep_nothing) {
    { const Borrowed borrowed(call->breakpoints, slot); }
    put(nullptr);
    EXPECT_TRUE(is_dead());
}

TEST_F(Notes, of_something_else_keep_nothing) {
    PyObject* other = none();
    const Borrowed borrowed(call->breakpoints, other);
    put(nullptr);
    EXPECT_TRUE(is_dead());
}

TEST_F(Notes, show_that_a_slot_is_empty) {
    put(nullptr);
    const Borrowed borrowed(call->breakpoints, slot);
    EXPECT_EQ(borrowed.get(), nullptr);
}

TEST_F(Notes, end_in_any_order_and_each_keeps_its_own) {
    std::vector<CallInProgress*> calls;
    while (CallInProgress* another = local_state::begin_call(*local_state::current, slot)) {
        calls.push_back(another);
    }
    EXPECT_EQ(calls.size() + 1, LocalState::kMostCalls);
    put(nullptr);
    for (CallInProgress* ending : calls) {
        EXPECT_FALSE(is_dead());
        local_state::end_call(*ending);
    }
    EXPECT_TRUE(is_dead());
}

}  // namespace
