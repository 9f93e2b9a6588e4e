# The parts of the test clusters' scripts (cluster.sh, hosts.sh) that both
# share; sourced, with $here the scripts' folder, $dir the scratch folder and
# $conf its slurm.conf.

fail() { echo "slurm test cluster: $*" >&2; exit 1; }

# stop_pid FILE: ends the daemon whose id the file holds (TERM, then KILL after 5 s).
stop_pid() {
  local pid
  [[ -f $1 ]] || return 0
  pid=$(cat "$1")
  kill "$pid" 2>/dev/null || true
  for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  kill -9 "$pid" 2>/dev/null || true
  rm -f "$1"
}

# Root, Slurm's and munge's commands, and a munged that answers (started if none does).
require_daemons() {
  [[ $(id -u) == 0 ]] || fail "the daemons of the test cluster run as root; run the tests as root"
  for c in munged slurmctld slurmd sbatch squeue scancel scontrol sinfo; do
    command -v "$c" >/dev/null || fail "$c is missing: install Debian's slurm-wlm and munge"
  done
  munge -n </dev/null 2>/dev/null | unmunge >/dev/null 2>&1 && return
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
}

# configure CONTROLLER_ADDRESS: writes $conf from slurm.conf.in, its nodes
# and partition (this function's input) appended, and exports SLURM_CONF.
# Ports of its own, from the process id, so that two runs do not meet.
configure() {
  local base=$((20000 + ($$ % 4000) * 2))
  mkdir -p "$dir/state" "$dir/spool"
  { sed -e "s|@DIR@|$dir|g" -e "s|@HOST@|$(hostname -s)|g" -e "s|@HOST_ADDR@|$1|g" \
        -e "s|@CTLD_PORT@|$base|g" -e "s|@SLURMD_PORT@|$((base + 1))|g" "$here/slurm.conf.in"
    cat; } >"$conf"
  export SLURM_CONF=$conf
}

start_slurmctld() {
  slurmctld -f "$conf" -i >/dev/null 2>&1 || fail "slurmctld did not start: $(tail -5 "$dir/slurmctld.log" 2>/dev/null)"
}

# await_idle NODE...: waits until each node is idle, resuming any that is not after a while.
await_idle() {
  local states want
  want=$(printf '%s idle\n' "$@")
  for i in $(seq 300); do
    states=$(sinfo -h -N -o '%N %T' 2>/dev/null | sort -u || true)
    [[ $states == "$want" ]] && return
    if [[ $i == 100 || $i == 200 ]]; then
      for n in "$@"; do scontrol update nodename="$n" state=resume >/dev/null 2>&1 || true; done
    fi
    sleep 0.1
  done
  fail "the nodes are not idle ($(echo $states)): $(tail -5 "$dir/slurmctld.log" 2>/dev/null)"
}
