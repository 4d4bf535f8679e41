"""Reads OCP test results: a line "NAME VERDICT" for each diagnosis and error. Artifacts are numbered, steps do not
overlap, and each ends with the status that its cases make. What is not so ends it with status 1."""
import json
import sys

TYPES = {"PASS": "PASS", "FAIL": "FAIL", "SKIP": "UNKNOWN"}


def take(body, cases):
    """Adds the case that a body tells of, "gige.1-fail" as "gige.1 FAIL"."""
    if "error" in body:
        name, verdict = body["error"]["symptom"].split("-", 1)
    elif "diagnosis" in body:
        name, verdict = body["diagnosis"]["verdict"].split("-", 1)
        if TYPES.get(verdict.upper()) != body["diagnosis"]["type"]:
            sys.exit(f"another type than its verdict: {body}")
    else:
        return
    cases.append(verdict.upper())
    print(name, verdict.upper())


step, cases = None, []
with open(sys.argv[1], encoding="utf-8") as lines:
    for number, line in enumerate(lines):
        artifact = json.loads(line)
        if artifact["sequenceNumber"] != number:
            sys.exit(f"a gap in the numbers: {line}")
        take(artifact.get("testRunArtifact", {}), [])
        body = artifact.get("testStepArtifact")
        if body is None:
            continue
        if "testStepStart" in body:
            if step is not None:
                sys.exit(f"steps overlap: {line}")
            step, cases = body["testStepId"], []
        if body["testStepId"] != step:
            sys.exit(f"of no step or another one: {line}")
        take(body, cases)
        if "testStepEnd" in body:
            status = "ERROR" if "ERROR" in cases else "SKIP" if set(cases) <= {"SKIP"} else "COMPLETE"
            if body["testStepEnd"]["status"] != status:
                sys.exit(f"the status of step {step}, {status} by its cases")
            step = None
