#!/usr/bin/env bash
# The pool on a real Slurm cluster: starts a single-node cluster on this
# machine (munge, slurmctld, slurmd; see cluster.sh), runs the Slurm
# scenarios against it, and stops it again, whatever the outcome; then the
# same on a node of 2 CPUs. A machine that cannot run the daemons fails here
# with the reason, never silently. Slurm's commands are reached through
# standin.sh, which runs the real ones unless a test makes them misbehave.
# Usage: run.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'for c in "$work"/cluster*; do "$here/cluster.sh" stop "$c" || true; done; rm -rf "$work"' EXIT
AMBRIX_SLURM_REAL=$(dirname "$(command -v sbatch)")
AMBRIX_SLURM_STANDIN=$work/standin
export AMBRIX_SLURM_REAL AMBRIX_SLURM_STANDIN
mkdir -p "$work/bin" "$AMBRIX_SLURM_STANDIN"
for c in sbatch squeue scontrol scancel; do ln -s "$here/standin.sh" "$work/bin/$c"; done
export PATH=$work/bin:$PATH
status=0

# scenarios CPUS CLASS...: the classes on a cluster whose node has that many CPUs.
scenarios() {
  local cpus=$1 cluster=$work/cluster$1 args=() s=0 c left
  shift
  SLURM_CONF=$(AMBRIX_CLUSTER_CPUS=$cpus "$here/cluster.sh" start "$cluster")
  export SLURM_CONF
  for c in "$@"; do args+=(--select-class "com.quorbit.ambrix.pool.$c"); done
  "$here/../../java/run-junit.sh" "$build" "${args[@]}" || s=$?
  # No job of the tests may be left.
  left=$(AMBRIX_STANDIN_OFF=1 squeue -h -o %i -n ambrix-worker)
  if [[ -n $left ]]; then
    echo "FAILED: jobs left behind: $left"
    s=1
  fi
  [[ $s == 0 ]] || { tail -20 "$cluster/slurmctld.log"; status=1; }
  "$here/cluster.sh" stop "$cluster"
}

scenarios 16 SlurmScenario SlurmFaultScenario
scenarios 2 SlurmMemoryScenario
exit "$status"
