#!/usr/bin/env python3
"""Cuts the power at each step of a command, and checks that everything that the command had reported is there.

Usage: crash_test.py BUILD_DIR SCIM_LAUNCHER

Each command runs once, and its changes of files are recorded. The record gives the states in which a power cut may
leave the files. The real programs have to cope with each state, with a SCIM daemon whose file is as it was then.
Data is durable once its file is synced, a name once its folder is synced. Any part of unsynced data may be missing.
Of a folder's unsynced changes of names, all from some change on are missing.
"""

import collections
import concurrent.futures
import contextlib
import itertools
import json
import os
import pathlib
import random
import re
import shutil
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
from types import SimpleNamespace

BUILD, LAUNCHER = pathlib.Path(sys.argv[1]).absolute(), sys.argv[2]
SECONDS, SEED = float(os.environ.get("CRASH_SECONDS", 40)), os.environ.get("CRASH_SEED", "1")

ONE = ("settings set default_keyboard alpha selected_lang en_US,ko_KR handwriting on prediction on auto_space on"
       " auto_capitalize off auto_punctuation on key_tap_sound off key_tap_vib on"
       " downloaded_lang en_US,ko_KR,fr_FR downloaded_with_handwriting_lang en_US")
OTHER = ("settings set default_keyboard beta selected_lang fr_FR handwriting off prediction off auto_space off"
         " auto_capitalize on auto_punctuation off key_tap_sound on")
LEFT_OUT = re.compile(r"(.*/)?(service\.log|.*-shm)")  # the log is for people; SQLite recreates the other file
FORGET = "find state -mindepth 1 -not -path state/cloud* -delete"  # deletes all files except the backups

SCENARIOS = {  # the commands before, and the commands that are cut
    "backup, the first": (["settings set default_keyboard alpha"], ["backup"]),
    "backup, a later one": ([ONE, "backup", OTHER], ["backup"]),
    "restore, on first use": ([ONE, "backup", OTHER, FORGET], ["restore"]),
    "restore, later": ([ONE, "backup", OTHER, "settings unset key_tap_vib"], ["restore"]),
    "restore, the second": ([ONE, "backup", OTHER, "backup", "restore 1"], ["restore 2"]),
    "restore, of chosen settings": ([ONE, "backup", OTHER, "settings unset key_tap_vib"],
                                    ["restore --only default_keyboard,prediction,key_tap_vib"]),
    "undo": ([ONE, "backup", OTHER, "settings unset key_tap_vib prediction", "restore"], ["undo"]),
    "settings set, the first": ([], [ONE]),
    "settings set, later": ([ONE], [OTHER]),
    "settings unset": ([ONE], ["settings unset prediction handwriting key_tap_vib"]),
    "delete": ([ONE, "backup", "backup", "backup"], ["delete 2 3"]),
    "prune": ([ONE, "backup", "backup", "backup"], ["prune --keep 1"]),
    "import": ([ONE, "backup", "export 1 exported"], ["import exported"]),
    "backup and delete": ([ONE], ["backup", "delete 1"]),
}
AFTERWARDS = [ONE, "backup", OTHER, "restore", "undo", "delete {newest}", "list"]


