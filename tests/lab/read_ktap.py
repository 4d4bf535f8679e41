"""Reads KTAP: a line "NAME VERDICT" for each result. Every line is a result, a comment or one of the first two; results
are numbered as planned. What is not so ends it with status 1."""
import re
import sys

RESULT = re.compile(r"(ok|not ok) (\d+) (\S+)[^#]*(?:# (SKIP|ERROR) .+|# .+)?")

lines = open(sys.argv[1], encoding="utf-8", errors="replace", newline="\n").read().split("\n")
plan = re.fullmatch(r"1\.\.(\d+)", lines[1])
if lines[0] != "KTAP version 1" or not plan or lines.pop() != "":
    sys.exit("no plan, or no end")
number = 0
for line in lines[2:]:
    if line.startswith("#"):
        continue
    found = RESULT.fullmatch(line)
    if not found:
        sys.exit(f"a line of no known form: {line}")
    number += 1
    verdict = found[4] or ("PASS" if found[1] == "ok" else "FAIL")
    if int(found[2]) != number or (found[1] == "ok") != (verdict in ("PASS", "SKIP")):
        sys.exit(f"out of order, or ok and not: {line}")
    print(found[3], verdict)
if number != int(plan[1]):
    sys.exit("not as planned")
