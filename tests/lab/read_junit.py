"""Reads JUnit XML with the parser of the Python library: a line "NAME VERDICT" for each case. Counters that do not equal
the cases end it with status 1."""
import sys
import xml.etree.ElementTree as xml

VERDICTS = {"failure": "FAIL", "error": "ERROR", "skipped": "SKIP"}
COUNTERS = {"failures": "FAIL", "errors": "ERROR", "skipped": "SKIP"}


def check(element, verdicts):
    for name, verdict in COUNTERS.items():
        if int(element.get(name)) != verdicts.count(verdict):
            sys.exit(f"{element.get('name')}: {name} is {element.get(name)} for {verdicts}")
    if int(element.get("tests")) != len(verdicts):
        sys.exit(f"{element.get('name')}: tests is {element.get('tests')} for {verdicts}")


root = xml.parse(sys.argv[1]).getroot()
everything = []
for suite in root.iter("testsuite"):
    own = []
    for case in suite.iter("testcase"):
        found = [VERDICTS[child.tag] for child in case if child.tag in VERDICTS] or ["PASS"]
        own += found
        print(case.get("name").split()[0], *found)
    check(suite, own)
    everything += own
check(root, everything)
if abs(float(root.get("time", 0)) - sum(float(suite.get("time", 0)) for suite in root.iter("testsuite"))) > 0.01:
    sys.exit("the seconds of the suites do not add up")
