#!/usr/bin/env bash
# The pool on a real Slurm cluster: starts a single-node cluster on this
# machine (munge, slurmctld, slurmd; see cluster.sh), runs the Slurm
# scenario against it, and stops it again, whatever the outcome. A machine
# that cannot run the daemons fails here with the reason, never silently.
# Usage: run.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap '"$here/cluster.sh" stop "$work/cluster" || true; rm -rf "$work"' EXIT
SLURM_CONF=$("$here/cluster.sh" start "$work/cluster")
export SLURM_CONF
status=0
"$here/../../java/run-junit.sh" "$build" --select-class com.quorbit.ambrix.pool.SlurmScenario || status=$?
# No job of the tests may be left.
left=$(squeue -h -o %i -n ambrix-worker)
if [[ -n $left ]]; then
  echo "FAILED: jobs left behind: $left"
  status=1
fi
[[ $status == 0 ]] || tail -20 "$work/cluster/slurmctld.log"
exit "$status"
