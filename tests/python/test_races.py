"""Many threads at once: what one of them does never breaks what another one is doing.

Under a global lock threads are interrupted at every turn; without one they really run side by side, and the
thread sanitizer watches where it is there. Where two threads may both do a thing (make the record of a file, say),
a test shows that this is all that happens.
"""

import gc
import itertools
import sys
import threading
import unittest
import warnings
import weakref

from code_helpers import make_code
from event_helpers import EVENT_IDS, wait_until
from shaking import CROWD, ShakingTestCase, Turns, meetings, shake, together
from support import RecordingWriter, Recorder, needs_free_threading, run_python, xo

CPerCodeObject, CPerFile, CPerThread = xo.CPerCodeObject, xo.CPerFile, xo.CPerThread
me = threading.get_ident

#: At most so many; they end when the time is up.
MEETINGS = 2000


def discard_own_record():
    """Lets a thread end without a record, which the next thread of the same id would otherwise find."""
    CPerThread._DiscardPerThread(me())


class RecordsOfCodeObjects(ShakingTestCase):

    def meet_new_codes(self):
        announced = []
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced.append)
        self.codes = codes = [make_code(f"/srv/race/{index % 7}.py") for index in range(MEETINGS)]

        def meet(code):
            return lambda: CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())

        met = meetings(CROWD, map(meet, codes))
        codes = codes[:len(met)]
        for code, records in zip(codes, met):
            self.assertEqual(len(set(map(id, records))), 1, code.co_filename)
            self.assertIs(records[0].fCodeObjectWeakRef(), code)
            self.assertIs(records[0], CPerCodeObject.GetPerCodeObject(code, False))
        winners = {CPerCodeObject.GetPerCodeObject(code, False) for code in codes}
        gc.collect()
        known = [record for per_file in CPerFile.GetAllPerFiles() for record in per_file.fKnownPerCodeObjects]
        self.assertEqual(len(announced), len(codes))
        self.assertEqual(set(announced), winners)
        return known, winners

    def test_threads_that_meet_a_new_code_object_together_get_one_record_that_is_announced_once(self):
        self.meet_new_codes()

    def test_a_record_that_came_too_late_leaves_its_file_record_again(self):
        # The crowd may also have made a file's record more than once; the last one stored has what came after.
        CPerFile.GetPerFile("/srv/race/0.py")
        for index in range(1, 7):
            CPerFile.GetPerFile(f"/srv/race/{index}.py")
        known, winners = self.meet_new_codes()
        self.assertEqual(len(known), len(winners))
        self.assertEqual(set(known), winners)

    def test_the_same_holds_where_records_are_kept_in_the_dictionary(self):
        CPerCodeObject._fCodeObjectExtraIndex = -1
        for index in range(7):
            CPerFile.GetPerFile(f"/srv/race/{index}.py")
        known, winners = self.meet_new_codes()
        self.assertEqual(set(known), winners)
        self.assertEqual(set(CPerCodeObject._fPerCodeObjectDict.values()), winners)

    def test_a_record_made_without_a_frame_is_settled_by_whoever_brings_one(self):
        CPerFile.GetPerFile("/srv/race/settled.py")
        codes = [make_code("/srv/race/settled.py") for _ in range(MEETINGS)]
        records = [CPerCodeObject.GetPerCodeObject(code) for code in codes]
        self.assertTrue(all(record.fUpdatePathnameNeeded for record in records))

        def settle(code):
            return lambda: CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())

        for record, found in zip(records, meetings(CROWD, map(settle, codes))):
            self.assertEqual(set(found), {record})
            self.assertEqual((record.fUpdatePathnameNeeded, record.fIsInternalKnown, record.fIsInternal),
                             (False, True, False))
        self.assertEqual(CPerFile.GetPerFile("/srv/race/settled.py").fKnownPerCodeObjects, set(records))

    def test_code_objects_that_die_while_others_are_met_leave_file_records_consistent(self):
        def come_and_go():
            code = make_code("/srv/race/short.py")
            self.assertIs(CPerCodeObject.GetPerCodeObject(code).fCodeObjectWeakRef(), code)

        CPerFile.GetPerFile("/srv/race/short.py")
        shake(*[come_and_go] * (CROWD - 1), gc.collect)
        gc.collect()
        gc.collect()
        for record in list(CPerFile.GetPerFile("/srv/race/short.py").fKnownPerCodeObjects):
            self.assertIsNotNone(record.fCodeObjectWeakRef())

    def test_a_slot_read_while_it_is_written_gives_a_value_that_was_written(self):
        index = CPerCodeObject._fCodeObjectExtraIndex
        code = make_code("/srv/race/slot.py")
        values = [f"value {number}" * 3 for number in range(4)]
        xo._Code_SetExtra(code, index, values[0])
        before = [sys.getrefcount(value) for value in values]

        def read():
            self.assertIn(xo._Code_GetExtra(code, index), values)

        def write(value):
            return lambda: xo._Code_SetExtra(code, index, value)

        shake(read, read, read, read, *map(write, values))
        xo._Code_SetExtra(code, index, values[0])
        self.assertEqual([sys.getrefcount(value) for value in values], before)
        xo._Code_SetExtra(code, index, None)


