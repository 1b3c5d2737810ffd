"""Programs to be debugged: real code of the standard library, and two of our own that do nothing but compute.

Each is a function without arguments that does a few milliseconds' work. None of them calls itself, uses
threads or prints anything; the work is in Python code, since that is what a debugger slows down.
"""

import ast
import difflib
import json
import json.decoder
import json.scanner
import pathlib


def _make_document():
    return {
        "name": "measured",
        "numbers": list(range(40)),
        "fractions": [number / 7 for number in range(20)],
        "nested": [{"id": number, "tags": ["a", "b\n", "\u00e9"], "on": number % 2 == 0, "none": None}
                   for number in range(12)],
    }


class _PythonDecoder(json.JSONDecoder):
    """The decoder without its parts in C."""

    def __init__(self):
        super().__init__()
        self.parse_string = json.decoder.py_scanstring
        self.scan_once = json.scanner.py_make_scanner(self)


_DOCUMENT = _make_document()
_DECODER = _PythonDecoder()


def json_round_trip():
    """The encoder is that in Python wherever an indentation is asked for."""
    for _ in range(2):
        if _DECODER.decode(json.dumps(_DOCUMENT, indent=1)) != _DOCUMENT:
            raise AssertionError("the document has changed")


_SOURCE = pathlib.Path(difflib.__file__).read_text("utf-8")
_OLD_LINES = _SOURCE.splitlines()[:120]
_NEW_LINES = [line.replace("self", "this") for number, line in enumerate(_OLD_LINES) if number % 7] + ["end"]


def text_comparison():
    list(difflib.ndiff(_OLD_LINES[:40], _NEW_LINES[:40]))
    list(difflib.unified_diff(_OLD_LINES, _NEW_LINES))


_SMALL_SOURCE = pathlib.Path(json.scanner.__file__).read_text("utf-8")


def parse_and_unparse():
    """The parser is in C; what writes the tree as source again is in Python."""
    ast.unparse(ast.parse(_SMALL_SOURCE))


def _mandelbrot(width, limit):
    inside = 0
    for row in range(width):
        for column in range(width):
            cr = column * 3.0 / width - 2.0
            ci = row * 2.0 / width - 1.0
            zr = zi = 0.0
            for _ in range(limit):
                square_r = zr * zr
                square_i = zi * zi
                if square_r + square_i > 4.0:
                    break
                zi = 2.0 * zr * zi + ci
                zr = square_r - square_i + cr
            else:
                inside += 1
            if inside < 0:
                raise AssertionError("a count below zero")
    return inside


def numeric_loop():
    _mandelbrot(26, 60)


def _place_queens(size, row, columns, rising, falling):
    """How many ways there are to put a queen into each of the remaining rows."""
    if row == size:
        return 1
    solutions = 0
    for column in range(size):
        if column in columns or row + column in rising or row - column in falling:
            continue
        solutions += _place_queens(size, row + 1, columns | {column}, rising | {row + column},
                                   falling | {row - column})
    if solutions < 0:
        raise AssertionError("a count below zero")
    return solutions


def constraint_solver():
    if _place_queens(6, 0, frozenset(), frozenset(), frozenset()) != 4:
        raise AssertionError("wrong number of solutions")


def _even_numbers(limit):
    number = 0
    while number < limit:
        if number < 0:
            raise AssertionError("a number below zero")
        yield number
        number += 2


def _paired(values):
    for first in values:
        second = next(values, None)
        yield first, second


def generators():
    for _ in range(40):
        total = 0
        for first, second in _paired(_even_numbers(100)):
            total += first - second
        if total != -50:
            raise AssertionError("wrong sum")


class _Account:
    def __init__(self, balance):
        self._balance = balance

    def balance(self):
        return self._balance

    def is_open(self):
        if self._balance is None:
            return False
        return True

    def add(self, amount):
        if not self.is_open():
            raise AssertionError("the account is closed")
        self._balance = self.balance() + amount


def small_calls():
    account = _Account(0)
    for number in range(2000):
        account.add(number)
    if account.balance() != 1999000:
        raise AssertionError("wrong balance")


PROGRAMS = {
    "JSON round trip": json_round_trip,
    "text comparison": text_comparison,
    "parse and unparse": parse_and_unparse,
    "numeric loop": numeric_loop,
    "constraint solver": constraint_solver,
    "generators": generators,
    "small calls": small_calls,
}


# What a person does at a stop


def called_often(number):
    result = number + 1
    return result


def call_often(count):
    total = 0
    for number in range(count):
        total += called_often(number)
    return total


def count_up(limit):
    number = 0
    while number < limit:
        number += 1
    return number


def rarely_chosen(number):
    if number < 0:
        return None
    return number


def call_rarely_chosen(count):
    for number in range(count):
        rarely_chosen(number)


def call_a_program(program):
    program()
    result = None
    return result


def call_the_caller(program):
    result = call_a_program(program)
    return result
