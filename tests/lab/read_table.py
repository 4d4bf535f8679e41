"""Reads the table of post-results: a line "NAME VERDICT" for each case."""
import re
import sys

with open(sys.argv[1], encoding="utf-8", errors="replace") as lines:
    for line in lines:
        found = re.fullmatch(r"(\w+\.\d|run) .*? (PASS|FAIL|SKIP|ERROR)( .*)?\n", line)
        if found:
            print(found[1], found[2])
