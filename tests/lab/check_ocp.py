"""Holds each line of OCP test results against ocp_lines.schema.json. The first line, the start and the end of a run
are each there once, in their places. What is not so ends it with status 1, and a word for each file."""
import json
import os
import sys

import jsonschema

with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "ocp_lines.schema.json"), encoding="utf-8") as text:
    validator = jsonschema.Draft7Validator(json.load(text))


def wrong(name):
    """The first fault of a file, or None."""
    kinds = []
    with open(name, encoding="utf-8") as lines:
        for number, line in enumerate(lines, 1):
            artifact = json.loads(line)
            for error in validator.iter_errors(artifact):
                return f"line {number}, {'/'.join(map(str, error.absolute_path))}: {error.message}"
            kinds.append(next(iter(artifact.get("testRunArtifact", artifact))))
    if kinds[:2] != ["schemaVersion", "testRunStart"] or kinds[-1] != "testRunEnd":
        return "no start, or no end"
    if any(kinds.count(kind) != 1 for kind in ("schemaVersion", "testRunStart", "testRunEnd")):
        return "several starts or ends"
    return None


faults = {name: wrong(name) for name in sys.argv[1:]}
for name, fault in faults.items():
    print(f"{name}: {fault or 'as described'}")
sys.exit(1 if not faults or any(faults.values()) else 0)
