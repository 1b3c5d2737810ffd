"""Bring the interpreters that this machine lacks into a folder: build_interpreters.py [--all] FOLDER [NAME ...]

Two kinds, both from Debian's archive, neither of them installed into the system:

* Debian's own interpreters and their debug builds, of several versions at once. Their packages, with
  everything they need down to the C library, are unpacked into one tree and started through that tree's own
  loader, so that they run on a machine whose C library is older. The interpreters' own tests, which are a package
  of their own for each version, come with them, and so do the debuggers and the test runner that are built on the
  interpreter's debugger; these are for the version that is Debian's default.
* Builds that Debian does not ship, made from its source packages: free-threaded ones, and with --all those
  with reference tracing and with sanitizers.

Each interpreter gets a script in FOLDER/bin that starts it, where find_interpreters.py looks for it; one that
was built with a sanitizer gets it in FOLDER/sanitized, since only some tests are for it. NAMEs choose single
ones. What is there already is left alone, so a second run is quick. An interpreter that cannot be had (no
network, no such package, a build that fails) is reported by its name at the end, and that is no failure:
those who need it have to ask for it themselves.

The archive and its keys are the ones that this machine's apt uses. Package lists, settings and downloads stay
below FOLDER. No rights are needed but for installing compilers and headers, where they are missing.
"""

import argparse
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import urllib.error
import urllib.request

#: The release that has the versions wanted, under the name that it keeps for good.
SUITE = "forky"

DEBIAN_PACKAGE = re.compile(r"python3\.\d+(-dbg)?$")
OLDEST_DEBIAN_PYTHON = (3, 13)

#: What an interpreter keeps until its end is no leak, and its own races are not looked for here; both would have it
#: end with a status that says that it failed.
QUIET_SANITIZERS = {"ASAN_OPTIONS": "detect_leaks=0", "TSAN_OPTIONS": "report_bugs=0"}

TSAN_COMPILER = {"CC": "clang", "CXX": "clang++"}


class Build:
    """An interpreter that is made from sources: its name, where they are, and how they are configured."""

    def __init__(self, source, suffix, *options, sanitizer=None, on_request=False, settings=None):
        self.source = source
        self.name = source + suffix
        self.options = options
        self.sanitizer = sanitizer
        self.on_request = on_request
        self.settings = settings or {}


def builds_of(source):
    """What can be made from one source package; the first is made always, the others where asked for."""
    return (
        Build(source, "t", "--disable-gil"),
        Build(source, "t-pydebug", "--disable-gil", "--with-pydebug", on_request=True),
        Build(source, "-tracerefs", "--with-pydebug", "--with-trace-refs", on_request=True),
        Build(source, "-asan", "--with-address-sanitizer", "--without-pymalloc", sanitizer="address",
              on_request=True),
        Build(source, "t-tsan", "--disable-gil", "--with-thread-sanitizer", sanitizer="thread",
              on_request=True, settings=TSAN_COMPILER),
    )


#: The version that has to be tested comes first. Traced and sanitized builds of one version are enough.
BUILDS = (*builds_of("python3.13"), builds_of("python3.14")[0], builds_of("python3.15")[0],
          *(build for build in builds_of("python3.14") if build.name == "python3.14t-tsan"))

#: What the builds need: a file or a program that shows that it is there, and the package that brings it.
BUILD_NEEDS = (
    ("dpkg-source", "dpkg-dev"), ("make", "make"), ("gcc", "gcc"),
    ("ffi.h", "libffi-dev"), ("zlib.h", "zlib1g-dev"),
)
TSAN_NEEDS = (("clang", "clang"),)

#: Only what a test of this project imports matters; these take long to build or need more headers.
MODULES_LEFT_OUT = ("_tkinter", "_dbm", "_gdbm", "readline", "_curses", "_curses_panel", "_sqlite3", "nis")


#: Clients of the interpreter's debugger, and a module by which one of them is known to have been unpacked.
CLIENTS = ("python3-ipdb", "python3-pytest")
CLIENT_MODULE = "ipdb"


def tests_package(name):
    """The package with the tests of one of Debian's interpreters, or of its debug build."""
    return "libpython{}.{}-testsuite".format(*version_in(name))


class Unavailable(Exception):
    """Why an interpreter cannot be had, in one line."""


