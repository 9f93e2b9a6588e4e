#!/usr/bin/env bash
# Starts or stops a single-node Slurm cluster on this machine for the tests:
# munged (as user munge, with /etc/munge/munge.key, made if missing), then
# slurmctld and slurmd as root, configured from slurm.conf.in beside this
# script, in the scratch folder DIR.
#   cluster.sh start DIR    prints the path of slurm.conf (export it as SLURM_CONF)
#   cluster.sh stop DIR
# AMBRIX_CLUSTER_CPUS sets the node's CPUs (16 unless set).
# Fails with a clear message when the daemons cannot run here.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
action=$1
dir=$(mkdir -p "$2" && cd "$2" && pwd)
conf=$dir/slurm.conf
. "$here/daemons.sh"
host=$(hostname -s)

stop() {
  stop_pid "$dir/slurmd-$host.pid"
  stop_pid "$dir/slurmctld.pid"
}

if [[ $action == stop ]]; then
  stop
  exit 0
fi
[[ $action == start ]] || fail "usage: cluster.sh start|stop DIR"
require_daemons
stop
# More CPUs than the machine has (16 unless told otherwise), so that the
# tests' pools (and a pool's replacement jobs) never wait for each other in
# the queue.
configure 127.0.0.1 <<END
NodeName=$host NodeAddr=127.0.0.1 CPUs=${AMBRIX_CLUSTER_CPUS:-16} RealMemory=16000 State=UNKNOWN
PartitionName=debug Nodes=$host Default=YES MaxTime=INFINITE State=UP
END
start_slurmctld
slurmd -f "$conf" >/dev/null 2>&1 || fail "slurmd did not start: $(tail -5 "$dir/slurmd-$host.log" 2>/dev/null)"
await_idle "$host"
echo "$conf"
