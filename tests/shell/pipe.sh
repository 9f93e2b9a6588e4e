#!/usr/bin/env bash
# The shell on input that is not a terminal reads plain lines, as scripts
# expect: a file of statements piped through a launcher gives the expected
# output. With a launcher as second argument, that one is run instead of
# the build's. Then Ctrl-C (SIGINT) stops a running statement, not the shell.
# Usage: pipe.sh BUILD_DIR [LAUNCHER]
set -euo pipefail
trap 'echo "pipe.sh: line $LINENO failed" >&2' ERR
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
status=0
{ cat "$here/statements.vx"; printf '?? print\nreadline();\nan answer line\n1/0;\nquit\nprint("not reached");\n'; } \
  | run >"$work/out" 2>&1 || status=$?
[[ $status == 1 ]] || { echo "FAILED: piped statements with an error exited $status, not 1"; exit 1; }
{ cat "$here/statements.out"; printf 'Usage\nprint(e1, e2, ...)\n"an answer line"\nError, numeric exception: division by zero\n'; } \
  | diff -u - "$work/out"

# A terminator at the end of a line inside an open bracket ends the
# statement: the kernel's syntax error, with its caret, and the next line is
# a statement of its own. Errors look the same with the kernel in process or
# isolated: a syntax error shows the line it is on and a caret under its
# place, an error follows what its statement printed before it, and in a
# file the message starts with the file's name and the line's number.
printf 'x := (1 + ;\n1 + 1;\nf(2,\n  3);\ny := [1,\n  2 +* 3];\ng := proc() print("before"); error "after %%1", 2 end proc: g();\n' \
  >"$work/errors.vx"
errors='Error, syntax error: unexpected `;`\nx := (1 + ;\n          ^\n2\nf(2, 3)\nError, syntax error: unexpected `*`\n  2 +* 3];\n     ^\n"before"\nError, after 2\n'
for mode in "" --isolated; do
  run $mode <"$work/errors.vx" >"$work/out" 2>&1 || true
  printf "$errors" | diff -u - "$work/out" || { echo "FAILED: errors piped into vexel $mode"; exit 1; }
  run $mode "$work/errors.vx" >"$work/out" 2>&1 || true
  printf "$errors" | sed -e '1s/^/errors.vx:1: /' -e '6s/^/errors.vx:6: /' -e '10s/^/errors.vx:7: /' \
    | diff -u - "$work/out" || { echo "FAILED: errors in a file run by vexel $mode"; exit 1; }
done

# One rule for the banner, with the kernel in process or isolated: only at
# a terminal (terminal.py), never for a pipe or a file, even without -q.
for mode in "" --isolated; do
  printf '1 + 1;\n' | LD_PRELOAD=$sanitizer_preload "$vexel" $mode >"$work/out" 2>&1
  [[ $(cat "$work/out") == 2 ]] || { echo "FAILED: a pipe into vexel $mode printed more than its output:"; cat "$work/out"; exit 1; }
done

# One rule for the exit status, whatever is read that is not a terminal: 1
# when a statement failed, else 0. A file run shows no banner; --version
# names both versions.
printf '1/0;\n' >"$work/fails.vx"
printf '1;\n' >"$work/passes.vx"
while read -r expected how; do
  status=0
  case $how in
    pipe-fails) printf '1/0;\n2;\n' | run >/dev/null 2>&1 || status=$? ;;
    pipe-passes) printf '1;\n' | run >/dev/null 2>&1 || status=$? ;;
    isolated-fails) printf '1/0;\n' | run --isolated >/dev/null 2>&1 || status=$? ;;
    file-fails) LD_PRELOAD=$sanitizer_preload "$vexel" "$work/fails.vx" >/dev/null 2>&1 || status=$? ;;
    file-passes) LD_PRELOAD=$sanitizer_preload "$vexel" "$work/passes.vx" >"$work/out" 2>&1 || status=$? ;;
  esac
  [[ $status == "$expected" ]] || { echo "FAILED: $how exited $status, not $expected"; exit 1; }
done <<'CASES'
1 pipe-fails
0 pipe-passes
1 isolated-fails
1 file-fails
0 file-passes
CASES
[[ $(cat "$work/out") == 1 ]] || { echo "FAILED: a file run printed more than its output:"; cat "$work/out"; exit 1; }
LD_PRELOAD=$sanitizer_preload "$vexel" --version >"$work/out" 2>&1
grep -q '^ambrix [0-9]' "$work/out" && grep -q '^kernel: ' "$work/out" \
  || { echo "FAILED: --version printed:"; cat "$work/out"; exit 1; }

# Plots go to vexel-plot-N.svg in the working folder, N the first free
# number, and the shell prints each file's name; so does --isolated.
mkdir "$work/plots"
touch "$work/plots/vexel-plot-1.svg"
(cd "$work/plots" && printf 'plot(x^2, x = -1..1);\nplot([x, x^3], x = 0..2);\n' | run >"$work/out" 2>&1 \
  && printf 'plot(x, x = 0..1);\n' | run --isolated >>"$work/out" 2>&1)
