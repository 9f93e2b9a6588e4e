#!/usr/bin/env bash
# A Slurm cluster of three hosts on this machine, for the tests. This machine
# is the head: slurmctld, at 10.213.77.1 on a private bridge of its own.
# Compute nodes c1 and c2 are network namespaces, each with a veth on that
# bridge (10.213.77.11 and .12), a hostname of its own (a UTS namespace) and
# a hosts file of its own, bound over /etc/hosts in a mount namespace; each
# runs its own slurmd, and the jobs that slurmd starts run in the node's
# namespaces. Traffic goes only to the bridge's addresses. A node that stops
# answering is declared down after 10 s. Its daemons, logs and state are in
# the scratch folder DIR (as with cluster.sh, whose parts it shares).
#   hosts.sh start DIR                 prints the path of slurm.conf (export it as SLURM_CONF)
#   hosts.sh stop DIR                  ends every process of the nodes and removes the nodes and the bridge
#   hosts.sh kill-node DIR NODE        SIGKILL to every process of the node, its slurmd included
#   hosts.sh start-node DIR NODE       starts the node afresh: its processes killed, its hosts file as
#                                      at start, its slurmd started again
#   hosts.sh link DIR NODE up|down     the node's link on the bridge
#   hosts.sh unreachable-head DIR NODE the node resolves the head's name to an address of the bridge's
#                                      subnet that no one holds: connecting fails with "No route to host"
#   hosts.sh reachable-head DIR NODE   the node resolves the head's name to the head's address again
# Start first removes what a run that crashed left. It exits with status 77
# when this machine cannot make namespaces (and then makes nothing).
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
action=${1-}
[[ $# -ge 2 ]] || { echo "usage: hosts.sh start|stop|kill-node|start-node|link|unreachable-head|reachable-head DIR [NODE [up|down]]" >&2; exit 2; }
dir=$(mkdir -p "$2" && cd "$2" && pwd)
conf=$dir/slurm.conf
. "$here/daemons.sh"
net=10.213.77
bridge=ambx-br0
nodes=(c1 c2)
head=$(hostname -s)
# The scratch folder of the cluster that runs, for a later start to stop.
marker=/run/ambrix-slurm-hosts

address() { case $1 in c1) echo "$net.11" ;; c2) echo "$net.12" ;; *) fail "no node $1" ;; esac; }

# hosts_file NODE HEAD_ADDRESS: the node's hosts file, written in place (it is bound over the node's /etc/hosts).
hosts_file() {
  printf '127.0.0.1 localhost\n%s %s\n%s c1\n%s c2\n' "$2" "$head" "$(address c1)" "$(address c2)" >"$dir/hosts-$1"
}

kill_node() {
  local pids
  for _ in $(seq 50); do
    pids=$(ip netns pids "ambx-$1" 2>/dev/null || true)
    [[ -z $pids ]] && return
    kill -9 $pids 2>/dev/null || true
    sleep 0.1
  done
  fail "processes of $1 outlived SIGKILL: $pids"
}

start_node() {
  rm -f "$dir/slurmd-$1.pid"
  nsenter --net="/run/netns/ambx-$1" unshare --uts --mount sh -c \
    'hostname "$1" && mount --bind "$2" /etc/hosts && exec slurmd -f "$3" -N "$1"' \
    node "$1" "$dir/hosts-$1" "$conf" >/dev/null 2>&1 \
    || fail "slurmd of $1 did not start: $(tail -5 "$dir/slurmd-$1.log" 2>/dev/null)"
}

# Everything of the cluster's, from this run or from one that crashed.
stop() {
  local old
  for n in "${nodes[@]}"; do
    kill_node "$n"
    ip netns del "ambx-$n" 2>/dev/null || true
    ip link del "ambx-$n" 2>/dev/null || true
  done
  ip link del "$bridge" 2>/dev/null || true
  old=$(cat "$marker" 2>/dev/null || true)
  [[ -n $old ]] && stop_pid "$old/slurmctld.pid"
  stop_pid "$dir/slurmctld.pid"
  rm -f "$marker"
}

# The first of the node-making commands that fails says this machine cannot.
can() {
  "$@" 2>"$dir/cannot" && return
  echo "slurm test cluster: this machine cannot make the test's hosts ($*: $(cat "$dir/cannot")); skipped" >&2
  stop
  exit 77
}

case $action in
  stop) stop ;;
  kill-node) kill_node "$3" ;;
  start-node) kill_node "$3"; hosts_file "$3" "$net.1"; start_node "$3" ;;
  link) address "$3" >/dev/null; ip link set "ambx-$3" "$4" ;;
  # .99 is no one's: the node's ARP requests go unanswered, and connect fails with EHOSTUNREACH.
  unreachable-head) address "$3" >/dev/null; hosts_file "$3" "$net.99" ;;
  reachable-head) address "$3" >/dev/null; hosts_file "$3" "$net.1" ;;
  start)
    require_daemons
    stop
    echo "$dir" >"$marker"
    can unshare --uts --mount true
    can ip link add "$bridge" type bridge
    ip addr add "$net.1/24" dev "$bridge"
    ip link set "$bridge" up
    for n in "${nodes[@]}"; do
      can ip netns add "ambx-$n"
      can ip link add "ambx-$n" type veth peer name eth0 netns "ambx-$n"
      ip link set "ambx-$n" master "$bridge" up
      ip -n "ambx-$n" addr add "$(address "$n")/24" dev eth0
      ip -n "ambx-$n" link set eth0 up
      ip -n "ambx-$n" link set lo up
      hosts_file "$n" "$net.1"
    done
    # Room for four workers on each node: 4 CPUs, and four times the pool's
    # default memory per worker (1024 MiB). Jobs go to the least loaded node.
    configure "$net.1" <<END
SlurmdTimeout=10
NodeName=c1 NodeAddr=$(address c1) CPUs=4 RealMemory=4096 State=UNKNOWN
NodeName=c2 NodeAddr=$(address c2) CPUs=4 RealMemory=4096 State=UNKNOWN
PartitionName=hosts Nodes=c1,c2 Default=YES MaxTime=INFINITE State=UP LLN=YES
END
    start_slurmctld
    for n in "${nodes[@]}"; do start_node "$n"; done
    await_idle "${nodes[@]}"
    echo "$conf"
    ;;
  *) fail "no action $action" ;;
esac
