#!/usr/bin/env python3
"""Runs post-locate on the simulated board with each fault that POST missed in a campaign.

missed_by_post.py BIN CAMPAIGN [STEP [LEAST]]: each STEPth of them; fails if fewer than LEAST percent are found."""
import json
import subprocess
import sys
import tempfile

binaries, campaign = sys.argv[1], sys.argv[2]
step = int(sys.argv[3]) if len(sys.argv) > 3 else 1
least = int(sys.argv[4]) if len(sys.argv) > 4 else 0

with open(campaign, encoding="utf-8") as file:
    missed = [run for run in json.load(file)["runs"] if run["verdict"] == "passed"][::step]
assert missed, "the campaign has no fault that POST missed"
with tempfile.NamedTemporaryFile("w", encoding="utf-8") as faults:
    faults.writelines("--card={card} --revision={revision} --mode=short {fault}\n".format(**run) for run in missed)
    faults.flush()
    result = subprocess.run([f"{binaries}/post-campaign", "--locate", "--from", faults.name, "--json", "-"],
                            stdout=subprocess.PIPE, text=True, check=False)
runs = json.loads(result.stdout)["runs"]
not_found = [run for run in runs if run["located"] not in ("named", "among", "unnamed")]
answers = sorted({run["located"] for run in runs})
print(f"{len(runs) - len(not_found)} of {len(runs)} found:",
      ", ".join(f"{sum(run['located'] == answer for run in runs)} {answer}" for answer in answers))
for run in not_found:
    print(f"{run['located']}: {run['fault']}: {run['located_text']}")
sys.exit(100 * (len(runs) - len(not_found)) < least * len(runs))