printf 'vexel-plot-2.svg\nvexel-plot-3.svg\nvexel-plot-4.svg\n' | diff -u - "$work/out"
for n in 2 3 4; do xmllint --noout "$work/plots/vexel-plot-$n.svg"; done
[[ ! -s $work/plots/vexel-plot-1.svg ]] || { echo "FAILED: a plot overwrote a file"; exit 1; }

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
# The interrupted statement failed: the piped run's status says so.
status=0
wait "$shell" || status=$?
[[ $status == 1 ]] || { echo "FAILED: the interrupted run exited $status, not 1"; exit 1; }
# (On a busy machine the interrupt may take long enough for the hint that a
# kernel which has not stopped gets; it is no part of what is checked here.)
printf '"looping"\nError, computation interrupted\n42\n' | diff -u - <(grep -v 'has not stopped yet' "$work/out")
# Every closing word the kernel accepts ends its block: each statement's
# output appears while the pipe is still open, before the next is sent.
mkfifo "$work/in2"
LD_PRELOAD=$sanitizer_preload "$vexel" -q <"$work/in2" >"$work/out2" 2>&1 &
shell=$!
exec 4>"$work/in2"
n=0
while IFS='|' read -r statement expected; do
  printf '%s\n' "$statement" >&4
  n=$((n + 1))
  for _ in $(seq 200); do
    [[ $(wc -l <"$work/out2") -ge $n ]] && break
    sleep 0.05
  done
  got=$(sed -n "${n}p" "$work/out2")
  [[ $got == "$expected" ]] || { echo "FAILED: '$statement' gave '$got', expected '$expected'"; cat "$work/out2"; exit 1; }
done <<'STATEMENTS'
if 1<2 then print(11); fi;|11
for i to 2 do x := i; od; x;|2
if 1<2 then print(12) end if;|12
for i to 3 do y := i end do; y;|3
f := proc(a) if a > 0 then a else -a fi end proc: f(-4);|4
g := proc(a) for i to a do od; a end: g(5);|5
while false do od; 6;|6
STATEMENTS
exec 4>&-
wait "$shell"
# --isolated: the kernel runs in a worker process; a crash ends only that
# process, and the next statement is answered by a new kernel.
printf 'x := 5:\nprint(x);\ncrashkernel();\nx;\n1 + 2;\nerror "bad %%1", 3;\n??print\n' \
  | LD_PRELOAD=$sanitizer_preload "$vexel" -q --isolated --test-hooks >"$work/out" 2>&1 \
  && { echo "FAILED: a statement whose kernel crashed did not fail the run"; exit 1; }
printf '5\nkernel process ended: signal 11 (SIGSEGV); a new kernel was started (definitions are lost)\nx\n3\nError, bad 3\nUsage\nprint(e1, e2, ...)\n' \
  | diff -u - <(grep -v '^#' "$work/out")

# --isolated and Ctrl-C: one interrupts a loop; two within the grace time
# kill a kernel that does not listen, and a new one answers. A terminal
# signals its whole foreground process group, so the shell gets a group of
# its own here and the signals go to all of it: the worker must not die of
# them, only of the shell's decision.
mkfifo "$work/in3"
LD_PRELOAD=$sanitizer_preload setsid env --default-signal=INT "$vexel" -q --isolated --test-hooks <"$work/in3" \
  >"$work/out3" 2>&1 &
shell=$!
ctrl_c() { kill -INT -- "-$shell"; }
exec 5>"$work/in3"
wait_for() {
  for _ in $(seq 200); do
    grep -q "$1" "$work/out3" && return 0
    sleep 0.05
  done
  echo "FAILED: no '$1' in:"; cat "$work/out3"; exit 1
}
echo 'f := x -> x^2: print("started"); for i to 10^9 do end do;' >&5
wait_for started
sleep 0.2
ctrl_c
wait_for "computation interrupted"
# The interrupted kernel is the same one: its definitions are still there.
echo 'f(3);' >&5
wait_for "^9$"
echo 'print("spinning"); spin();' >&5
wait_for spinning
sleep 0.2
ctrl_c
# A kernel that has not stopped a moment after the first Ctrl-C: the hint.
wait_for "Ctrl-C again kills it"
ctrl_c
wait_for "killed on request"
echo '6 * 7;' >&5
exec 5>&-
wait "$shell" || true
printf '"started"\nError, computation interrupted\n9\n"spinning"\nvexel: the kernel has not stopped yet; Ctrl-C again kills it (definitions are lost)\nkernel process ended: killed on request; a new kernel was started (definitions are lost)\n42\n' \
  | diff -u - <(grep -v '^#' "$work/out3" | sed '/^"started"$/,/^9$/{/has not stopped yet/d}')
SHELL_PRELOAD=$sanitizer_preload /usr/bin/python3 "$here/terminal.py" "$vexel"
echo "ok: $vexel"
