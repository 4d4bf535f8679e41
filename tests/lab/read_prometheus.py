"""Reads metrics: a line "NAME VERDICT" for each device, and "verdict VERDICT" for the run. Each metric has its help and
type before its samples. What is not so ends it with status 1."""
import re
import sys

VERDICTS = {"1": "PASS", "0": "FAIL", "2": "SKIP", "-1": "ERROR"}
LABEL = r'(\w+)="((?:[^"\\]|\\["\\])*)"'
SAMPLE = re.compile(r"(\w+)\{(" + LABEL + r"(?:," + LABEL + r")*)\} (-?\d+)")

name, run = "", []
for line in open(sys.argv[1], encoding="ascii"):
    if line.startswith("# HELP "):
        name = line.split()[2]
        continue
    if line == f"# TYPE {name} gauge\n":
        continue
    found = SAMPLE.fullmatch(line.rstrip("\n"))
    if not found or found[1] != name:
        sys.exit(f"a line of no known form: {line}")
    labels = dict(re.findall(LABEL, found[2]))
    if name == "post_device_result":
        print(labels["test"] + "." + labels["device"], VERDICTS[line.split()[-1]])
    if name == "post_verdict":
        run.append(VERDICTS[line.split()[-1]])
print("verdict", *run)
