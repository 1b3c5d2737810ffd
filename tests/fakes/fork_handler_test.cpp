// A registration of the fork handler that fails once.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#include "fake_names.inc"
FAKE_ENTRY_POINT(PyModule_Create2)

#include <cerrno>
#include <sys/wait.h>

namespace {

int gRegistrations = 0;
int gFailuresLeft = 0;

}  // namespace

/// What pthread_atfork ends in. The program's own name comes before the C library's.
extern "C" int __register_atfork(void (*prepare)(), void (*parent)(), void (*child)(), void* dso) {
    using Register = int (*)(void (*)(), void (*)(), void (*)(), void*);
    static const auto real = reinterpret_cast<Register>(dlsym(RTLD_NEXT, "__register_atfork"));
    ++gRegistrations;
    if (gFailuresLeft > 0) {
        --gFailuresLeft;
        return ENOMEM;
    }
    return real(prepare, parent, child, dso);
}

namespace {

class ForkHandler : public FakeInterpreter {
  protected:
    /// Binds anew and returns how often a registration was tried meanwhile.
    static int registrations_while_binding() {
        std::memset(&record(), 0, sizeof(XPy_C_API_Data));
        gRegistrations = 0;
        EXPECT_EQ(bind(), Bound(0, ""));
        return gRegistrations;
    }

    /// Whether a forked child sees its own id in the record.
    static bool child_sees_itself() {
        const pid_t child = fork();
        if (child == 0) {
            _exit(record().cached_pid == getpid() ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
};

// One test, since a registration is for the life of the process.
TEST_F(ForkHandler, is_registered_again_after_a_failure_and_once_after_a_success) {
    gFailuresLeft = 1;
    EXPECT_EQ(registrations_while_binding(), 1);
    EXPECT_EQ(record().initialized, 1) << "binding does not depend on it";
    EXPECT_EQ(record().cached_pid, getpid());
    EXPECT_FALSE(child_sees_itself());

    EXPECT_EQ(registrations_while_binding(), 1) << "tried again";
    EXPECT_TRUE(child_sees_itself());
    EXPECT_EQ(record().cached_pid, getpid()) << "the parent keeps its own";

    EXPECT_EQ(registrations_while_binding(), 0) << "registered for good";
    EXPECT_TRUE(child_sees_itself());
}

}  // namespace
