#!/usr/bin/env bash
# The shell on input that is not a terminal reads plain lines, as scripts
# expect: a file of statements piped through a launcher gives the expected
# output. With a launcher as second argument, that one is run instead of
# the build's. Then Ctrl-C (SIGINT) stops a running statement, not the shell.
# Usage: pipe.sh BUILD_DIR [LAUNCHER]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
vexel=${2:-$here/../../shell/vexel}
. "$here/../common.sh" "$build"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export BUILD=$build

run() {
  LD_PRELOAD=$sanitizer_preload "$vexel" -q "$@"
}

# As a file argument, then piped, followed by a line for readline(), an
# error, and quit.
run "$here/statements.vx" >"$work/out" 2>&1
diff -u "$here/statements.out" "$work/out"
{ cat "$here/statements.vx"; printf '?? print\nreadline();\nan answer line\n1/0;\nquit\nprint("not reached");\n'; } \
  | run >"$work/out" 2>&1
{ cat "$here/statements.out"; printf 'Usage\nprint(e1, e2, ...)\n"an answer line"\nError, numeric exception: division by zero\n'; } \
  | diff -u - "$work/out"

# SIGINT once the loop runs; the next statement is answered.
mkfifo "$work/in"
# (A background command of a script starts with SIGINT ignored: restore it.)
LD_PRELOAD=$sanitizer_preload env --default-signal=INT "$vexel" -q <"$work/in" >"$work/out" 2>&1 &
shell=$!
exec 3>"$work/in"
echo 'for i to 10^9 do if i = 2 then print("looping") end if end do;' >&3
for _ in $(seq 100); do
  grep -q looping "$work/out" && break
  sleep 0.1
done
kill -INT "$shell"
echo '6 * 7;' >&3
exec 3>&-
wait "$shell"
printf '"looping"\nError, computation interrupted\n42\n' | diff -u - "$work/out"
echo "ok: $vexel"
