# SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
"""The copies of the tree in which tools/mutate works, and the checks that it runs there.

A copy is made and built once; from then on a file of it is changed for each mutant and healed
again, and the module is built. A program is built anew only when a check needs it and objects of it
have become stale, which takes a change of a header.
"""

import collections
import contextlib
import json
import os
import re
import resource
import shutil
import signal
import subprocess
import sys
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
MODULE = "tarv"
PRESET = "mutate"
NOT_COPIED = {".git", "build", "__pycache__"}

# How long a check may take with a fault in the module: so many times as long as without one, and
# some seconds. Processor time goes first, because other work on the machine has no part in it.
CPU_FACTOR, CPU_EXTRA = 4, 3
WALL_FACTOR, WALL_EXTRA = 10, 20
LONGEST = 600
COMPILATION = 3.0  # seconds, more or less
HOME = 10  # so many times as much counts what a check has caught in the same file
MOST_MEMORY = 4 << 30
MOST_OUTPUT = 64 << 20

TREE = "@tree@"  # the place of a copy in what is the same for all of them

Verdict = collections.namedtuple("Verdict", "failed skipped seconds timed_out detail")


class Stopped(Exception):
    """Somebody wants to see the report."""


class Processes:
    """What is running, so that all of it can be ended."""

    def __init__(self):
        self.lock = threading.RLock()  # a signal may come while it is held
        self.running = set()
        self.stopped = False

    def start(self, *args, **more):
        with self.lock:
            if self.stopped:
                raise Stopped
            process = subprocess.Popen(*args, **more, start_new_session=True,
                                       stdin=subprocess.DEVNULL)
            self.running.add(process)
        return process

    def wait(self, process, timeout=None):
        """The exit status, or None when it had to be ended. Leaves nothing behind."""
        status = None
        with contextlib.suppress(subprocess.TimeoutExpired):
            status = process.wait(timeout)
        self.end(process)
        with self.lock:
            self.running.discard(process)
            if self.stopped:
                raise Stopped
        return status

    @staticmethod
    def end(process):
        """Asks the whole group first: a script may have to take a mounted file system away."""
        for number, patience in ((signal.SIGTERM, 2), (signal.SIGKILL, None)):
            with contextlib.suppress(ProcessLookupError, subprocess.TimeoutExpired):
                os.killpg(process.pid, number)
                process.wait(patience)

    def stop(self):
        with self.lock:
            self.stopped = True
            for process in self.running:
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGTERM)


PROCESSES = Processes()


def limit_resources(process, cpu_seconds):
    for kind, most in ((resource.RLIMIT_CPU, cpu_seconds), (resource.RLIMIT_AS, MOST_MEMORY),
                       (resource.RLIMIT_FSIZE, MOST_OUTPUT), (resource.RLIMIT_CORE, 0)):
        with contextlib.suppress(ProcessLookupError):  # it may have ended already
            resource.prlimit(process.pid, kind, (most, most))


class Check:
    """One command that fails when something is wrong, and what it has done so far."""

    def __init__(self, name, command, programs, properties):
        self.name, self.command = name, command
        self.programs = programs  # which of the build's programs it takes
        self.directory = properties.get("WORKING_DIRECTORY", ".")
        self.environment = properties.get("ENVIRONMENT", [])
        self.skip = properties.get("SKIP_RETURN_CODE")
        self.usual = 0.0  # seconds without a fault
        self.most_cpu = self.most_time = properties.get("TIMEOUT", LONGEST)
        self.runs = self.kills = self.alone = 0
        self.kills_in = collections.Counter()  # by file of the module
        self.seconds = 0.0

    def measured(self, seconds):
        self.usual = seconds
        self.most_cpu = int(seconds * CPU_FACTOR) + CPU_EXTRA
        self.most_time = seconds * WALL_FACTOR + WALL_EXTRA

    def promise(self, stale, file):
        """Faults caught per second, when so many stale objects have to be compiled first. Who has
        caught some in that file before counts for more."""
        kills = self.kills + HOME * self.kills_in[file]
        return (kills + 0.5) / (self.runs + 1) / (self.usual + 0.02 + stale * COMPILATION)