def run(command, log, **options):
    """Print a command and run it; its output goes to the end of a log file."""
    print("+", shlex.join(map(str, command)), flush=True)
    with log.open("a") as output:
        result = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=output,
                                stderr=subprocess.STDOUT, **options)
    if result.returncode != 0:
        raise Unavailable("{} failed; see {}".format(command[0], log))


def output_of(command, **options):
    """The standard output of a command; empty when there is no such command or it fails."""
    try:
        result = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, **options)
    except OSError:
        return ""
    return result.stdout if result.returncode == 0 else ""


def serves(mirror):
    """Whether there is the wanted release under an address that apt knows."""
    if not mirror.startswith(("http://", "https://")):
        return False
    try:
        with urllib.request.urlopen("{}dists/{}/InRelease".format(mirror, SUITE), timeout=30) as answer:
            return answer.status == 200
    except (OSError, ValueError):
        return False


def find_mirror():
    """The first of the machine's own package archives that has the release; others have other things."""
    listing = output_of(["apt-get", "indextargets", "--format", "$(REPO_URI)", "Created-By: Packages"])
    for mirror in dict.fromkeys(line.rstrip("/") + "/" for line in listing.split()):
        if serves(mirror):
            return mirror
    raise Unavailable("no archive among apt's sources has the release {}".format(SUITE))


class Archive:
    """An apt of our own: nothing that it reads or writes belongs to the system but the keys."""

    def __init__(self, folder):
        self.folder = folder
        self.log = folder / "apt.log"
        self.options = []

    def open(self):
        """Fetch the package lists."""
        if self.options:
            return
        if shutil.which("apt-get") is None:
            raise Unavailable("there is no apt-get on this machine")
        mirror = find_mirror()
        for name in ("lists/partial", "archives/partial"):
            (self.folder / name).mkdir(parents=True, exist_ok=True)
        sources = self.folder / "sources.list"
        keys = pathlib.Path("/usr/share/keyrings/debian-archive-keyring.gpg")
        signed_by = "[signed-by={}] ".format(keys) if keys.exists() else ""
        sources.write_text("".join("{} {}{} {} main\n".format(kind, signed_by, mirror, SUITE)
                                   for kind in ("deb", "deb-src")))
        status = self.folder / "status"
        status.write_text("")
        options = {
            "Dir::Etc::SourceList": sources, "Dir::Etc::SourceParts": "/dev/null",
            "Dir::State::Lists": self.folder / "lists", "Dir::State::Status": status,
            "Dir::Cache": self.folder, "Dir::Cache::Archives": self.folder / "archives",
            "Acquire::Languages": "none",
        }
        if os.geteuid() == 0:
            options["APT::Sandbox::User"] = "root"  # apt's own user may not write where we are
        words = [word for name, value in options.items() for word in ("-o", "{}={}".format(name, value))]
        run(["apt-get", *words, "update"], self.log)
        self.options = words

    def interpreter_packages(self):
        """The names of the interpreters that the release has, with their debug builds."""
        listing = output_of(["apt-cache", *self.options, "search", "--names-only", r"^python3\.[0-9]+(-dbg)?$"])
        names = [line.split()[0] for line in listing.splitlines()]
        return sorted(name for name in names
                      if DEBIAN_PACKAGE.match(name) and version_in(name) >= OLDEST_DEBIAN_PYTHON)

    def download(self, packages):
        """Fetch packages and everything that they need; returns the files."""
        run(["apt-get", *self.options, "--yes", "--no-install-recommends", "--download-only", "install",
             *packages], self.log)
        return sorted((self.folder / "archives").glob("*.deb"))

    def unpack_source(self, package, destination):
        """Fetch a source package and unpack it, with Debian's patches, into a new folder."""
        downloads = self.folder / "sources" / package
        downloads.mkdir(parents=True, exist_ok=True)
        try:
            run(["apt-get", *self.options, "--download-only", "--only-source", "source", package], self.log,
                cwd=downloads)
        except Unavailable:
            raise Unavailable("its sources cannot be fetched; see {}".format(self.log)) from None
        descriptions = sorted(downloads.glob("{}_*.dsc".format(package)))
        if not descriptions:
            raise Unavailable("the archive has no source package {}".format(package))
        run(["dpkg-source", "--no-check", "--extract", descriptions[-1], destination], self.log, cwd=downloads)