class RecordsOfFiles(ShakingTestCase):

    def test_threads_that_ask_for_a_new_file_together_may_make_several_records_and_the_last_one_stays(self):
        announced = []
        CPerFile.SetNewPerFileCreatedCallback(announced.append)
        pathnames = [f"/srv/race/new{index}.py" for index in range(MEETINGS)]

        def ask(pathname):
            return lambda: CPerFile.GetPerFile(pathname)

        met = meetings(CROWD, map(ask, pathnames))
        for pathname, records in zip(pathnames, met):
            announced_here = [record for record in announced if record.fCanonicalPathname == pathname]
            self.assertEqual(len(set(announced_here)), len(announced_here))
            self.assertTrue(set(records) <= set(announced_here))
            self.assertIn(CPerFile.GetPerFile(pathname, False), announced_here)
            self.assertTrue(1 <= len(announced_here) <= CROWD)
        self.assertEqual(len(CPerFile.GetAllPerFiles()), len(met))

    def test_checksums_that_change_in_every_thread_leave_each_file_in_its_own_group(self):
        current = {}
        xo.set_checksum_callback(lambda pathname: current.get(pathname, "first"))
        per_files = [CPerFile.GetPerFile(f"/srv/race/sum{index}.py") for index in range(CROWD)]

        def change(per_file):
            numbers = itertools.count()

            def job():
                current[per_file.fCanonicalPathname] = f"{per_file.fCanonicalPathname} {next(numbers)}"
                per_file.UpdateChecksum()
            return job

        shake(*map(change, per_files), lambda: CPerFile.GetPerFileSetForChecksum("first"))
        groups = {checksum: group for checksum, group in CPerFile._fByChecksum.items() if checksum != "first"}
        self.assertEqual(groups, {per_file.fChecksum: {per_file} for per_file in per_files})

    def test_lists_and_resets_go_along_with_the_making_of_records(self):
        names = Turns([f"/srv/race/listed{index}.py" for index in range(50)])
        callbacks = Turns([None, Recorder()])

        def list_all():
            for record in CPerFile.GetAllPerFiles():
                self.assertIsInstance(record, CPerFile)

        shake(*[lambda: CPerFile.GetPerFile(next(names)).fBpSetByLineno] * (CROWD - 3), list_all, xo.reset,
              lambda: CPerFile.SetNewPerFileCreatedCallback(next(callbacks)))
        xo.reset()
        self.assertEqual((CPerFile._fPerFileDict, CPerFile._fByChecksum), ({}, {}))


