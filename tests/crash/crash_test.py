#!/usr/bin/env python3
"""Cuts the power at each step of a command, and looks whether all is there that it told of.

Usage: crash_test.py BUILD_DIR SCIM_LAUNCHER SECONDS SEED

Each command runs once, with each change that it makes to files recorded. The files that a power cut may leave behind
come of the record. The real programs then have to cope with them, beside a SCIM daemon with its file of that moment.
A change of data lasts once its file is synced, one of names once its folder is. Of what is not synced, any data may be
missing; the names in one folder keep their order.
"""

import concurrent.futures
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
from collections import Counter
from dataclasses import dataclass, field

BUILD, LAUNCHER = pathlib.Path(sys.argv[1]).absolute(), sys.argv[2]
SECONDS, SEED = float(sys.argv[3]), sys.argv[4]
LOG = "service.log"  # tells people what happened; no command reads it

ONE = ("settings set default_keyboard alpha selected_lang en_US,ko_KR handwriting on prediction on auto_space on"
       " auto_capitalize off auto_punctuation on key_tap_sound off key_tap_vib on"
       " downloaded_lang en_US,ko_KR,fr_FR downloaded_with_handwriting_lang en_US")
OTHER = ("settings set default_keyboard beta selected_lang fr_FR handwriting off prediction off auto_space off"
         " auto_capitalize on auto_punctuation off key_tap_sound on")
FORGET = "forget"  # all but the backups
KEYBOARD = "settings set default_keyboard alpha"

SCENARIOS = {  # what was done before, and what is cut
    "backup, the first": ([KEYBOARD], ["backup"]),
    "backup, a later one": ([ONE, "backup", OTHER], ["backup"]),
    "restore, on first use": ([ONE, "backup", FORGET], ["restore"]),
    "restore, later": ([ONE, "backup", OTHER, "settings unset key_tap_vib"], ["restore"]),
    "restore, the second": ([ONE, "backup", OTHER, "backup", "restore 1"], ["restore 2"]),
    "undo": ([ONE, "backup", OTHER, "settings unset key_tap_vib prediction", "restore"], ["undo"]),
    "settings set, the first": ([], [ONE]),
    "settings set, later": ([ONE], [OTHER]),
    "settings unset": ([ONE], ["settings unset prediction handwriting key_tap_vib"]),
    "delete": ([ONE, "backup", "backup", "backup"], ["delete 2 3"]),
    "prune": ([ONE, "backup", "backup", "backup"], ["prune --keep 1"]),
    "import": ([ONE, "backup", "export 1 exported"], ["import exported"]),
    "backup and delete": ([ONE], ["backup", "delete 1"]),
}
AFTERWARDS = [ONE, "backup", OTHER, "restore", "undo", "delete {}", "list"]


