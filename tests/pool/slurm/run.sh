#!/usr/bin/env bash
# The pool on a real Slurm cluster. Without a second argument: starts a
# single-node cluster on this machine (munge, slurmctld, slurmd; see
# cluster.sh), runs the Slurm scenarios against it, and stops it again,
# whatever the outcome; then the same on a node of 2 CPUs. With "hosts": the
# same with the three-host cluster of hosts.sh and its scenarios, one run of
# it on the machine at a time. A machine that cannot run the daemons fails
# here with the reason, never silently; one that cannot make the hosts'
# namespaces skips them (status 77). Slurm's commands are reached through
# standin.sh, which runs the real ones unless a test makes them misbehave.
# Usage: run.sh BUILD_DIR [hosts]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
# The clusters started (their scripts and folders), each stopped whatever happens.
scripts=()
clusters=()
stop_all() {
  for i in "${!clusters[@]}"; do "${scripts[$i]}" stop "${clusters[$i]}" || true; done
}
trap 'stop_all; rm -rf "$work"' EXIT
AMBRIX_SLURM_REAL=$(dirname "$(command -v sbatch)")
AMBRIX_SLURM_STANDIN=$work/standin
export AMBRIX_SLURM_REAL AMBRIX_SLURM_STANDIN
mkdir -p "$work/bin" "$AMBRIX_SLURM_STANDIN"
for c in sbatch squeue scontrol scancel; do ln -s "$here/standin.sh" "$work/bin/$c"; done
export PATH=$work/bin:$PATH
status=0

# scenarios SCRIPT CPUS CLASS...: the classes on the cluster that SCRIPT
# starts (cluster.sh with that many CPUs). The scenarios find the script and
# the cluster's folder in AMBRIX_CLUSTER_SCRIPT and AMBRIX_CLUSTER_DIR.
scenarios() {
  local script=$here/$1 cluster=$work/cluster${#clusters[@]} cpus=$2 args=() s=0 c left
  shift 2
  scripts+=("$script")
  clusters+=("$cluster")
  SLURM_CONF=$(AMBRIX_CLUSTER_CPUS=$cpus "$script" start "$cluster") || exit $?
  AMBRIX_CLUSTER_SCRIPT=$script
  AMBRIX_CLUSTER_DIR=$cluster
  export SLURM_CONF AMBRIX_CLUSTER_SCRIPT AMBRIX_CLUSTER_DIR
  for c in "$@"; do args+=(--select-class "com.quorbit.ambrix.pool.$c"); done
  "$here/../../java/run-junit.sh" "$build" "${args[@]}" || s=$?
  # No job of the tests may be left.
  left=$(AMBRIX_STANDIN_OFF=1 squeue -h -o %i -n ambrix-worker)
  if [[ -n $left ]]; then
    echo "FAILED: jobs left behind: $left"
    s=1
  fi
  [[ $s == 0 ]] || { tail -20 "$cluster/slurmctld.log"; status=1; }
  "$script" stop "$cluster"
}

if [[ ${2-} == hosts ]]; then
  # The hosts' bridge and namespaces have fixed names: a second run waits for the first.
  exec 9>/run/lock/ambrix-slurm-hosts.lock
  flock -w 900 9 || { echo "another run of the three-host cluster held it for 15 minutes" >&2; exit 1; }
  scenarios hosts.sh '' SlurmHostsScenario
else
  scenarios cluster.sh 16 SlurmScenario SlurmFaultScenario
  scenarios cluster.sh 2 SlurmMemoryScenario
fi
exit "$status"