class RecordsOfThreads(ShakingTestCase):

    def find_own(self):
        record = CPerThread.GetPerThread()
        if record is not None:  # None within the thread's own clean-up
            self.assertEqual(record.fThreadId, me())
        return record

    def find_own_while(self, *disturbing):
        """Threads that find their records, and none but their own, while others do their worst."""
        try:
            shake(*[self.find_own] * (CROWD - len(disturbing)), *disturbing)
        finally:
            xo.reset()
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertFalse(CPerThread._fRegistryLock.locked())

    def test_a_thread_finds_its_own_record_while_others_discard_it(self):
        def discard_all():
            for thread_id in list(CPerThread._fPerThreadDict):
                CPerThread._DiscardPerThread(thread_id)

        self.find_own_while(discard_all, discard_all)

    def test_a_thread_finds_its_own_record_while_the_module_is_reset(self):
        self.find_own_while(xo.reset)

    def test_a_record_that_a_reset_has_taken_out_is_not_found_again(self):
        """A reset between a record's registration and its storing left it cached and in no registry: its thread went
        on with it, and nobody else could hold that thread or ask it anything."""
        lost, running = [], threading.Semaphore(0)

        def find_and_wait():
            record = self.find_own()
            running.release()
            go_on.wait()
            cached = xo._CPerThreadTssCache.Get()
            if cached is not None and CPerThread._fPerThreadDict.get(me()) is not cached:
                lost.append(cached)
            del record

        for _ in range(50):
            go_on = threading.Event()
            threads = [threading.Thread(target=find_and_wait) for _ in range(CROWD)]
            for thread in threads:
                thread.start()
            while not running.acquire(blocking=False):
                xo.reset()
            for _ in threads[1:]:
                running.acquire()
                xo.reset()
            go_on.set()
            for thread in threads:
                thread.join()
        self.assertEqual(lost, [])

    def test_a_thread_finds_its_own_record_while_the_registry_is_emptied_behind_its_back(self):
        def empty():
            CPerThread._fPerThreadDict.clear()
            CPerThread._fCleanupSupportByThreadId.clear()

        self.find_own_while(empty, empty)

    def test_a_thread_finds_its_own_record_while_caches_are_detached(self):
        def detach_all():
            for record in CPerThread.GetAllPerThreads():
                xo._CPerThreadTssCache.Detach(record)

        self.find_own_while(detach_all, detach_all)

    def test_a_record_stored_by_several_threads_is_found_by_one_at_most(self):
        """Whoever stored last finds it; a slot that it was stored in before names it no more."""
        record = CPerThread.GetPerThread()
        cache = xo._CPerThreadTssCache

        def store_and_get():
            cache.Store(record)
            self.assertIn(cache.Get(), (record, None))

        shake(*[store_and_get] * CROWD, lambda: cache.Detach(record))
        cache.Detach(record)
        self.assertIsNone(cache.Get())

    def test_a_record_that_dies_on_another_thread_is_found_alive_or_not_at_all(self):
        """The slot only borrows. A count that has just come to zero elsewhere must not be counted up again: the
        interpreter ended the process when it met the finaliser of a record that had come back like that."""
        offered, cached = [], []

        def offer_and_drop():
            if not offered:
                offered.append(CPerThread.__new__(CPerThread))
            elif cached:
                offered.clear()
                cached.clear()

        def cache_and_find():
            if cached or not offered:
                return
            xo._CPerThreadTssCache.Store(offered[0])
            cached.append(True)
            for _ in range(1000):
                if xo._CPerThreadTssCache.Get() is None:
                    break

        found, _ = shake(cache_and_find, offer_and_drop)
        self.assertGreater(found, 0)

    def test_records_made_for_other_threads_are_the_ones_that_those_find(self):
        started, ended = threading.Barrier(CROWD + 1), threading.Event()
        found = {}

        def work():
            started.wait()
            ended.wait()
            found[me()] = CPerThread.GetPerThread()
            discard_own_record()

        threads = [threading.Thread(target=work) for _ in range(CROWD)]
        for thread in threads:
            thread.start()
        started.wait()
        made = {thread.ident: CPerThread.GetPerThread(thread.ident) for thread in threads}
        ended.set()
        for thread in threads:
            thread.join()
        self.assertEqual(found, made)

    def test_threads_that_end_by_the_hundred_while_the_module_is_reset_leave_no_record(self):
        def short_lives():
            threads = [threading.Thread(target=CPerThread.GetPerThread) for _ in range(10)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()

        shake(short_lives, short_lives, xo.reset, CPerThread.GetAllPerThreads)
        xo.reset()
        for registry in (CPerThread._fPerThreadDict, CPerThread._fCleanupSupportByThreadId,
                         CPerThread._fDestructorActiveThreadIds):
            self.assertFalse(registry)

    def test_threads_that_end_together_leave_no_record(self):
        for _ in range(20):
            together(CROWD * 4, self.find_own)
        wait_until(lambda: not CPerThread._fPerThreadDict, "the threads' records to go")
        self.assertEqual((CPerThread._fCleanupSupportByThreadId, CPerThread._fDestructorActiveThreadIds), ({}, set()))

    def test_a_policy_is_one_that_some_callback_gave(self):
        callbacks = Turns([None, lambda thread_id: 7, lambda thread_id: 8])

        def ask():
            record = CPerThread.GetPerThread()
            self.assertIn(record.GetDebugPolicy(), (1, 7, 8, -1))

        shake(*[ask] * (CROWD - 1), lambda: CPerThread.SetDebugPolicyCallback(next(callbacks)))

    def test_a_name_is_one_that_some_callback_gave(self):
        callbacks = Turns([None, lambda record: "one", lambda record: "other"])

        def ask():
            record = CPerThread.GetPerThread()
            self.assertIn(record.FindThreadName(), (None, "one", "other"))
            record.fThreadName = None

        shake(*[ask] * (CROWD - 1), lambda: CPerThread.SetGetThreadNameCallback(next(callbacks)))


class Pathnames(ShakingTestCase):

    def test_a_file_keeps_its_one_name_while_others_are_registered(self):
        directory = self.make_dir()
        files = [self.write_file(directory, f"file{index}.py") for index in range(5)]
        numbers = itertools.count()

        def get(pathname):
            def job():
                self.assertEqual(xo.get_canonical_pathname(pathname, None), pathname)
            return job

        def register():
            name = f"/srv/race/registered{next(numbers) % 50}.py"
            xo.register_canonical_pathname(name, None)
            self.assertEqual(xo.lookup_canonical_pathname(name, None), name)

        shake(*map(get, files), register, register)

    def test_names_that_are_forgotten_meanwhile_are_worked_out_anew(self):
        directory = self.make_dir()
        files = [self.write_file(directory, f"file{index}.py") for index in range(4)]
        checksums = Turns([None, lambda pathname: "sum " + pathname])

        def get(pathname):
            def job():
                self.assertEqual(xo.get_canonical_pathname(pathname, None), pathname)
            return job

        shake(*map(get, files), xo._gCanonicalPathnameMgr.Reset, xo.reset,
              lambda: xo.set_checksum_callback(next(checksums)))

    def test_whether_a_pathname_is_internal_is_answered_from_one_dictionary_or_the_other(self):
        dicts = Turns([{"/both.py": 1, "/first.py": 1}, {"/both.py": 1, "/second.py": 1}])
        xo.SetInternalPathnameDict(next(dicts))

        def ask():
            self.assertTrue(xo.IsInternalPathname("/both.py"))
            self.assertFalse(xo.IsInternalPathname("/neither.py"))

        shake(*[ask] * (CROWD - 2), *[lambda: xo.SetInternalPathnameDict(next(dicts))] * 2)

    def test_a_dictionary_of_internal_pathnames_may_change_while_it_is_asked(self):
        internal = {"/kept.py": 1}
        xo.SetInternalPathnameDict(internal)

        def change():
            for index in range(100):
                internal[f"/{index}.py"] = 1
            for index in range(100):
                internal.pop(f"/{index}.py", None)

        shake(*[lambda: self.assertTrue(xo.IsInternalPathname("/kept.py"))] * (CROWD - 2), change, change)


class Fields(ShakingTestCase):

    def test_an_object_field_reads_as_one_of_the_values_written(self):
        record = CPerThread(1)
        values = [(number, str(number)) for number in range(4)]
        before = [sys.getrefcount(value) for value in values]

        def write(value):
            def job():
                record.fStopFrame = value
                record.fThreadName = value
            return job

        def read():
            self.assertIn(record.fStopFrame, (None, *values))
            self.assertIn(record.fThreadName, (None, *values))

        shake(*map(write, values), *[read] * 4)
        record._Clear()
        self.assertEqual([sys.getrefcount(value) for value in values], before)

    def test_a_field_whose_values_die_with_their_replacement_is_never_read_dead(self):
        per_file = CPerFile("/srv/race/fields.py")

        def write():
            per_file.fBpSetByLineno = {1: object()}
            per_file.fChecksum = "sum" + str(me())

        def read():
            self.assertEqual(len(per_file.fBpSetByLineno), 1)
            self.assertTrue(per_file.fChecksum.startswith("sum"))

        write()
        shake(*[write] * 4, *[read] * 4)

    def test_numbers_and_truths_read_as_they_were_written(self):
        record = CPerCodeObject.GetPerCodeObject(code := make_code("/srv/race/numbers.py"))
        numbers = (0, sys.maxsize, -sys.maxsize - 1, 1 << 40)

        def write(number):
            def job():
                record.fSteppingEventsNeededCount = number
                record.fIsInternal = bool(number)
            return job

        def read():
            self.assertIn(record.fSteppingEventsNeededCount, numbers)
            self.assertIn(record.fIsInternal, (True, False))

        shake(*map(write, numbers), *[read] * 4)
        self.assertIs(record.fCodeObjectWeakRef(), code)

    def test_a_class_field_reads_as_one_of_the_values_written(self):
        first, second = {}, {}
        callbacks = [None, Recorder(), Recorder()]

        def write():
            CPerFile._fByChecksum = first
            CPerFile._fNewPerFileCreatedCallback = callbacks[me() % 3]
            CPerFile._fByChecksum = second

        def read():
            self.assertIn(id(CPerFile._fByChecksum), (id(first), id(second)))
            self.assertIn(CPerFile._fNewPerFileCreatedCallback, callbacks)

        write()
        self.addCleanup(setattr, CPerFile, "_fByChecksum", {})
        shake(*[write] * 4, *[read] * 4)

    def test_the_final_field_is_set_by_exactly_one_of_the_threads_that_try(self):
        def initialise(instance):
            def job():
                second = Recorder()
                try:
                    instance.__init__(xo.kPyStartEventId, second, True)
                except AttributeError as error:
                    self.assertIn("The final attribute '_fSecondCallback' is already set: ", str(error))
                    return None
                return second
            return job

        instances = [xo.CInitialCallback.__new__(xo.CInitialCallback) for _ in range(MEETINGS)]
        for instance, results in zip(instances, meetings(CROWD, map(initialise, instances))):
            winners = [second for second in results if second is not None]
            self.assertEqual(winners, [instance._fSecondCallback])

    def test_lines_go_to_a_file_that_was_chosen_or_nowhere(self):
        files = [RecordingWriter(), RecordingWriter()]
        chosen = Turns([*files, None])

        def write():
            try:
                xo.dprintf(xo.kLogCore, "core\n")
                xo.dprintf(xo.kLogIO, lambda: "io\n")
            except AttributeError as error:  # taken away between the look at the mask and the writing
                self.assertEqual(str(error), "'NoneType' object has no attribute 'write'")

        def choose():
            xo.set_dprintf_file(next(chosen), None, None)
            xo.set_dprintf_mask(xo.kLogCore | xo.kLogIO)
            self.assertIn(xo.get_dprintf_mask(), (0, xo.kLogCore | xo.kLogIO))

        shake(*[write] * (CROWD - 1), choose)
        self.assertTrue(files[0].texts)
        self.assertEqual(set(files[0].texts) | set(files[1].texts), {"core\n", "io\n"})

    def test_functions_and_attributes_can_be_used_while_the_collector_runs(self):
        def use():
            instance = CPerFile("/srv/race/collected.py")
            instance.fBpSetByLineno["cycle"] = instance
            self.assertIn("GetPerFile", dir(CPerFile))
            self.assertEqual(CPerFile.GetPerFile.__name__, "GetPerFile")

        shake(*[use] * (CROWD - 2), gc.collect, gc.collect)


WORK = """
def numbers(count):
    for number in range(count):
        yield number

def add(count):
    total = 0
    for number in numbers(count):
        total += number
    return total

result = add(COUNT)
"""
COUNT = 20
LINES = frozenset(range(1, 13))


class Events(ShakingTestCase):

    def setUp(self):
        super().setUp()
        self.tool_id = self.use_tool()
        self.calls = {name: 0 for name in EVENT_IDS}
        self.callbacks = {}
        self.codes = [compile(WORK, f"/srv/race/work{index}.py", "exec") for index in range(2)]
        for name in EVENT_IDS:
            self.register(name)

    def second_stage(self, name):
        def second(code, *args):
            self.calls[name] += 1
            if name == "LINE" and code.co_filename.startswith("/srv/race/work"):
                self.assertIn(args[0], LINES)
        return second

    def register(self, name):
        """Puts a new first stage in the place of the old one, which may just be at work and dies with it."""
        event_id = EVENT_IDS[name]
        callback = xo.CInitialCallback(event_id, self.second_stage(name), False)
        self.callbacks[name] = callback
        sys.monitoring.register_callback(self.tool_id, event_id, callback.Callback)

    def run_work(self):
        for code in self.codes:
            namespace = {"COUNT": COUNT}
            exec(code, namespace)
            self.assertEqual(namespace["result"], sum(range(COUNT)))

    def shake_events(self, *jobs, workers=4):
        """The work on several threads, under all events, while the jobs change whatever there is to change."""
        xo.SetInternalPathnameDict(dict.fromkeys([__file__, threading.__file__, weakref.__file__]))
        sys.monitoring.set_events(self.tool_id, sum(EVENT_IDS.values()))
        try:
            counts = shake(*[self.run_work] * workers, *map(untraced, jobs))
        finally:
            sys.monitoring.set_events(self.tool_id, 0)
        self.assertTrue(all(counts), counts)

    def known_records(self):
        return [record for per_file in CPerFile.GetAllPerFiles() if "/work" in str(per_file.fCanonicalPathname)
                for record in list(per_file.fKnownPerCodeObjects)]

    def test_breakpoints_come_and_go_while_the_lines_run(self):
        sets = Turns([set(), {5}, set(LINES), None, {10_000}])

        def toggle():
            for record in self.known_records():
                record.fEnabledBpLinenos = next(sets)

        self.shake_events(toggle, toggle)

    def test_sets_of_breakpoints_live_while_a_line_is_looked_up_in_them_and_no_longer(self):
        class OwnSet(set):
            pass

        made, kinds, changed = [], Turns([set, OwnSet, frozenset]), set()

        def replace():
            for record in self.known_records():
                changed.add(record)
                fresh = next(kinds)({5, *range(10_000, 10_100)})
                made.append(weakref.ref(fresh))
                record.fEnabledBpLinenos = fresh

        self.shake_events(replace, replace)
        # Not those that are known now: of two records that threads make of one file, only the later is found.
        for record in changed:
            record.fEnabledBpLinenos = None
        gc.collect()
        self.assertEqual([gone() for gone in made], [None] * len(made))

    def test_one_set_of_breakpoints_changes_while_the_lines_are_looked_up_in_it(self):
        lines = set()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
            lambda record: setattr(record, "fEnabledBpLinenos", lines))

        def toggle():
            for line in range(1, 200):
                lines.add(line)
            lines.clear()

        self.shake_events(toggle, toggle)

    def test_stepping_is_switched_on_and_off_while_code_runs(self):
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
            lambda record: setattr(record, "fEnabledBpLinenos", set()))

        def step():
            for record in CPerThread.GetAllPerThreads():
                record.fSteppingEventsNeeded = not record.fSteppingEventsNeeded
            for record in self.known_records():
                record.fSteppingEventsNeededCount ^= 1
                record.fReturnEventsNeededCount ^= 1
            callback = self.callbacks["LINE"]
            callback.fSteppingEventsNeededEveryThread = not callback.fSteppingEventsNeededEveryThread

        self.shake_events(step, step)
        self.assertTrue(all(self.calls.values()), self.calls)

    def test_first_stages_are_replaced_while_they_are_at_work(self):
        """Each lives through the calls that are in progress, and no longer."""
        made, died = itertools.count(), itertools.count()

        def replace():
            for name in EVENT_IDS:
                self.register(name)
                weakref.finalize(self.callbacks[name], next, died)
                next(made)

        self.shake_events(replace, gc.collect)
        self.assertTrue(all(self.calls.values()), self.calls)
        for name, event_id in EVENT_IDS.items():
            sys.monitoring.register_callback(self.tool_id, event_id, None)
        self.callbacks.clear()
        gc.collect()
        self.assertEqual(next(died), next(made))

    def test_callbacks_for_new_records_are_replaced_while_records_are_made(self):
        recorders = [Recorder(), Recorder(), None]
        callbacks = Turns(recorders)

        def replace():
            CPerCodeObject.SetNewPerCodeObjectCreatedCallback(next(callbacks))
            CPerThread.SetNewPerThreadCreatedCallback(next(callbacks))
            CPerFile.SetNewPerFileCreatedCallback(next(callbacks))
            CPerThread.SetDebugPolicyCallback(None)

        def renew():
            self.codes[0] = compile(WORK, "/srv/race/work0.py", "exec")

        self.shake_events(replace, renew)
        self.assertTrue(recorders[0].calls or recorders[1].calls)

    def test_resets_come_while_events_are_decided(self):
        self.shake_events(xo.reset)
        xo.reset()
        self.assertEqual((CPerThread._fPerThreadDict, CPerFile._fPerFileDict), ({}, {}))

    def test_records_of_threads_die_while_their_threads_decide_events_by_them(self):
        """The events of the work come to their thread's record and are skipped there; the record goes meanwhile."""
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
            lambda record: setattr(record, "fEnabledBpLinenos", set()))
        for callback in self.callbacks.values():
            callback.fAnySuspendThread = True
        deaths = itertools.count()

        def discard_all():
            for record in CPerThread.GetAllPerThreads():
                weakref.finalize(record, next, deaths)
                CPerThread._DiscardPerThread(record.fThreadId)

        def detach_all():
            for record in CPerThread.GetAllPerThreads():
                xo._CPerThreadTssCache.Detach(record)

        self.shake_events(discard_all, detach_all)
        self.assertGreater(next(deaths), 0)

    def test_everything_at_once_in_phases_with_a_reset_between(self):
        sets = Turns([set(), {5}, set(LINES), None])
        pathnames = Turns([f"/srv/race/phase{index}.py" for index in range(20)])

        def toggle():
            for record in self.known_records():
                record.fEnabledBpLinenos = next(sets)

        def step():
            for record in CPerThread.GetAllPerThreads():
                record.fSteppingEventsNeeded = not record.fSteppingEventsNeeded

        def register_pathnames():
            name = next(pathnames)
            xo.register_canonical_pathname(name)
            self.assertIn(CPerFile.GetPerFile(name), CPerFile.GetAllPerFiles())

        def renew():
            self.codes[0] = compile(WORK, "/srv/race/work0.py", "exec")
            for name in EVENT_IDS:
                self.register(name)

        def hold():
            for record in CPerThread.GetAllPerThreads():
                lock = record.fSuspendLock
                if lock is not None and record.fThreadId != me() and lock.acquire(timeout=1):
                    record.fCheckSuspendLock = self.callbacks["LINE"].fAnySuspendThread = True
                    lock.release()
                    record.fCheckSuspendLock = False

        def short_life():
            thread = threading.Thread(target=self.run_work)
            thread.start()
            thread.join()

        def discard_one():
            for record in CPerThread.GetAllPerThreads()[:1]:
                CPerThread._DiscardPerThread(record.fThreadId)

        for _ in range(3):
            self.shake_events(toggle, step, register_pathnames, renew, hold, short_life, discard_one, workers=2)
            xo.reset()
            self.assertEqual((CPerThread._fPerThreadDict, CPerFile._fPerFileDict), ({}, {}))
            self.assertFalse(CPerThread._fRegistryLock.locked())

    def test_output_is_switched_on_and_off_while_events_are_logged(self):
        files = Turns([RecordingWriter(), None])
        masks = Turns([xo.kLogInitialMonitoringCallbacks, xo.kLogThreading, 0, -1])

        def switch():
            xo.set_dprintf_file(next(files), None, None)
            xo.set_dprintf_mask(next(masks))

        self.shake_events(switch, switch, workers=2)

    def test_threads_end_by_the_hundred_while_their_events_are_on(self):
        def short_lives():
            threads = [threading.Thread(target=self.run_work) for _ in range(5)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()

        self.shake_events(workers=1)
        xo.SetInternalPathnameDict(dict.fromkeys([__file__, threading.__file__, weakref.__file__]))
        sys.monitoring.set_events(self.tool_id, sum(EVENT_IDS.values()))
        shake(short_lives, short_lives, lambda: CPerThread.GetAllPerThreads())
        sys.monitoring.set_events(self.tool_id, 0)
        wait_until(lambda: set(CPerThread._fPerThreadDict) <= {me()}, "the threads' records to go")
        self.assertTrue(set(CPerThread._fCleanupSupportByThreadId) <= {me()})
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())

    def test_events_are_switched_on_and_off_and_restarted_while_they_occur(self):
        everything = sum(EVENT_IDS.values())
        events = Turns([0, everything])

        def switch():
            sys.monitoring.set_events(self.tool_id, next(events))
            sys.monitoring.restart_events()

        self.shake_events(switch, workers=3)

    def test_threads_hold_and_release_each_other_and_all_of_them_go_on(self):
        """A pair of tracers; each holds every thread for a moment, and whoever is held goes on afterwards."""
        for callback in self.callbacks.values():
            callback.fAnySuspendThread = True
        turn = threading.Lock()  # a lock held by two tracers could never be had by both

        def hold():
            with turn:
                held = []
                for record in CPerThread.GetAllPerThreads():
                    lock = record.fSuspendLock
                    if lock is not None and record.fThreadId != me() and lock.acquire(timeout=1):
                        record.fCheckSuspendLock = True
                        held.append((record, lock))
                for record, lock in held:
                    lock.release()
                    record.fCheckSuspendLock = False

        self.shake_events(hold, hold)
        for record in CPerThread.GetAllPerThreads():
            self.assertFalse(record.fSuspendLock.locked())


