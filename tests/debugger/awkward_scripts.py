"""Programs in which it is hard to say which line comes next: name -> source text.

Each is run as a main program, with `helper` importable beside it. None prints anything or waits.
"""

HELPER = '''
def double(value):
    result = value * 2
    return result


class Counter:
    def __init__(self):
        self.count = 0

    def __enter__(self):
        self.count += 1
        return self

    def __exit__(self, *exception):
        self.count += 10
        return bool(exception[0])
'''

SCRIPTS = {
    "generators": '''
def numbers(limit):
    try:
        for number in range(limit):
            received = yield number
            if received:
                number = received
    finally:
        limit = None

def delegating():
    result = yield from numbers(2)
    yield result
    return 7

def main():
    total = 0
    for number in numbers(3):
        total += number
    it = numbers(5)
    next(it)
    it.send(4)
    it.close()
    it = delegating()
    for number in it:
        total += number or 0
    it = numbers(3)
    next(it)
    try:
        it.throw(ValueError("thrown"))
    except ValueError:
        total = -1
    return total

main()
''',
    "coroutines": '''
import types

@types.coroutine
def wait():
    value = yield 1
    return value

async def inner():
    first = await wait()
    return first

async def agen():
    yield 1
    await wait()
    yield 2

class Manager:
    async def __aenter__(self):
        await wait()
        return self
    async def __aexit__(self, *exception):
        await wait()

async def outer():
    async with Manager() as manager:
        value = await inner()
    async for item in agen():
        value = item
    return [item async for item in agen()]

def run(coroutine):
    try:
        while True:
            coroutine.send(None)
    except StopIteration as stop:
        return stop.value

run(outer())
result = run(inner())
''',
    "comprehensions": '''
def main():
    values = [number * 2 for number in range(3)]
    table = {key: value
             for key, value in zip("ab", values)
             if value > -1}
    lazy = (number
            for number in values)
    total = sum(lazy)
    nested = [[cell for cell in range(2)] for row in range(2)]
    unique = {len(row) for row in nested}
    return total, table, unique

main()
''',
    "one_line_loops": '''
def main():
    out = []
    for i in range(3): out.append(i)
    while out: out.pop()
    x = 0
    for i in range(2):
        for j in range(2): x += i * j
    if x: x = 1
    return x

main()
''',
    "match": '''
def classify(value):
    match value:
        case 0:
            return "zero"
        case [first, *rest] if first:
            return rest
        case {"key": inner}:
            return classify(inner)
        case str() | int():
            name = "scalar"
        case _:
            name = "other"
    return name

for value in (0, [1, 2], [0], {"key": 0}, "text", None):
    classify(value)
''',
    "except_star": '''
def main():
    seen = []
    try:
        raise ExceptionGroup("group", [ValueError(1), TypeError(2), KeyError(3)])
    except* ValueError as group:
        seen.append(group)
    except* (TypeError, KeyError) as group:
        seen.append(group)
    finally:
        seen.append(None)
    try:
        try:
            raise ExceptionGroup("group", [ValueError(1), OSError(2)])
        except* ValueError:
            seen.clear()
    except ExceptionGroup as rest:
        seen = rest
    return seen

main()
''',
    "exceptions": '''
def fail(depth):
    if depth:
        fail(depth - 1)
    else:
        raise ValueError(depth)

def cleaning():
    try:
        fail(2)
    finally:
        marker = 1

def main():
    try:
        cleaning()
    except ValueError as error:
        text = str(error)
    else:
        text = None
    try:
        try:
            {}["missing"]
        except KeyError as error:
            raise RuntimeError("again") from error
    except RuntimeError:
        pass
    for attempt in range(2):
        try:
            continue
        finally:
            text = attempt
    return text

main()
''',
    "with": '''
import contextlib
from helper import Counter

@contextlib.contextmanager
def managed(value):
    try:
        yield value
    except ValueError:
        value = None
    finally:
        value = 0

def main():
    with Counter() as first, Counter() as second:
        total = first.count + second.count
    with managed(3) as value:
        raise ValueError(value)
    with (
        Counter() as one,
        managed(1) as two,
    ):
        total += two
    for number in range(2):
        with Counter():
            if number:
                break
    return total

main()
''',
    "decorators": '''
import functools

def logged(function):
    @functools.wraps(function)
    def wrapper(*arguments):
        result = function(*arguments)
        return result
    return wrapper

def parameterised(number):
    def decorate(function):
        function.number = number
        return function
    return decorate

@logged
@parameterised(
    3
)
def add(first,
        second=2):
    return (first +
            second)

class Shape:
    @property
    def area(self):
        return 4
    @staticmethod
    def make():
        return Shape()
    @functools.cached_property
    def slow(self):
        return 5

add(1)
shape = Shape.make()
shape.area + shape.slow + shape.slow
''',
    "class_bodies": '''
class Meta(type):
    def __new__(mcs, name, bases, namespace, **options):
        cls = super().__new__(mcs, name, bases, namespace)
        cls.options = options
        return cls
    def __call__(cls, *arguments):
        instance = super().__call__(*arguments)
        return instance
    @classmethod
    def __prepare__(mcs, name, bases, **options):
        return {}

class Descriptor:
    def __set_name__(self, owner, name):
        self.name = name
    def __get__(self, instance, owner):
        return self.name

class Base(metaclass=Meta, option=1):
    field = Descriptor()
    values = [number for number in range(2)]
    def __init__(self, value=0):
        self.value = value
    def __init_subclass__(cls, **options):
        cls.subclassed = True

class Derived(Base):
    """A doc string."""
    def __getattr__(self, name):
        return name

instance = Derived(3)
instance.missing, instance.field
''',
    "recursion": '''
def factorial(number):
    if number < 2:
        return 1
    rest = factorial(number - 1)
    return number * rest

def even(number):
    return number == 0 or odd(number - 1)

def odd(number):
    return number != 0 and even(number - 1)

factorial(4)
even(3)
''',
    "exec": '''
source = """
def made(value):
    value += 1
    return value
made(1)
total = [made(number) for number in range(2)]
"""
namespace = {}
exec(source, namespace)
namespace["made"](3)
eval("made(4) + made(5)", namespace)
exec(compile("x = 1\\nfor x in range(2): x", "<made>", "exec"))
''',
    "lambdas": '''
add = lambda first, second: first + second
pairs = sorted([3, 1, 2], key=lambda value: -value)
table = {"a": lambda: 1, "b": lambda: add(1, 2)}
def small(value): return value + 1
def gen(): yield 1; yield 2
result = [table[key]() for key in table]
small(small(1)); list(gen())
later = (lambda: (yield))()
next(later, None)
''',
    "finalisers": '''
class Noisy:
    def __del__(self):
        marker = 1
        marker += 1

def main():
    noisy = Noisy()
    noisy = None
    other = Noisy()
    del other
    return 1

main()
''',
    "callbacks": '''
def key(value):
    result = -value
    return result

class Ordered:
    def __init__(self, value):
        self.value = value
    def __lt__(self, other):
        return self.value < other.value
    def __hash__(self):
        return hash(self.value)
    def __eq__(self, other):
        return self.value == other.value
    def __iter__(self):
        yield self.value

def main():
    values = sorted([2, 1], key=key)
    first = min(Ordered(2), Ordered(1))
    found = {Ordered(1): 1}[Ordered(1)]
    numbers = [*Ordered(1), *map(key, values)]
    return first, found, numbers

main()
''',
    "helper_module": '''
import helper
total = 0
for number in range(3):
    total += helper.double(number)
counter = helper.Counter()
with counter:
    helper.double(
        helper.double(
            counter.count))
''',
    "nested_functions": '''
def outer(value):
    def middle():
        nonlocal value
        value += 1
        def inner():
            return value
        return inner
    return middle()

def defaults(first, *rest, key=None, **options):
    return first

def early(value):
    if value:
        return None
    while True:
        value += 1
        if value > 2:
            break
    else:
        value = 0
    return value

outer(1)()
defaults(1, 2, key=3, other=4)
early(0)
early(1)
''',
    "doctest": '''
"""
>>> from helper import double
>>> double(2)
4
>>> for number in range(2):
...     value = double(number)
"""
import doctest
import sys
doctest.run_docstring_examples(__doc__, {}, name="examples", compileflags=0)
''',
    "assertions": '''
def check(value):
    assert value, "no value"
    return value

def main():
    try:
        check(0)
    except AssertionError:
        check(1)
    value = (1 if check(2)
             else 2)
    text = f"{check(3)!r:>{check(4)}}"
    if (result := check(5)) and \\
            result:
        return text, value

main()
''',
    "threads": '''
import threading

def work(results):
    for number in range(2):
        results.append(number)

def main():
    results = []
    thread = threading.Thread(target=work, args=(results,))
    thread.start()
    thread.join()
    work(results)
    return results

main()
''',
    "zipped": '''
import os
import sys
import zipfile

folder = os.path.dirname(__file__)
archive = os.path.join(folder, "archive.zip")
with zipfile.ZipFile(archive, "w") as file:
    file.writestr("zipped_module.py", "def square(value):\\n    result = value * value\\n    return result\\n")
sys.path.insert(0, archive)
sys.modules.pop("zipped_module", None)
import zipped_module
sys.path.remove(archive)
os.remove(archive)
total = zipped_module.square(2)
total += zipped_module.square(3)
''',
}
