#!/bin/sh
# A campaign as an array of Slurm jobs: sbatch --array=1-7 slurm.sh [OPTIONS OF post-campaign]
# Each job writes its part to the directory parts/, which all nodes must see. The jobs do not depend on each other; one
# that failed is started again by itself: sbatch --array=3 ... with the same number of jobs in SHARDS.
#SBATCH --job-name=post-campaign
#SBATCH --cpus-per-task=1
#SBATCH --output=part-%a.log
set -eu
mkdir -p parts
shard=auto
if [ -n "${SHARDS:-}" ]; then shard=$SLURM_ARRAY_TASK_ID/$SHARDS; fi
status=0
"${POST_CAMPAIGN:-post-campaign}" --shard "$shard" --jobs "${SLURM_CPUS_PER_TASK:-1}" --summary \
  --json "parts/$SLURM_ARRAY_TASK_ID.json" "$@" || status=$?
# Findings are reported after the parts are merged; only a part that is missing fails its job.
[ "$status" -le 1 ]
