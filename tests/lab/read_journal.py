"""Reads entries of the journal: a line "NAME VERDICT" for each device, and "verdict VERDICT" for the run. An entry has each
field once, and a message of the catalogue beside the script that sends it. What is not so ends it with status 1."""
import os
import sys

here = os.path.dirname(os.path.abspath(__file__))
with open(os.path.join(here, "../../post/boot/post-boot.catalog"), encoding="utf-8") as lines:
    known = [line[3:].strip() for line in lines if line.startswith("-- ")]
PRIORITIES = {"PASS": "6", "FAIL": "3", "SKIP": "6", "ERROR": "4"}

*entries, rest = open(sys.argv[1], encoding="ascii").read().split("\n\n")
if rest:
    sys.exit("the last entry has no end")
for entry in entries:
    fields = [line.split("=", 1) for line in entry.split("\n")]
    values = dict(fields)
    verdict = values["POST_RESULT"]
    if len(values) != len(fields) or values["PRIORITY"] != PRIORITIES[verdict]:
        sys.exit(f"a field twice, or another priority: {entry}")
    is_device = "POST_TEST" in values
    if known.index(values["MESSAGE_ID"]) != (0 if is_device else 1):
        sys.exit(f"another kind of message: {entry}")
    print(f"{values['POST_TEST']}.{values['POST_DEVICE']}" if is_device else "verdict", verdict)
