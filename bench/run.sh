#!/usr/bin/env bash
# Runs the benchmark of a build: bench.jar (each figure beside its floor),
# then kernel_calls (the kernel alone).
# Usage: bench/run.sh BUILD_DIR [--check-jni] [--smoke]
#   --check-jni  run the JVMs with -Xcheck:jni and fail on any JNI warning
#   --smoke      tiny sizes, so that every part runs quickly (figures mean nothing)
#   --hosts      only the pool on the three-host test cluster (as root): a task run again
#                after its node dies or its link goes down
set -u
build=$(cd "$1" && pwd)
shift
jvm_opts=()
args=()
for a in "$@"; do
  case $a in
    --check-jni) jvm_opts+=(-Xcheck:jni) ;;
    *) args+=("$a") ;;
  esac
done
calls=1000000
[[ " ${args[*]-} " == *" --smoke "* ]] && calls=1000

. "$(dirname "$0")/../tests/common.sh" "$build"
out=$(mktemp)
cluster=$(mktemp -d)
slurm_tests=$(cd "$(dirname "$0")/../tests/pool/slurm" && pwd)
# The pool's Slurm rows want a cluster: a single-node one on this machine, as the tests start it;
# --hosts, the three-host one of hosts.sh (nodes in network namespaces), one run of it at a time.
cluster_script=$slurm_tests/cluster.sh
if [[ " ${args[*]-} " == *" --hosts "* ]]; then
  cluster_script=$slurm_tests/hosts.sh
  exec 9>/run/lock/ambrix-slurm-hosts.lock
  flock -w 900 9 || { echo "the three-host cluster stayed busy for 15 minutes" >&2; exit 1; }
fi
trap '"$cluster_script" stop "$cluster" >/dev/null 2>&1 || true; rm -rf "$out" "$cluster"' EXIT
if [[ -z ${SLURM_CONF-} && $(id -u) == 0 ]] && command -v slurmctld >/dev/null; then
  if conf=$("$cluster_script" start "$cluster" 2>"$cluster.err"); then
    export SLURM_CONF=$conf AMBRIX_CLUSTER_SCRIPT=$cluster_script AMBRIX_CLUSTER_DIR=$cluster
  else
    echo "(no Slurm cluster for the benchmark: $(cat "$cluster.err"))"
  fi
  rm -f "$cluster.err"
fi
# A fixed, pre-touched heap: the figures that allocate (toArray, new
# wrappers) then measure the JVM's allocation, not the OS's page faults.
[[ " ${args[*]-} " == *" --smoke "* ]] || jvm_opts+=(-Xms3g -Xmx3g -XX:+AlwaysPreTouch)
LD_PRELOAD=$sanitizer_preload java "${jvm_opts[@]}" \
  -Djava.library.path="$build/lib:$build/bench" -Dambrix.library.path="$build/lib" \
  -Dambrix.bench.nodata="$build/lib-nodata" \
  -cp "$build/java/ambrix.jar:$build/java/bench.jar" com.quorbit.ambrix.bench.Bench "${args[@]}" 2>&1 | tee "$out"
status=${PIPESTATUS[0]}
# The notebook kernel, through Debian's jupyter_client (when it is installed).
if [[ " ${args[*]-} " != *" --values "* && " ${args[*]-} " != *" --pool "* && " ${args[*]-} " != *" --mark "* \
      && " ${args[*]-} " != *" --hosts "* ]] \
   && /usr/bin/python3 -c "import jupyter_client" 2>/dev/null; then
  KERNEL_PRELOAD=$sanitizer_preload /usr/bin/python3 "$(dirname "$0")/notebook.py" "$build" "${args[@]}" 2>&1 | tee -a "$out"
  [[ ${PIPESTATUS[0]} == 0 ]] || status=1
fi
echo
echo "-- the kernel alone (no JVM): one call of the interface"
"$build/bench/kernel_calls" "$calls" || status=1
jni_clean "$out" || exit 1
exit "$status"
