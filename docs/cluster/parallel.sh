#!/bin/sh
# A campaign on several machines by GNU parallel: parallel.sh SHARDS [OPTIONS OF post-campaign]
# PARALLEL_OPTIONS may name the machines: --sshloginfile machines --workdir . --return parts/{}.json
set -eu
shards=$1
shift
mkdir -p parts
# Findings are reported after the parts are merged; only a part that is missing fails its job.
# shellcheck disable=SC2016,SC2086 # several words; the shell of the job fills in
seq "$shards" | parallel ${PARALLEL_OPTIONS:-} --joblog parts/log --resume-failed --quote sh -c '
  number=$1 shards=$2
  shift 2
  mkdir -p parts
  post-campaign --shard "$number/$shards" --jobs 1 --summary --json "parts/$number.json" "$@" || [ $? -eq 1 ]
' part {} "$shards" "$@"