def version_in(name):
    """The version in a package's name: (3, 14) for "python3.14-dbg"."""
    return tuple(map(int, re.search(r"(\d+)\.(\d+)", name).groups()))


def write_starter(path, lines):
    """Write the script that starts an interpreter, in one step."""
    path.parent.mkdir(parents=True, exist_ok=True)
    new = path.with_name("." + path.name)
    new.write_text("#!/bin/sh\n" + "".join(line + "\n" for line in lines))
    new.chmod(0o755)
    new.replace(path)


def works(starter):
    """Whether an interpreter starts and has what the module imports; returns its version, else None."""
    program = "import ctypes, sys, threading; print(sys.version.split()[0])"
    return output_of([starter, "-c", program], env=dict(os.environ, **QUIET_SANITIZERS)).strip()


class Interpreters:
    """The folder with everything that was brought in, and what became of each request."""

    def __init__(self, folder):
        self.folder = folder
        self.archive = Archive(folder / "apt")
        self.had = {}
        self.missing = {}

    def starter(self, name, sanitizer=None):
        return self.folder / ("sanitized" if sanitizer else "bin") / name

    def is_there(self, name, sanitizer=None):
        """Note an interpreter that already works; a script that starts none any more goes."""
        starter = self.starter(name, sanitizer)
        version = works(starter) if starter.exists() else None
        if version:
            self.had[name] = version
        elif starter.exists():
            starter.unlink()
        return bool(version)

    def finish(self, name, sanitizer=None):
        if not self.is_there(name, sanitizer):
            raise Unavailable("it does not start")

    # Debian's own

    def unpack_debian(self, wanted):
        """Unpack Debian's interpreters that are wanted (all that there are, where nothing is named)."""
        known = [path.name for path in (self.folder / "bin").glob("python3.*") if DEBIAN_PACKAGE.match(path.name)]
        there = [name for name in wanted or known if self.is_there(name)]
        if there and set(there) >= set(wanted) and all(self.has_tests(name) for name in there):
            return
        try:
            self.archive.open()
            available = self.archive.interpreter_packages()
            names = [name for name in wanted if name in available] if wanted else available
            for name in set(wanted) - set(available):
                self.missing[name] = "the archive has no such package"
            if not names:
                raise Unavailable("the archive has none of the packages")
            tree = self.folder / "debian"
            wanted_packages = names + sorted({tests_package(name) for name in names}) + list(CLIENTS)
            for package in self.archive.download(wanted_packages):
                tree.mkdir(parents=True, exist_ok=True)
                run(["dpkg-deb", "--extract", package, tree], self.archive.log)
                package.unlink()
            library = self.folder / "lib"
            if not library.is_symlink():
                library.symlink_to("debian/usr/lib")
            for name in names:
                self.start_through_loader(tree, name)
        except Unavailable as problem:
            for name in wanted or ["Debian's interpreters"]:
                if name not in self.had:
                    self.missing[name] = str(problem)

    def has_tests(self, name):
        """Whether the tests of one of Debian's interpreters, and the debugger's clients, have been unpacked, too."""
        libraries = self.folder / "debian" / "usr" / "lib"
        own_tests = libraries / "python{}.{}".format(*version_in(name)) / "test" / "test_bdb.py"
        return own_tests.exists() and (libraries / "python3" / "dist-packages" / CLIENT_MODULE).exists()

    def start_through_loader(self, tree, name):
        """Write the script for an interpreter of the tree: with the tree's own loader and libraries."""
        loaders = sorted(tree.glob("usr/lib*/ld-linux*.so.*"))
        libraries = sorted(path for path in tree.glob("usr/lib/*-linux-gnu*") if path.is_dir())
        if not loaders or not libraries:
            self.missing[name] = "its packages have no loader"
            return
        paths = ":".join(shlex.quote(str(path)) for path in libraries)
        write_starter(self.starter(name), [
            "# The interpreter takes the name that it is started by for its own: it finds its library beside that,",
            "# and starts others of its kind the same way.",
            'exec {} --argv0 "$0" --library-path {} {} "$@"'.format(
                shlex.quote(str(loaders[0])), paths, shlex.quote(str(tree / "usr" / "bin" / name))),
        ])
        try:
            self.finish(name)
        except Unavailable as problem:
            self.missing[name] = str(problem)

    # Built from source

    def build(self, build):
        """Have one interpreter that is made from sources."""
        if self.is_there(build.name, build.sanitizer):
            return
        try:
            install_needs(BUILD_NEEDS + (TSAN_NEEDS if build.settings else ()))
            source = self.folder / "sources" / build.source
            if not source.exists():
                self.archive.open()
                source.parent.mkdir(parents=True, exist_ok=True)
                unfinished = source.with_name(source.name + ".new")
                shutil.rmtree(unfinished, ignore_errors=True)
                self.archive.unpack_source(build.source, unfinished)
                unfinished.rename(source)
            self.compile(build, source)
        except (Unavailable, OSError) as problem:
            self.missing[build.name] = str(problem)

    def compile(self, build, source):
        """Configure and make, in a folder of its own from which the interpreter then runs."""
        folder = self.folder / "builds" / build.name
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        log = folder / "build.log"
        environment = {name: value for name, value in os.environ.items()
                       if name not in ("CC", "CXX", "CFLAGS", "CXXFLAGS", "LDFLAGS", "PYTHONHOME", "PYTHONPATH")}
        environment.update(build.settings)
        if build.sanitizer:
            environment["LDFLAGS"] = "-fsanitize=" + build.sanitizer  # configure adds it to compilations only
            environment.update(QUIET_SANITIZERS)
        left_out = ["py_cv_module_{}=n/a".format(name) for name in MODULES_LEFT_OUT]
        run([source / "configure", *build.options, "--without-ensurepip", "--with-readline=no", *left_out], log,
            cwd=folder, env=environment)
        run(["make", "-j{}".format(os.cpu_count() or 1)], log, cwd=folder, env=environment)
        write_starter(self.starter(build.name, build.sanitizer),
                      ['exec {} "$@"'.format(shlex.quote(str(folder / "python")))])
        self.finish(build.name, build.sanitizer)

    def report(self):
        """Say what is there and what is not."""
        print("Interpreters in {}:".format(self.folder))
        for name, version in sorted(self.had.items()):
            print("  {:20} {}".format(name, version))
        for name, reason in sorted(self.missing.items()):
            print("  {:20} could not be had: {}".format(name, reason))


