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
fail() { echo "slurm test cluster: $*" >&2; exit 1; }

stop() {
  for daemon in slurmd slurmctld; do
    if [[ -f $dir/$daemon.pid ]]; then
      pid=$(cat "$dir/$daemon.pid")
      kill "$pid" 2>/dev/null || true
      for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
      kill -9 "$pid" 2>/dev/null || true
      rm -f "$dir/$daemon.pid"
    fi
  done
}

if [[ $action == stop ]]; then
  stop
  exit 0
fi
[[ $action == start ]] || fail "usage: cluster.sh start|stop DIR"
[[ $(id -u) == 0 ]] || fail "the daemons of the test cluster run as root; run the tests as root"
for c in munged slurmctld slurmd sbatch squeue scancel scontrol; do
  command -v "$c" >/dev/null || fail "$c is missing: install Debian's slurm-wlm and munge"
done

# munge: one daemon for the machine, started if none answers.
if ! munge -n </dev/null 2>/dev/null | unmunge >/dev/null 2>&1; then
  if [[ ! -s /etc/munge/munge.key ]]; then
    mungekey --create --force >/dev/null 2>&1 || dd if=/dev/urandom of=/etc/munge/munge.key bs=1 count=1024 2>/dev/null
    chown munge:munge /etc/munge/munge.key
    chmod 600 /etc/munge/munge.key
  fi
  mkdir -p /run/munge /var/log/munge /var/lib/munge
  chown munge:munge /run/munge /var/log/munge /var/lib/munge
  su -s /bin/sh munge -c /usr/sbin/munged || runuser -u munge -- /usr/sbin/munged || fail "munged did not start"
  for _ in $(seq 50); do munge -n </dev/null 2>/dev/null | unmunge >/dev/null 2>&1 && break; sleep 0.1; done
  munge -n </dev/null | unmunge >/dev/null 2>&1 || fail "munge does not answer"
fi

stop
mkdir -p "$dir/state" "$dir/spool"
host=$(hostname -s)
# Ports of its own, from the process id, so that two runs do not meet.
base=$((20000 + ($$ % 4000) * 2))
sed -e "s|@DIR@|$dir|g" -e "s|@HOST@|$host|g" -e "s|@CPUS@|${AMBRIX_CLUSTER_CPUS:-16}|g" -e "s|@CTLD_PORT@|$base|g" -e "s|@SLURMD_PORT@|$((base + 1))|g" \
    "$here/slurm.conf.in" >"$conf"
export SLURM_CONF=$conf
slurmctld -f "$conf" -i >/dev/null 2>&1 || fail "slurmctld did not start: $(tail -5 "$dir/slurmctld.log" 2>/dev/null)"
slurmd -f "$conf" >/dev/null 2>&1 || fail "slurmd did not start: $(tail -5 "$dir/slurmd.log" 2>/dev/null)"
for _ in $(seq 100); do
  state=$(sinfo -h -o %T 2>/dev/null || true)
  [[ $state == idle* ]] && break
  sleep 0.1
done
[[ $state == idle* ]] || { scontrol update nodename="$host" state=resume >/dev/null 2>&1 || true; sleep 1
  state=$(sinfo -h -o %T 2>/dev/null || true); }
[[ $state == idle* ]] || fail "the node is not idle ($state): $(tail -5 "$dir/slurmctld.log" 2>/dev/null)"
echo "$conf"