class Host:
    """A folder with the files of a host. As a context, it runs a SCIM daemon."""

    def __init__(self, folder):
        self.folder, self.state, self.config = folder, folder / "state", folder / "scim/.scim/config"
        self.environment = {
            "PATH": os.environ["PATH"], "HOME": str(folder), "TMPDIR": str(folder), "LC_ALL": "C",
            "IME_BACKUP_HOST_DIR": str(self.state), "DBUS_SESSION_BUS_ADDRESS": "disabled:",
            "SCIM_HOME": str(folder / "scim"), "SCIM_SOCKET_ADDRESS": f"local:{folder}/scim/socket"}

    def __enter__(self):
        self.config.parent.mkdir(parents=True, exist_ok=True)
        self.daemon = subprocess.Popen([LAUNCHER, "-c", "simple", "-e", "none", "-f", "socket"], env=self.environment,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        while not any(socket.socket(socket.AF_UNIX).connect_ex(str(path)) == 0
                      for path in self.config.parent.parent.glob("socket*")):
            assert self.daemon.poll() is None, "the SCIM daemon does not start"
            time.sleep(0.002)
        return self

    def __exit__(self, *_):
        self.daemon.kill()
        self.daemon.wait()

    def run(self, command, output=subprocess.PIPE, **environment):
        program = [] if command == FORGET else [BUILD / "bin/ime-backupctl"]
        return subprocess.run(program + command.split(), cwd=self.folder, env=self.environment | environment,
                              stdout=output, stderr=subprocess.PIPE, timeout=60)

    def json(self, command):
        return json.loads(self.run(command + " --json").stdout)

    def tree(self):
        return {str(path.relative_to(self.state)): path.read_bytes() if path.is_file() else None
                for path in self.state.rglob("*") if not LEFT_OUT.fullmatch(path.name)}

    def configuration(self):
        return self.config.read_bytes() if self.config.exists() else b""

    def settings(self):
        """The settings as shown, and as stored in the settings store and SCIM's file."""
        lines = self.configuration().decode().splitlines()
        kept = sorted(line for line in lines if "keyloom/" in line or "~other" in line)
        with tempfile.TemporaryDirectory() as copy:
            for file in self.state.glob("settings.db*"):
                shutil.copy(file, copy)
            if os.path.exists(copy + "/settings.db"):
                with contextlib.closing(sqlite3.connect(copy + "/settings.db")) as store:
                    kept += store.execute("SELECT * FROM settings ORDER BY key").fetchall()
        return self.json("settings"), kept


def backups_in(names):
    return {int(match[1]): match[0] for match in map(re.compile(r"cloud/backup-(\d+)\.json$").match, names) if match}


def numbers_in(output, is_deleted=False):
    """The backups that the output reports as stored, or as deleted."""
    return {int(number) for number, word in re.findall(rb"^backup (\d+)  (\S+)", output, re.M)
            if (word == b"deleted") == is_deleted}


def record(name, folder):
    setup, commands = SCENARIOS[name]
    made, output, printed = folder / "record", folder / "output", b""
    with Host(folder) as host:
        host.state.mkdir(parents=True)
        for command in setup:
            result = host.run(command)
            assert result.returncode == 0, result
            printed += result.stdout
        before, history, events = host.settings(), host.json("history"), []
        recording = SimpleNamespace(
            name=name, commands=commands, events=events, tree=host.tree(), configuration=host.configuration(),
            entry=history[-1]["entry"] if history else 0, highest=max(numbers_in(printed), default=0))
        made.touch()
        for command in commands:
            with output.open("ab") as file:
                result = host.run(command, file, LD_PRELOAD=BUILD / "tests/libcrash-recorder.so", CRASH_RECORD=made,
                                  CRASH_FOLDER=host.state, CRASH_WATCHED=f"{host.config}:{output}")
            assert result.returncode == 0, result
            for line in made.read_text().splitlines():
                event, path, other, data = line.replace(f"{host.state}/", "").replace(f"{host.state}", "").split("\t")
                if not LEFT_OUT.fullmatch(path):
                    events.append((event, path, other, bytes.fromhex(data)))
            os.truncate(made, 0)
            events += ("seen", "config", "", host.configuration()), ("end", "", "", output.read_bytes())
        assert Cut(recording, len(events)).left()[1] == host.tree(), f"{name}: the record misses a change"
        recording.settings = before, host.settings()
    return recording


class File:
    """The synced content of a file, and its unsynced changes."""

    def __init__(self, synced=b""):
        self.synced, self.pending = synced, []

    def content(self, missing="nothing", chance=random):
        written = self.pending
        changes = {"all": [], "the first": written[1:], "some": [each for each in written if chance.random() < 0.5],
                   "zeros": [(offset, data and bytes(len(data))) for offset, data in written]}.get(missing, [*written])
        if missing == "from the middle on" and changes:
            del changes[chance.randrange(len(changes)) + 1:]
            offset, data = changes[-1]
            changes[-1] = offset, data and data[:chance.randrange(len(data))]
        content = self.synced
        for offset, data in changes:
            rest = b"" if data is None else content[offset + len(data):]
            content = content[:offset].ljust(offset, b"\0") + (data or b"") + rest
        return content


def change_names(names, event, path, other, what):
    if event == "remove":
        names.pop(path)
    elif event == "rename":
        names[other] = names.pop(path)
    elif event == "exchange":
        names[path], names[other] = names[other], names[path]
    else:
        names[path] = what


class Cut:
    """The state when the power is cut after a number of events."""

    def __init__(self, recording, count):
        self.recording, self.count = recording, count
        self.before = {path: None if content is None else File(content) for path, content in recording.tree.items()}
        self.names = dict(self.before)  # as the programs see them
        self.name_changes, self.synced, self.last_sync = [], collections.Counter(), 0
        self.configuration, self.output, self.ended = recording.configuration, b"", 0
        for i, (event, path, other, data) in enumerate(recording.events[:count], 1):
            file = self.names.get(path)
            if event == "end" or (event == "seen" and path.endswith("output")):
                self.output, self.ended = data, self.ended + (event == "end")
            elif event == "seen":
                self.configuration = data
            elif event in ("write", "truncate"):
                if file:  # otherwise the file has been removed
                    file.pending.append((int(other), data if event == "write" else None))
            elif event == "sync" and file:
                self.last_sync, file.synced, file.pending = i, file.content(), []
            elif event == "sync":
                self.last_sync = self.synced[path] = i
            else:
                self.name_changes.append((i, event, path, other, File() if event == "create" else None))
                change_names(self.names, *self.name_changes[-1][1:])
        files = itertools.chain(self.before.items(), [(change[2], change[4]) for change in self.name_changes],
                                self.names.items())
        self.unsynced = {file: path for path, file in files if file and file.pending}

    def left(self, data="nothing", names=None, chance=random):
        """Returns the files that are left. `data` says what is missing of the data: of all files, or of each file.
        `names` is the event from which on changes of names are missing: of all folders, or of each folder."""
        tree, left = dict(self.before), {}
        for i, event, path, other, what in self.name_changes:
            folder = os.path.dirname(path)
            if names is None or i <= self.synced[folder] or i < (names if isinstance(names, int) else names[folder]):
                change_names(tree, event, path, other, what)
        for path, file in sorted(tree.items()):  # a folder comes before its files
            if os.path.dirname(path) in ("", *left):
                left[path] = file and file.content(data if isinstance(data, str) else data.get(file), chance)
        of = data if isinstance(data, str) else {self.unsynced[file]: missing for file, missing in data.items()}
        return self, left, f"data: {of}; names from event: {names}"

    def worst(self):
        each = [{"data": {file: "all"}} for file in self.unsynced]
        for options in {"data": "all"}, *each, {"names": 0}, {"data": "the first"}, {}:
            yield self.left(**options)

    def any(self, chance):
        data = {file: chance.choice(["nothing", "all", "the first", "zeros", "some", "from the middle on"])
                for file in self.unsynced}
        names = chance.randint(self.last_sync, self.count) + 1  # as in a journal of all folders
        if chance.random() < 0.5:
            folders = sorted({os.path.dirname(change[2]) for change in self.name_changes})
            names = {folder: chance.randint(0, self.count) + 1 for folder in folders}
        return self.left(data, names, chance)


def in_turns(*iterators):
    return filter(None, itertools.chain.from_iterable(itertools.zip_longest(*iterators)))


def states_of(recording, chance):
    """Yields each state once: the worst states after the last event, then the worst and random states of each cut,
    until hardly any state is new."""
    cuts = [Cut(recording, count) for count in range(len(recording.events) + 1)]
    last = cuts[-1]
    chance.shuffle(cuts)
    other = in_turns(in_turns(*[cut.worst() for cut in cuts]),
                     (chance.choice(cuts).any(chance) for _ in itertools.count()))
    known, duplicates = set(), 0
    for cut, tree, missing in itertools.chain(last.worst(), other):
        key = frozenset(tree.items()), cut.configuration, cut.output, cut.ended, *backups_in(cut.names)
        duplicates = duplicates + 1 if key in known else 0
        if duplicates == 0:
            known.add(key)
            yield cut, tree, missing
        elif duplicates > 1000:
            return


def check(cut, tree, host):
    """Returns the problems of a host in this state."""
    recording, problems = cut.recording, []

    def succeed(command):
        result = host.run(command)
        if result.returncode != 0:
            problems.append(f"{command} exits with {result.returncode}: {(result.stderr or result.stdout).decode()}")
        return result.stdout

    listed = {backup["id"] for backup in json.loads(succeed("verify --json") or "[]")}
    for number, path in backups_in(cut.names).items():
        if number in {*backups_in(recording.tree), *numbers_in(cut.output)} and (
                number not in listed or tree[path] != cut.names[path].content()):
            problems.append(f"backup {number} is lost")
    for number in numbers_in(cut.output, is_deleted=True) & listed:
        problems.append(f"backup {number} is back, though it was reported as deleted")

    (before, before_kept), (after, after_kept) = recording.settings
    is_undo = recording.commands == ["undo"]  # of the last entry
    begun = [entry for entry in json.loads(succeed("history --json")) if entry["entry"] > recording.entry - is_undo
             and entry["what"].split()[0] in ("restore", "settings")]
    is_done = cut.ended == len(recording.commands) or (len(recording.commands) == 1 and cut.output) or (
        not is_undo and any(entry["succeeded"] for entry in begun))
    for name, value in host.settings()[0].items():
        if value not in ([after[name]] if is_done else [before[name], after[name]]):
            problems.append(f"{name} is {value}; before it was {before[name]}, afterwards {after[name]}")
    # Unfinished changes can be undone, and an unfinished undo can be finished.
    if any(entry["changed"] and not entry["undone"] for entry in begun):
        succeed("undo")
    kept, wanted = host.settings()[1], after_kept if is_undo else before_kept
    if kept != wanted and recording.commands[0].startswith(("restore", "settings", "undo")):
        problems.append(f"undo leaves {kept} instead of {wanted}")

    highest, newest = max(numbers_in(cut.output) | {recording.highest}), 0
    for command in AFTERWARDS:
        output = succeed(command.format(newest=newest))
        newest = max(numbers_in(output), default=0) if command == "backup" else newest
    if newest <= highest:
        problems.append(f"backup {newest} is made after backup {highest}")
    strays = [path for path in host.tree() if ".new" in path or path.endswith("-journal")]
    return problems + ["left behind: " + ", ".join(strays)] * bool(strays)


def write_state(cut, tree, folder):
    host = Host(folder)
    host.state.mkdir(parents=True)
    for path, content in tree.items():
        (host.state / path).mkdir() if content is None else (host.state / path).write_bytes(content)
    if cut.configuration:
        host.config.parent.mkdir(parents=True)
        host.config.write_bytes(cut.configuration)
    return host


def run(work):
    end = time.monotonic() + SECONDS
    recordings = [record(name, work / str(number)) for number, name in enumerate(SCENARIOS)]
    states = in_turns(*[states_of(recording, random.Random(SEED + recording.name)) for recording in recordings])
    kept, lock = pathlib.Path(tempfile.gettempdir()) / work.name, threading.Lock()
    tried, failed = collections.Counter(), collections.Counter()

    def try_states():
        while time.monotonic() < end:
            with lock:
                if (state := next(states, None)) is None:
                    return
                cut, tree, missing = state
                name = cut.recording.name
                tried[name] += 1
                number = f"state{tried.total()}"
            with write_state(cut, tree, work / number) as host:
                try:
                    problems = check(cut, tree, host)
                except (json.JSONDecodeError, sqlite3.Error, subprocess.TimeoutExpired) as error:
                    problems = [repr(error)]
            shutil.rmtree(work / number)
            if problems:
                write_state(cut, tree, kept / number)
                failed[name] += 1
                event = cut.recording.events[cut.count - 1][:3] if cut.count else "the beginning"
                print(f"{name}: cut after event {cut.count}, {event}, missing {missing}",
                      f"the state: {kept / number}", *problems, sep="\n  ", flush=True)

    with concurrent.futures.ThreadPoolExecutor() as workers:
        list(workers.map(lambda _: try_states(), range(os.cpu_count())))
    for name in SCENARIOS:
        print(f"{name}: {tried[name]} states, {failed[name]} of them fail")
    print(f"{tried.total()} states, seed {SEED}")
    sys.exit(bool(failed))


# In memory, where a sync costs nothing.
with tempfile.TemporaryDirectory(prefix="crash-", dir="/dev/shm" if os.path.isdir("/dev/shm") else None) as folder:
    run(pathlib.Path(folder))
