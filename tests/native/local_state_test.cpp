// What a thread borrows under a note: whoever takes it away keeps it for the thread, and for no longer than it is used.
#include "xoptmonitoring/records/local_state.h"

#include <algorithm>
#include <vector>

#include "live_interpreter.h"

namespace {

using local_state::Borrowed;

/// A thread with a state of its own, and a slot of some object with a set in it. The parameter says whether the system
/// may be asked for fences.
class Notes : public LiveInterpreterTest, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override {
        LiveInterpreterTest::SetUp();
        local_state::create_key();
        was_one_sided = std::exchange(asymmetric_fence::is_one_sided, asymmetric_fence::is_one_sided && GetParam());
        local_state::remember(none(), none(), local_state::current_epoch());
        ASSERT_NE(local_state::current, nullptr);
        call = begin_call(none());
        ASSERT_NE(call, nullptr);
        slot = new_set();
        death = Ref::steal(xpy.PyWeakref_NewRef(slot, nullptr));
    }

    void TearDown() override {
        if (call != nullptr) {
            local_state::end_call(*call);
        }
        const Ref dropped = Ref::steal(slot);
        asymmetric_fence::is_one_sided = was_one_sided;
        LiveInterpreterTest::TearDown();
    }

    /// Notes one more call of this thread; null where there is no room for it.
    static CallInProgress* begin_call(PyObject* callable) {
        CallInProgress* noted = local_state::room_for_call(*local_state::current);
        if (noted != nullptr) {
            local_state::begin_call(*noted, callable);
        }
        return noted;
    }

    static PyObject* new_set() {
        return xpy.PySet_New(nullptr);
    }

    /// Puts `value` into the slot as an assignment to a field does, and drops what was there.
    void put(PyObject* value) {
        const Ref old = Ref::steal(std::exchange(slot, value));
        local_state::keep_for_borrowers(&CallInProgress::breakpoints, old.get(), old.get());
    }

    bool is_dead() const {
        return Ref::steal(xpy.PyObject_CallObject(death.get(), nullptr)).get() == none();
    }

    bool was_one_sided = false;
    CallInProgress* call = nullptr;
    PyObject* slot = nullptr;
    Ref death;
};

TEST_P(Notes, keep_what_is_taken_away_until_the_end_of_its_use) {
    {
        const Borrowed borrowed(call->breakpoints, slot);
        PyObject* set = slot;
        EXPECT_EQ(borrowed.get(), set);
        put(nullptr);
        EXPECT_FALSE(is_dead());
    }
    EXPECT_TRUE(is_dead());
}

TEST_P(Notes, keep_one_reference_where_something_is_taken_away_several_times) {
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

TEST_P(Notes, that_have_ended_keep_nothing) {
    { const Borrowed borrowed(call->breakpoints, slot); }
    put(nullptr);
    EXPECT_TRUE(is_dead());
}

TEST_P(Notes, of_something_else_keep_nothing) {
    PyObject* other = none();
    const Borrowed borrowed(call->breakpoints, other);
    put(nullptr);
    EXPECT_TRUE(is_dead());
}

TEST_P(Notes, show_that_a_slot_is_empty) {
    put(nullptr);
    const Borrowed borrowed(call->breakpoints, slot);
    EXPECT_EQ(borrowed.get(), nullptr);
}

TEST_P(Notes, end_in_any_order_and_each_keeps_its_own) {
    std::vector<CallInProgress*> calls;
    while (CallInProgress* another = begin_call(slot)) {
        calls.push_back(another);
    }
    ASSERT_EQ(calls.size(), LocalState::kMostCalls - 1);
    std::swap(calls[0], calls[1]);
    const Ref instance = Ref::steal(new_set());
    const auto references = [&] {
        return std::count_if(calls.begin(), calls.end(),
                             [&](const CallInProgress* noted) { return noted->callable.kept == instance.get(); });
    };
    local_state::keep_for_borrowers(&CallInProgress::callable, slot, instance.get());
    auto left = static_cast<std::ptrdiff_t>(calls.size());
    for (CallInProgress* ending : calls) {
        EXPECT_EQ(references(), left--);
        local_state::end_call(*ending);
    }
    EXPECT_EQ(references(), 0);
}

TEST_P(Notes, of_the_same_object_for_two_uses_each_keep_their_own) {
    CallInProgress* other = begin_call(slot);
    ASSERT_NE(other, nullptr);
    const Ref instance = Ref::steal(new_set());
    {
        const Borrowed borrowed(other->breakpoints, slot);
        PyObject* set = slot;
        local_state::keep_for_borrowers(&CallInProgress::callable, set, instance.get());
        put(nullptr);
        EXPECT_EQ(other->callable.kept, instance.get());
        EXPECT_EQ(other->breakpoints.kept, set);
    }
    EXPECT_TRUE(is_dead());
    local_state::end_call(*other);
}

INSTANTIATE_TEST_SUITE_P(Fences, Notes, testing::Bool());

}  // namespace
