"""Prints the table of the bench from its measurements.

Usage: table.py [--check] FOLDER
"""

import json
import pathlib
import statistics
import sys
from collections import defaultdict

work = pathlib.Path(sys.argv[-1])
times = defaultdict(dict)  # for each command, its median in each round, in ms
for file in work.glob("rounds/*.json"):
    for result in json.loads(file.read_text())["results"]:
        times[result["command"]][file.name.split("-")[0]] = result["median"] * 1000
weights = {}  # for each command, its peak memory in MB and its number of synced files
for line in (work / "weights").read_text().splitlines():
    name, memory, synced = line.split("\t")
    weights[name] = int(memory) / 1024, int(synced)

COLUMNS = "{:35}{:>5}  {:9}{:>8}  {:>15}{:>13}{:>9}"
missed = False


def show(title, ratios, target, *names, shares=(1, 1)):
    """Prints a row with the ratio of two commands, whose times are first divided by `shares`."""
    global missed
    ratio = statistics.median(ratios)
    spread = "{:.2f}-{:.2f}".format(*statistics.quantiles(ratios, n=4)[::2]) if len(ratios) > 3 else ""
    misses = target is not None and ratio > target
    missed = missed or misses
    clock = [statistics.median(times[name].values()) / share for name, share in zip(names, shares)]
    pairs = [[f"{ms:.{2 if ms < 10 else 1}f}" for ms in clock]]
    pairs += [[f"{weights[name][0]:.1f}" for name in names], [str(weights[name][1]) for name in names]]
    at_most = "" if target is None else f"{'! ' * misses}{target:.2f}"
    print(COLUMNS.format(title, f"{ratio:.{2 if ratio >= 0.1 else 3}f}", spread, at_most,
                         *(" : ".join(pair) for pair in pairs)))


def compare(title, target, one, other, shares=(1, 1)):
    rounds = times[one].keys() & times[other].keys()
    show(title, [times[one][n] / shares[0] * shares[1] / times[other][n] for n in rounds], target, one, other,
         shares=shares)


print(COLUMNS.format("compared", "ratio", "quartiles", "at most", "ms", "peak MB", "synced"))
for operation, target in ("backup", 0.20), ("restore", 0.09):
    compare(f"ime-backupctl {operation} : script", target, f"plain {operation} ime-backupctl",
            f"plain {operation} script.sh")
compare("ime-backupctl restore : all at once", None, "plain restore ime-backupctl", "plain restore at-once")
for program, target in ("service", 1.2), ("ime-backupctl", 1.6):
    for operation in "backup", "restore":
        compare(f"{program} {operation} : floor", target, f"plain {operation} {program}", f"plain {operation} floor")
for operation in "backup", "restore":
    pair = f"plain {operation} service", f"plain {operation} floor"
    show(f"peak memory, {operation} : floor", [weights[pair[0]][0] / weights[pair[1]][0]], 1.15, *pair)
for operation in "backup", "restore":
    for count in 10, 1000, 10000:
        compare(f"{operation}, {count:,} languages : floor", None, f"languages-{count} {operation} service",
                f"languages-{count} {operation} floor")
for count in 100, 1000, 10000:
    compare(f"each of {count:,} records : alone", None, f"records-{count} restore service",
            "records-1 restore service", (count, 1))
compare("each of 100 unlike records : alone", None, "records-changing restore service", "records-1 restore service",
        (100, 1))
sys.exit(1 if missed and "--check" in sys.argv else 0)