def is_need_met(need):
    """Whether a program is on the PATH or a header among the compiler's."""
    if not need.endswith(".h"):
        return shutil.which(need) is not None
    result = subprocess.run(["gcc", "-E", "-x", "c", "-", "-o", os.devnull], text=True,
                            input="#include <{}>\n".format(need), stderr=subprocess.DEVNULL, check=False)
    return result.returncode == 0


def install_needs(needs):
    """Install what builds need, where we may."""
    missing = [package for need, package in needs if not is_need_met(need)]
    if missing and os.geteuid() == 0:
        environment = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
        for command in (["apt-get", "update"], ["apt-get", "install", "--yes", *missing]):
            print("+", shlex.join(command), flush=True)
            subprocess.run(command, stdin=subprocess.DEVNULL, env=environment, check=False)
        missing = [package for need, package in needs if not is_need_met(need)]
    if missing:
        raise Unavailable("please install {}".format(" ".join(missing)))


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--all", action="store_true", help="traced and sanitized builds as well")
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("names", nargs="*", metavar="NAME", help="only these")
    chosen = parser.parse_args(arguments)

    builds = {build.name: build for build in BUILDS}
    debian_names = [name for name in chosen.names if DEBIAN_PACKAGE.match(name)]
    unknown = set(chosen.names) - set(debian_names) - set(builds)
    if unknown:
        parser.error("no such interpreter: {}; there are {}, and python3.X and python3.X-dbg for Debian's own"
                     .format(" ".join(sorted(unknown)), " ".join(builds)))

    interpreters = Interpreters(chosen.folder.resolve())
    interpreters.folder.mkdir(parents=True, exist_ok=True)
    if debian_names or not chosen.names:
        interpreters.unpack_debian(debian_names)
    for build in BUILDS:
        if build.name in chosen.names or not chosen.names and (chosen.all or not build.on_request):
            interpreters.build(build)
    interpreters.report()


if __name__ == "__main__":
    main(sys.argv[1:])
