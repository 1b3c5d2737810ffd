"""Where a program stops under `vorntracer.bdb.Bdb` is where it stops under the interpreter's `bdb.Bdb`.

The interpreter's, with `sys.settrace`, is asked for each awkward script and each way of going on, and so is ours; the
two lists of stops have to be equal, line by line.
"""

import os
import subprocess
import sys
import tempfile
import unittest

import awkward_scripts

_RUNNER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "stop_sequences.py")

_COMMANDS = (
    "step", "next", "return", "until", "continue", "step,next", "step,step,return", "continue,next", "continue,step",
    "next,next,step,return,until",
)


class StopSequences(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        for name, text in (("helper", awkward_scripts.HELPER), *awkward_scripts.SCRIPTS.items()):
            with open(os.path.join(cls.folder.name, name + ".py"), "w", encoding="utf-8") as file:
                file.write(text)

    def stops(self, kind, name):
        """The stops of a script, as {commands: [line]}."""
        result = subprocess.run([sys.executable, _RUNNER, kind, name + ".py", self.folder.name, *_COMMANDS],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=240)
        self.assertEqual((result.returncode, result.stderr), (0, ""), name)
        stops = {}
        for line in result.stdout.splitlines():
            if line.startswith("# "):
                stops[line[2:]] = found = []
            else:
                found.append(line)
        return stops

    def compare(self, name):
        ours, stock = self.stops("ours", name), self.stops("stock", name)
        self.assertEqual(list(stock), list(_COMMANDS))
        for commands in _COMMANDS:
            with self.subTest(commands=commands):
                self.assertEqual(ours[commands], stock[commands])
        self.assertGreater(len(stock["step"]), 3)
        self.assertGreater(len(stock["continue"]), 3)


def _comparison(name):
    def test(self):
        self.compare(name)

    return test


for _name in awkward_scripts.SCRIPTS:
    setattr(StopSequences, "test_{}_stops_where_it_stops_under_settrace".format(_name), _comparison(_name))


if __name__ == "__main__":
    unittest.main()
