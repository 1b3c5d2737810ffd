// Thread exit: the marker in a thread-state dictionary whose death discards the thread's record.
#pragma once

#include "xoptmonitoring/records/per_thread_data.h"

struct CleanupSupportData {
    PyObject* fPerThread;
    PyObject* _fFinalizer;
    std::uint64_t armed_on;  ///< the number of the native thread on which a capsule was planted; 0 before that
};

namespace thread_exit {

/// Whether the calling thread is at its end: the dictionary of its thread state, and the capsule in it, are gone, and
/// what still runs there is the last of that thread state. Nothing could take a record away again that it got now.
bool is_at_its_end();

/// The same, but for the clean-up itself: that raises no events, so who has one decided there asks by name.
bool is_silent_at_its_end();

/// Create the nested classes. Empty with an exception set.
Ref create_capsule_class(ModuleState& m);
Ref create_cleanup_support_class(ModuleState& m);

/// A new, unarmed _CCleanupSupport for a record. Empty with an exception set.
Ref new_cleanup_support(ModuleState& m, PyObject* per_thread);

/// Plants a capsule in the calling thread's dictionary; its death runs the clean-up. False with an exception set.
bool SetCapsuleInThreadStateDict(ModuleState& m, PyObject* cleanup_support);

/// Whether a capsule has been planted: 1, 0, or -1 with an exception set.
int is_armed(ModuleState& m, PyObject* cleanup_support);

/// Whether a clean-up was armed on a thread that has ended without it: its capsule is still held by somebody, or was
/// planted when nothing was to come any more. Asked on the thread that has that one's id now.
bool is_left_behind(const ModuleState& m, PyObject* cleanup_support);

/// Disarms the clean-up and lets go of its record; something else that Python code has put into a registry is asked
/// to `Clear()` itself. False with an exception set.
bool disarm(ModuleState& m, PyObject* cleanup_support);

/// The same for a clean-up of the class only, and nothing for something else.
void disarm_own(ModuleState& m, PyObject* cleanup_support);

/// Whether the calling thread is inside its own clean-up: 1, 0, or -1 with an exception set.
int _IsCapsuleDestructorBeingInvoked(ModuleState& m);

/// The calling thread's thread-state dictionary, or None. Empty with an exception set.
Ref _GetThreadStateDict(ModuleState& m);

}  // namespace thread_exit

extern const FunctionDecl kGetThreadStateDict;
