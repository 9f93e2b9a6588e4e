#!/usr/bin/env bash
# A Slurm command that misbehaves on purpose, for the tests of the pool's
# faults. run.sh puts links named sbatch, squeue, scontrol and scancel to
# this script first on PATH. Each runs the real command (in $AMBRIX_SLURM_REAL)
# unless the file $AMBRIX_SLURM_STANDIN/NAME holds a mode and its argument:
#   hang           never answers (a child of its own sleeps; its ids go to NAME.pids)
#   fail TEXT      prints TEXT on its error output and exits with status 1
#   delay SECONDS  waits, then runs the real command
#   stale SECONDS  runs the real command at once, but gives its answer only later
#   deaf TEXT      closes its input without reading it, then fails as fail does
# A caller with AMBRIX_STANDIN_OFF set always gets the real command.
name=$(basename "$0")
real=$AMBRIX_SLURM_REAL/$name
mode=
arg=
if [[ -z ${AMBRIX_STANDIN_OFF:-} && -f $AMBRIX_SLURM_STANDIN/$name ]]; then
  read -r mode arg <"$AMBRIX_SLURM_STANDIN/$name" || true
fi
case $mode in
  hang)
    sleep 3600 &
    echo "$$ $!" >"$AMBRIX_SLURM_STANDIN/$name.pids"
    wait
    ;;
  fail) echo "$arg" >&2; exit 1 ;;
  delay) sleep "$arg"; exec -a "$name" "$real" "$@" ;;
  stale)
    out=$("$real" "$@")
    status=$?
    sleep "$arg"
    printf '%s\n' "$out"
    exit "$status"
    ;;
  deaf) exec 0<&-; sleep 0.5; echo "$arg" >&2; exit 1 ;;
  *) exec -a "$name" "$real" "$@" ;;
esac
