// The storage cache's slot records: how a thread's look at what one names keeps others from dropping that.
#include "xoptmonitoring/records/tss_cache.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "live_interpreter.h"

namespace {

using namespace std::chrono_literals;

/// A slot record and the data of the record that it names, for which some object stands.
class SlotRecords : public LiveInterpreterTest {
  protected:
    void SetUp() override {
        LiveInterpreterTest::SetUp();
        slot_record.per_thread = none();
        record._fPyTssDataPtr = &slot_record;
    }

    PyObject* named() const {
        return __atomic_load_n(&slot_record.per_thread, __ATOMIC_ACQUIRE);
    }

    /// Begins a look as an event does, and returns what it sees.
    PyObject* begin_look() {
        tss_cache::begin_look(slot_record);
        asymmetric_fence::light();
        return tss_cache::look_at(slot_record);
    }

    SharedTssSlotRecord slot_record{};
    PerThreadData record{};
};

TEST_F(SlotRecords, are_emptied_at_once_but_not_given_up_before_the_look_at_them_ends) {
    ASSERT_EQ(begin_look(), none());
    std::atomic<bool> detached = false;
    std::thread detacher([this, &detached] {
        tss_cache::Detach(record);
        detached = true;
    });
    while (named() != nullptr) {
        std::this_thread::sleep_for(1ms);
    }
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(detached.load(), !is_free_threaded()) << "where there is a global lock, nobody looks without it";
    tss_cache::end_look(slot_record);
    detacher.join();
    EXPECT_TRUE(detached.load());
    EXPECT_EQ(record._fPyTssDataPtr, nullptr);
}

TEST_F(SlotRecords, that_are_empty_show_a_look_nothing) {
    tss_cache::Detach(record);
    EXPECT_EQ(begin_look(), nullptr);
}

TEST_F(SlotRecords, are_given_up_at_once_where_the_look_has_ended_or_was_one_of_the_parent_process) {
    ASSERT_EQ(begin_look(), none());
    tss_cache::end_look(slot_record);
    tss_cache::Detach(record);
    EXPECT_EQ(named(), nullptr);

    slot_record.per_thread = none();
    slot_record.reader = xpy.cached_pid + 1;
    record._fPyTssDataPtr = &slot_record;
    tss_cache::Detach(record);
    EXPECT_EQ(named(), nullptr);
}

}  // namespace