class Host:
    """A folder with the state of a host and a SCIM daemon."""

    def __init__(self, folder):
        self.folder, self.state = folder, folder / "state"
        self.config = folder / "scim/.scim/config"
        self.daemon = None
        self.environment = {
            "PATH": os.environ["PATH"], "HOME": str(folder), "TMPDIR": str(folder), "TZ": "UTC", "LC_ALL": "C",
            "IME_BACKUP_HOST_DIR": str(self.state), "DBUS_SESSION_BUS_ADDRESS": "disabled:",
            "SCIM_HOME": str(folder / "scim"), "SCIM_SOCKET_ADDRESS": f"local:{folder}/scim/socket"}

    def __enter__(self):
        self.config.parent.mkdir(parents=True, exist_ok=True)
        self.daemon = subprocess.Popen([LAUNCHER, "-c", "simple", "-e", "none", "-f", "socket"], env=self.environment,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        for _ in range(5000):
            for path in self.config.parent.parent.glob("socket*"):
                try:
                    socket.socket(socket.AF_UNIX).connect(str(path))
                    return self
                except ConnectionRefusedError:
                    pass
            time.sleep(0.002)
        raise SystemExit("the SCIM daemon does not start")

    def __exit__(self, *_):
        self.daemon.kill()
        self.daemon.wait()

    def run(self, command, output=subprocess.PIPE, **environment):
        return subprocess.run([BUILD / "bin/ime-backupctl", *command.split()], cwd=self.folder, stdout=output,
                              stderr=subprocess.PIPE, env=self.environment | environment, timeout=60)

    def forget(self):
        self.__exit__()
        for path in self.state.iterdir():
            if path.name != "cloud":
                shutil.rmtree(path) if path.is_dir() else path.unlink()
        shutil.rmtree(self.folder / "scim")
        self.__enter__()

    def tree(self):
        return {str(path.relative_to(self.state)): path.read_bytes() if path.is_file() else None
                for path in self.state.rglob("*") if is_kept(path.name)}

    def config_text(self):
        return self.config.read_bytes() if self.config.exists() else b""

    def settings(self):
        return json.loads(self.run("settings --json").stdout)

    def places(self):
        """The settings as the settings store and the SCIM daemon's file have them."""
        lines = self.config_text().decode().splitlines()
        configured = sorted(line for line in lines if "keyloom/" in line or "~other" in line)
        if not (self.state / "settings.db").exists():
            return [], configured
        with tempfile.TemporaryDirectory() as copy:
            for file in self.state.glob("settings.db*"):
                shutil.copy(file, copy)
            with sqlite3.connect(copy + "/settings.db") as database:
                return database.execute("SELECT * FROM settings ORDER BY key").fetchall(), configured


def is_kept(name):
    return name != LOG and not name.endswith("-shm")  # SQLite makes its shared memory anew after a crash


def backups_in(tree):
    found = {path: re.fullmatch(r"cloud/backup-(\d+)\.json", path) for path in tree}
    return {int(match[1]): path for path, match in found.items() if match}


def numbers_told(output):
    """The backups that are told to be there, and those that are told to be deleted."""
    told = [(int(number), word) for number, word in re.findall(rb"^backup (\d+)  (\S+)", output, re.M)]
    return {n for n, word in told if word != b"deleted"}, {n for n, word in told if word == b"deleted"}


# The record.


@dataclass
class Recording:
    name: str
    commands: list
    events: list
    before: dict  # the files, by their path
    config: bytes
    settings: list  # before and after
    places: list
    highest: int
    entries: list
    cuts: int = 0


def history(host):
    shown = host.run("history --json")
    return json.loads(shown.stdout) if shown.returncode == 0 else []


def record(name, folder):
    setup, commands = SCENARIOS[name]
    with Host(folder) as host:
        output = folder / "output"
        output.touch()
        (folder / "record").touch()
        host.state.mkdir()
        told = b""
        for command in setup:
            if command == FORGET:
                host.forget()
                continue
            result = host.run(command)
            assert result.returncode == 0, (command, result)
            told += result.stdout
        recording = Recording(name, commands, [], {}, host.config_text(), [host.settings()], [host.places()],
                              max(numbers_told(told)[0], default=0), history(host))
        recording.before = host.tree()
        for command in commands:
            with output.open("ab") as file:
                result = host.run(command, file, LD_PRELOAD=str(BUILD / "tests/libcrash-recorder.so"),
                                  CRASH_FOLDER=str(host.state), CRASH_RECORD=str(folder / "record"),
                                  CRASH_WATCHED=f"{host.config}:{output}")
            assert result.returncode == 0, (command, result)
            with (folder / "record").open("a") as file:
                for path in host.config, output:
                    file.write(f"seen\t{path}\t\t{path.read_bytes().hex() if path.exists() else ''}\n")
                file.write("end\t\t\t\n")
        after = host.tree()
        recording.settings.append(host.settings())
        recording.places.append(host.places())
    for line in (folder / "record").read_text().splitlines():
        operation, path, other, data = line.split("\t")
        path, other = (text.removeprefix(str(host.state)).lstrip("/") for text in (path, other))
        if operation in ("seen", "end") or is_kept(pathlib.Path(path).name):
            recording.events.append((operation, path, other, bytes.fromhex(data)))
    replayed = Cut(recording, len(recording.events)).tree(lambda *_: True, "all")
    assert replayed == after, f"{name}: the record misses changes"
    return recording


# What a cut leaves.


class File:
    """What of a file is on the disk, and what is not known to be."""

    def __init__(self, synced=b""):
        self.synced, self.pending = synced, []

    def content(self, kind, chance=None):
        changes = self.pending
        if kind == "none":
            changes = []
        elif kind == "zeros":
            changes = [(offset, data and bytes(len(data))) for offset, data in changes]
        elif kind == "not the first":
            changes = changes[1:]
        elif kind == "torn" and changes:
            count = chance.randrange(len(changes))
            offset, data = changes[count]
            changes = changes[:count] + [(offset, data and data[:chance.randrange(len(data))])]
        elif kind == "some":
            changes = [change for change in changes if chance.random() < 0.5]
        content = self.synced
        for offset, data in changes:
            if data is None:
                content = content[:offset].ljust(offset, b"\0")
            else:
                content = content[:offset].ljust(offset, b"\0") + data + content[offset + len(data):]
        return content


def rename(names, operation, path, other, what):
    if operation in ("create", "mkdir"):
        names[path] = what
    elif operation == "remove":
        names.pop(path)
    elif operation == "rename":
        names[other] = names.pop(path)
    else:
        names[path], names[other] = names[other], names[path]


class Cut:
    """What is known when the power goes after so many events."""

    def __init__(self, recording, count):
        self.recording, self.count = recording, count
        self.before = {path: None if content is None else File(content) for path, content in recording.before.items()}
        self.names = dict(self.before)  # as the programs see them
        self.renamings, self.synced, self.last_sync = [], Counter(), 0
        self.config, self.output, self.ended = recording.config, b"", 0
        for i, (operation, path, other, data) in enumerate(recording.events[:count], 1):
            file = self.names.get(path)
            if operation == "end":
                self.ended += 1
            elif operation == "seen":
                setattr(self, "output" if path.endswith("output") else "config", data)
            elif operation in ("write", "truncate"):
                if file:  # else its name is gone, and so is what is in it
                    file.pending.append((int(other), data if operation == "write" else None))
            elif operation == "sync":
                self.last_sync = i
                if file:
                    file.synced, file.pending = file.content("all"), []
                else:
                    self.synced[path] = i
            else:
                what = File() if operation == "create" else None
                self.renamings.append((i, operation, path, other, what))
                rename(self.names, operation, path, other, what)

    def tree(self, is_there, kinds, chance=None):
        """The files that are left when of the renamings those last that `is_there` tells."""
        names = dict(self.before)
        for i, operation, path, other, what in self.renamings:
            folder = os.path.dirname(path)
            if i <= self.synced[folder] or is_there(i, folder):
                rename(names, operation, path, other, what)
        # A folder comes before what is in it.
        left = {}
        for path, file in sorted(names.items()):
            if os.path.dirname(path) in ("", *left):
                kind = kinds if isinstance(kinds, str) else kinds(file)
                left[path] = file and file.content(kind, chance)
        return left

    def unsynced(self):
        return {path: file for path, file in self.names.items() if file and file.pending}


def all_names(*_):
    return True


@dataclass
class State:
    cut: Cut
    tree: dict
    left_out: str
    problems: list = field(default_factory=list)


def worst_of(cut, kind):
    """The states of one kind that this cut may leave."""
    if kind == "no data":
        yield State(cut, cut.tree(all_names, "none"), "all data that is not synced")
    elif kind == "one file":
        for path, missing in cut.unsynced().items():
            yield State(cut, cut.tree(all_names, lambda file: "none" if file is missing else "all"),
                        f"the data of {path} that is not synced")
    elif kind == "no names":
        yield State(cut, cut.tree(lambda *_: False, "all"), "all names that are not synced")
    elif kind == "gap":
        yield State(cut, cut.tree(all_names, "not the first"), "the first data of each file that is not synced")
    else:
        yield State(cut, cut.tree(all_names, "all"), "nothing")


def any_of(cut, chance):
    if chance.random() < 0.5:  # as in a journal of all folders
        limit = chance.randint(cut.last_sync, cut.count)
        limits, text = {}, f"names from event {limit} on"
    else:
        limit = None
        folders = {os.path.dirname(renaming[2]) for renaming in cut.renamings}
        limits = {folder: chance.randint(0, cut.count) for folder in sorted(folders)}
        text = "names from these events on: " + str(limits)
    chosen = {id(file): chance.choice(["all", "none", "zeros", "torn", "some", "not the first"])
              for file in cut.unsynced().values()}
    text += "; data: " + str({path: chosen[id(file)] for path, file in cut.unsynced().items()})
    tree = cut.tree(lambda i, folder: i <= (limits[folder] if limit is None else limit),
                    lambda file: chosen.get(id(file), "all"), chance)
    return State(cut, tree, text)


def states_of(recording, chance):
    """Each state once, the worst first; then any, until hardly one is new."""
    cuts = [Cut(recording, count) for count in range(len(recording.events) + 1)]
    recording.cuts = len(cuts)
    known = set()

    def is_new(state):
        key = hash((frozenset(state.tree.items()), state.cut.config, state.cut.output, state.cut.ended,
                    frozenset(backups_in(state.cut.names))))
        return key not in known and not known.add(key)

    for kind in ("no data", "one file", "no names", "gap", "all"):
        for cut in chance.sample(cuts, len(cuts)):
            yield from filter(is_new, worst_of(cut, kind))
    tries = 0
    while tries < 1000:
        state = any_of(chance.choice(cuts), chance)
        tries += 1
        if is_new(state):
            tries = 0
            yield state


# What has to hold.


def check(state, host):
    cut, recording, problems = state.cut, state.cut.recording, state.problems

    def succeed(command):
        result = host.run(command)
        if result.returncode != 0:
            problems.append(f"{command.split(' default_')[0]} exits with {result.returncode}: "
                            f"{(result.stderr or result.stdout).decode().strip()}")
        return result.stdout

    told, deleted = numbers_told(cut.output)
    here = backups_in(cut.names)
    highest = max(told | {recording.highest, 0})
    listed = {backup["id"] for backup in json.loads(succeed("verify --json") or "[]")}
    kept = {n for n in backups_in(recording.before).keys() | told if n in here}
    for number in kept:
        if number not in listed or state.tree[here[number]] != cut.names[here[number]].content("all"):
            problems.append(f"backup {number} is lost")
    for number in deleted & listed:
        problems.append(f"backup {number} is back, though it was told to be deleted")

    before, after = recording.settings
    is_done = cut.ended == len(recording.commands) or (len(recording.commands) == 1 and cut.output)
    for name, value in (json.loads(succeed("settings --json") or "{}")).items():
        if value not in ([after[name]] if is_done else [before[name], after[name]]):
            problems.append(f"{name} is {value}, before it was {before[name]}, afterwards {after[name]}")
    check_undo(state, host, succeed)

    number = 0
    for command in AFTERWARDS:
        output = succeed(command.format(number))
        if command == "backup":
            number = max(numbers_told(output)[0], default=0)
            if number <= highest:
                problems.append(f"backup {number} is made after backup {highest}")
    strays = [path for path in host.tree() if ".new" in path or path.endswith("-journal")]
    if strays:
        problems.append("left behind: " + ", ".join(strays))


def check_undo(state, host, succeed):
    """What is cut is put back, as far as it came, or an undo is completed."""
    recording = state.cut.recording
    command = recording.commands[0].split()[0]
    if command not in ("restore", "undo", "settings"):
        return
    undone = len(recording.entries) - (command == "undo")
    entries = [entry for entry in history(host)[undone:] if not entry["undone"]]
    if entries or (host.run("help history").returncode != 0 and command != "settings"):
        succeed("undo")
    elif host.run("help history").returncode != 0:
        return
    places, wanted = host.places(), recording.places[command == "undo"]
    if places != wanted:
        state.problems.append(f"undo leaves {places} instead of {wanted}")


def try_state(state, folder):
    host = Host(folder)
    put_down(state, host)
    with host:
        check(state, host)
    shutil.rmtree(folder)


def put_down(state, host):
    host.state.mkdir(parents=True)
    for path, content in state.tree.items():
        if content is None:
            (host.state / path).mkdir()
        else:
            (host.state / path).write_bytes(content)
    if state.cut.config:
        host.config.parent.mkdir(parents=True)
        host.config.write_bytes(state.cut.config)


def in_turns(iterators):
    iterators = list(iterators)
    while iterators:
        for iterator in list(iterators):
            if (state := next(iterator, None)) is None:
                iterators.remove(iterator)
            else:
                yield state


def main():
    # In memory: what the programs sync there costs nothing.
    folder = pathlib.Path(tempfile.mkdtemp(prefix="crash-", dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None))
    kept = pathlib.Path(tempfile.gettempdir()) / folder.name
    end = time.monotonic() + SECONDS
    recordings = []
    for i, name in enumerate(SCENARIOS):
        (folder / str(i)).mkdir()
        recordings.append(record(name, folder / str(i)))
    states = in_turns(states_of(recording, random.Random(SEED + recording.name)) for recording in recordings)
    lock, tried, failed = threading.Lock(), Counter(), Counter()

    def work():
        while time.monotonic() < end:
            with lock:
                if (state := next(states, None)) is None:
                    return
                name = state.cut.recording.name
                tried[name] += 1
                number = sum(tried.values())
            try_state(state, folder / f"state{number}")
            if state.problems:
                with lock:
                    failed[name] += 1
                    put_down(state, Host(kept / str(number)))
                    event = state.cut.recording.events[state.cut.count - 1][:3] if state.cut.count else "nothing"
                    print(f"{name}: cut after event {state.cut.count} ({' '.join(event)}), missing: {state.left_out}\n"
                          f"  kept in {kept / str(number)}\n  " + "\n  ".join(state.problems), flush=True)

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as workers:
        for worker in [workers.submit(work) for _ in range(os.cpu_count())]:
            worker.result()
    shutil.rmtree(folder)
    for recording in recordings:
        print(f"{recording.name}: {recording.cuts} cuts, {tried[recording.name]} states,"
              f" {failed[recording.name]} of them fail")
    print(f"{sum(tried.values())} states, seed {SEED}")
    sys.exit(1 if failed else 0)


main()
