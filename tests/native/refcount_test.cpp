// Reference counting on living objects.

#include "live_interpreter.h"

namespace {

class LiveReferenceCounting : public LiveInterpreterTest {
  protected:
    void SetUp() override {
        LiveInterpreterTest::SetUp();
        run("import sys\n"
            "class Mortal(object):\n"
            "    deaths = 0\n"
            "    def __del__(self): Mortal.deaths += 1\n"
            "holder = [Mortal()]\n");
    }

    /// References to the object beside the one that this question takes.
    long count() {
        return eval_long("sys.getrefcount(holder[0])");
    }
};

TEST_F(LiveReferenceCounting, agrees_with_the_interpreter) {
    const Ref object = eval("holder[0]");
    const long before = count();
    XPy_DoIncRef(object.get());
    XPy_DoIncRef(object.get());
    EXPECT_EQ(count(), before + 2);
    XPy_DoDecRef(object.get());
    EXPECT_EQ(count(), before + 1);
    XPy_CallIncRef(object.get());
    XPy_CallDecRef(object.get());
    XPy_DoDecRef(object.get());
    EXPECT_EQ(count(), before);
}

TEST_F(LiveReferenceCounting, ends_an_object_with_its_last_reference) {
    Ref object = eval("holder[0]");
    run("holder.pop()");
    EXPECT_EQ(eval_long("Mortal.deaths"), 0);
    object = Ref();
    EXPECT_EQ(eval_long("Mortal.deaths"), 1);
}

TEST_F(LiveReferenceCounting, a_ref_keeps_its_object) {
    const Ref object = eval("holder[0]");
    const long before = count();
    {
        Ref shared = Ref::share(object.get());
        EXPECT_EQ(count(), before + 1);
        const Ref moved = std::move(shared);
        EXPECT_EQ(count(), before + 1);
    }
    EXPECT_EQ(count(), before);
}

TEST_F(LiveReferenceCounting, touches_the_count_only_where_the_layout_allows_it) {
    const bool has_plain_count = xpy.pyobject_offsets.refcnt != -1 && xpy.pydebug_build == 0;
    EXPECT_EQ(xpy.can_update_refcount_directly != 0, has_plain_count);
    EXPECT_EQ(xpy.refcnt_is_32bit != 0, version_number() >= 312);
}

TEST_F(LiveReferenceCounting, calls_the_interpreter_when_told_to) {
    const SavedRecord saved;
    xpy.can_update_refcount_directly = 0;
    const Ref object = eval("holder[0]");
    const long before = count();
    XPy_DoIncRef(object.get());
    EXPECT_EQ(count(), before + 1);
    XPy_DoDecRef(object.get());
    EXPECT_EQ(count(), before);
    EXPECT_FALSE(XPy_IsImmortal(object.get()));
}

TEST_F(LiveReferenceCounting, helpers_hand_out_references_of_their_own) {
    const Ref nothing = new_none();
    const Ref yes = new_bool(true);
    const Ref no = new_bool(false);
    EXPECT_EQ(nothing.get(), none());
    EXPECT_EQ(yes.get(), eval("True").get());
    EXPECT_EQ(no.get(), eval("False").get());
}

}  // namespace