class Tree:
    """A copy of the sources with a build in it."""

    def __init__(self, number):
        self.path = os.path.join(ROOT, "build", "mutants", str(number))
        self.build_path = os.path.join(self.path, "build", PRESET)
        self.scratch = os.path.join(self.path, "scratch")
        self.log = os.path.join(self.path, "build.log")
        self.users = collections.defaultdict(set)  # which of the programs' objects a file is in
        self.inputs = {}  # what the programs are made of
        self.stale = set()  # objects that a build would make anew

    def follow(self):
        """Makes it what the tree of the user is. Files that have not changed keep their time."""
        wanted = set()
        for folder, folders, files in os.walk(ROOT):
            folders[:] = [name for name in folders if name not in NOT_COPIED]
            for name in files:
                source = os.path.join(folder, name)
                wanted.add(os.path.relpath(source, ROOT))
                self.take_over(source, os.path.join(self.path, os.path.relpath(source, ROOT)))
        for folder, folders, files in os.walk(self.path):
            folders[:] = [name for name in folders if name not in NOT_COPIED | {"scratch"}]
            for name in files:
                path = os.path.join(folder, name)
                if os.path.relpath(path, self.path) not in wanted and path != self.log:
                    os.remove(path)

    @staticmethod
    def take_over(source, copy):
        with open(source, "rb") as file:
            content = file.read()
        if os.path.exists(copy):
            with open(copy, "rb") as file:
                if file.read() == content:
                    return
        os.makedirs(os.path.dirname(copy), exist_ok=True)
        shutil.copyfile(source, copy)
        shutil.copymode(source, copy)

    def prepare(self):
        self.follow()
        shutil.rmtree(self.scratch, ignore_errors=True)
        os.makedirs(self.scratch, exist_ok=True)
        self.run_or_die(["cmake", "-S", self.path, "--preset", PRESET])
        self.run_or_die(self.build_command("all"))
        self.learn_users()

    def environment(self):
        # A compiler cache, where there is one, takes what the one copy compiled for the other.
        return {**os.environ, "CCACHE_BASEDIR": self.path, "TMPDIR": self.scratch,
                "GTEST_FAIL_FAST": "1"}

    def build_command(self, *targets):
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        return ["cmake", "--build", self.build_path, "--parallel", jobs, "--target", *targets]

    def run(self, command):
        with open(self.log, "w", encoding="utf-8") as log:
            process = PROCESSES.start(command, stdout=log, stderr=subprocess.STDOUT, cwd=self.path,
                                      env=self.environment())
            return PROCESSES.wait(process) == 0

    def run_or_die(self, command):
        if not self.run(command):
            with open(self.log, encoding="utf-8") as log:
                sys.exit(f"{log.read()}\nmutate: {' '.join(command)} failed")

    def checks(self):
        """Those of CTest, with all tests of a GoogleTest program as one; they fit every tree."""
        said = subprocess.run(["ctest", "--test-dir", self.build_path, "--show-only=json-v1"],
                              check=True, capture_output=True, text=True).stdout
        checks = {}
        for test in json.loads(said.replace(self.path, TREE))["tests"]:
            name, command = test["name"], test["command"]
            if any(word.startswith("--gtest_filter=") for word in command):
                name, command = os.path.basename(command[0]), command[:1]
            command = [word for word in command if word != "--gtest_brief=1"]
            properties = {row["name"]: row["value"] for row in test.get("properties", [])}
            programs = tuple(filter(self.is_program, map(self.below_build, command)))
            checks.setdefault(tuple(command), Check(name, command, programs, properties))
        return list(checks.values())

    def below_build(self, word):
        return os.path.relpath(word.replace(TREE, self.path), self.build_path)

    def is_program(self, name):
        path = os.path.join(self.build_path, name)
        return not name.startswith("..") and os.path.isfile(path) and os.access(path, os.X_OK)

    def judge(self, check):
        """Runs a check in this tree."""
        def here(word):
            return word.replace(TREE, self.path)
        environment = self.environment()
        environment.update(here(pair).split("=", 1) for pair in check.environment)
        output = os.path.join(self.scratch, "output")
        start = time.monotonic()
        with open(output, "wb") as log:
            process = PROCESSES.start([here(word) for word in check.command], env=environment,
                                      cwd=os.path.join(self.build_path, here(check.directory)),
                                      stdout=log, stderr=subprocess.STDOUT)
            limit_resources(process, int(check.most_cpu))
            status = PROCESSES.wait(process, check.most_time)
        seconds = time.monotonic() - start
        failed = status not in (0, check.skip)
        # A script does not tell that what it ran was ended for its time.
        timed_out = failed and (status is None or seconds >= check.most_cpu)
        return Verdict(failed, status == check.skip, seconds, timed_out,
                       self.failing_test(output) if failed else "")

    @staticmethod
    def failing_test(output):
        """The first of a GoogleTest program that failed, or that was running when it ended."""
        running = ""
        with open(output, encoding="utf-8", errors="replace") as log:
            for line in log:
                found = re.match(r"\[ +(RUN|FAILED) +\] ([\w./]+)", line)
                if found:
                    running = found[2]
                    if found[1] == "FAILED":
                        break
        return running

    def plant(self, mutant):
        """Returns what heals the file again."""
        path = os.path.join(self.path, mutant.file)
        with open(path, encoding="utf-8") as source:
            healthy = source.read()
        lines = healthy.split("\n")
        assert lines[mutant.line - 1] == mutant.old, "the sources have changed"
        lines[mutant.line - 1] = mutant.new

        def write(text):
            # It is new to the build each time, so that no object of a mutant stays.
            with open(path, "w", encoding="utf-8") as source:
                source.write(text)
            self.stale |= self.users[mutant.file]
        write("\n".join(lines))
        return lambda: write(healthy)

    def ninja(self, *tool):
        command = ["ninja", "-C", self.build_path, "--quiet", "-t", *tool]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout

    def learn_users(self):
        modules_own = set(self.ninja("inputs", MODULE).split("\n"))
        user = ""
        for line in self.ninja("deps").split("\n"):
            if not line.startswith(" "):
                user = line.split(":")[0]
            elif user not in modules_own:
                file = os.path.normpath(os.path.join(self.build_path, line.strip()))
                self.users[os.path.relpath(file, self.path)].add(user)

    def stale_in(self, programs):
        if not self.stale or not programs:
            return set()
        if programs not in self.inputs:
            self.inputs[programs] = set(self.ninja("inputs", *programs).split("\n"))
        return self.stale & self.inputs[programs]

    def build_module(self):
        return self.run(self.build_command(MODULE))

    def build_stale(self, programs):
        """False when they do not compile."""
        stale = self.stale_in(programs)
        if stale and not self.run(self.build_command(*programs)):
            return False
        self.stale -= stale
        return True
