"""Work for library code that nobody here wrote: each function lets one module of the library parse and
format.

What they do is the same every time. They use no thread, and nothing whose ways depend on what ran before once
they have run twice. Exceptions, generators, callbacks from native code and nested functions all occur.
"""

import ast
import configparser
import csv
import difflib
import html.parser
import io
import json
import json.decoder
import json.scanner
import textwrap
import tomllib

ORDERS = [
    {"item": "cup", "prices": [1, 2.5, None, True], "note": "blue\n\u00e9"},
    {"item": "jug", "prices": [], "note": {"deep": {"deeper": []}}},
]


def json_work():
    text = json.dumps(ORDERS, indent=2, sort_keys=True)
    decoder = json.decoder.JSONDecoder(object_hook=dict)
    decoder.parse_string = json.decoder.py_scanstring
    decoder.scan_once = json.scanner.py_make_scanner(decoder)
    try:
        decoder.decode("[1, 2")
    except ValueError as error:
        message = str(error)
    chunks = list(json.JSONEncoder(indent=1).iterencode(ORDERS[0]))
    return decoder.decode(text) == ORDERS, message, chunks


def csv_work():
    file = io.StringIO()
    writer = csv.DictWriter(file, ["name", "size"])
    writer.writeheader()
    writer.writerows([{"name": "a,b", "size": 1}, {"name": 'say "c"', "size": 22}])
    file.seek(0)
    dialect = csv.Sniffer().sniff("x;y;z\n1;2;3\n4;5;6\n")
    rows = list(csv.DictReader(file, restkey="rest"))
    try:
        writer.writerow({"colour": "blue"})
    except ValueError as error:
        rows.append(str(error))
    return rows, dialect.delimiter


def difflib_work():
    old = "one two three four\nfive six\nseven\n".splitlines(True)
    new = "one 2 three four\nfive six seven\nseven\nnine\n".splitlines(True)
    compared = list(difflib.ndiff(old, new))
    unified = list(difflib.unified_diff(old, new, "old", "new"))
    return compared, unified, difflib.get_close_matches("appel", ["ape", "apple", "peach"])


SOURCE = '''
class A(B, metaclass=M):
    "doc"
    def f(self, *a, k: int = 3, **kw) -> None:
        async def g(): await x
        return [i for i in a if i] + [f"{k!r:>{w}}"]
    x = lambda y: (y := y + 1)
try:
    with a as b, c: pass
except* E as e: raise X from e
match p:
    case {"a": [1, *r]} | None: pass
'''


class NameCollector(ast.NodeVisitor):

    def __init__(self):
        self.names = []

    def visit_Name(self, node):
        self.names.append(node.id)
        self.generic_visit(node)


def ast_work():
    tree = ast.parse(SOURCE)
    collector = NameCollector()
    collector.visit(tree)
    return ast.unparse(tree), collector.names, len(ast.dump(tree))


def textwrap_work():
    text = "The quick-brown fox: jumps over\tthe lazy dog. " * 3
    wrapped = textwrap.fill(text, 20, initial_indent="* ", max_lines=5)
    indented = textwrap.indent(textwrap.dedent("   a\n\n    b\n"), "> ")
    return wrapped, indented, textwrap.shorten(text, 30)


def configparser_work():
    parser = configparser.ConfigParser(interpolation=configparser.ExtendedInterpolation())
    parser.read_string("[DEFAULT]\nroot = /x\n[s]\npath = ${root}/y\n  more\nn: 5\n; note\n[t]\nq = ${s:n}\n")
    file = io.StringIO()
    parser.write(file)
    try:
        parser.get("s", "none")
    except configparser.Error as error:
        message = str(error)
    return {name: dict(section) for name, section in parser.items()}, file.getvalue(), message


TABLE = '''
title = "x"
[a.b]
when = 1979-05-27
list = [1, 2.5, {k = "v"}]
"q\\u00e9" = """
y"""
'''


def tomllib_work():
    table = tomllib.loads(TABLE)
    try:
        tomllib.loads("a = 1\na = 2")
    except tomllib.TOMLDecodeError as error:
        return table, str(error)


class TagCollector(html.parser.HTMLParser):

    def __init__(self):
        super().__init__()
        self.seen = []

    def handle_starttag(self, tag, attrs):
        self.seen.append((tag, attrs))

    def handle_data(self, data):
        self.seen.append(data)


def html_work():
    collector = TagCollector()
    collector.feed("<!doctype html><p class='a' hidden>one &amp; two<br/><!-- note --><a href=x>")
    collector.close()
    return collector.seen


ALL_WORK = [json_work, csv_work, difflib_work, ast_work,
            textwrap_work, configparser_work, tomllib_work, html_work]