def untraced(job):
    """A job that raises no events of its own, as the tracer's code would not."""
    def body():
        xo.AddToThreadStateTracing(1)
        try:
            job()
        finally:
            xo.AddToThreadStateTracing(-1)
    return body


class WithoutAGlobalLock(unittest.TestCase):

    CHECK_GIL = """
        import sys, threading, warnings
        warnings.simplefilter("error")
        assert not sys._is_gil_enabled()
        from vorntracer import xoptmonitoring as xo
        assert not sys._is_gil_enabled(), "the import switched the global lock on"
    """

    @needs_free_threading
    def test_the_import_leaves_the_global_lock_off_and_warns_nobody(self):
        child = run_python(self.CHECK_GIL, options=("-W", "error"))
        self.assertEqual((child.stdout, child.stderr), ("", ""))

    @needs_free_threading
    def test_the_global_lock_stays_off_through_records_events_and_a_reset(self):
        child = run_python(self.CHECK_GIL + """
        monitoring = sys.monitoring
        monitoring.use_tool_id(4, "test")
        callback = xo.CInitialCallback(xo.kPyStartEventId, lambda *args: None, False)
        monitoring.register_callback(4, xo.kPyStartEventId, callback.Callback)
        monitoring.set_events(4, xo.kPyStartEventId)
        threads = [threading.Thread(target=xo.CPerThread.GetPerThread) for _ in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        monitoring.set_events(4, 0)
        xo.reset()
        assert not sys._is_gil_enabled()
        """, options=("-W", "error"))
        self.assertEqual((child.stdout, child.stderr), ("", ""))

    @needs_free_threading
    def test_this_process_has_imported_the_module_and_runs_without_the_lock(self):
        self.assertFalse(sys._is_gil_enabled())
        with warnings.catch_warnings():
            warnings.simplefilter("error")
            self.assertFalse(sys._is_gil_enabled())

    def test_threads_that_import_the_module_together_get_the_same_one(self):
        child = run_python("""
            import importlib, threading
            barrier = threading.Barrier(8)
            found = []
            def work():
                barrier.wait()
                found.append(importlib.import_module("vorntracer.xoptmonitoring"))
            threads = [threading.Thread(target=work) for _ in range(8)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            assert len(found) == 8 and len(set(map(id, found))) == 1, found
            found[0].reset()
        """)
        self.assertEqual((child.stdout, child.stderr), ("", ""))


if __name__ == "__main__":
    unittest.main()
