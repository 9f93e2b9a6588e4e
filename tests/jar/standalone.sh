#!/usr/bin/env bash
# ambrix.jar alone is enough: from an empty folder holding only the jar, the
# README's Java example compiles and runs with no library path and no
# LD_LIBRARY_PATH, the native libraries coming from the jar. Then each other
# way of naming the libraries, and failures that say what was tried.
# Usage: standalone.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
src=$(cd "$2" && pwd)
. "$src/tests/common.sh" "$build"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/app" "$work/tmp"
cp "$build/java/ambrix.jar" "$work/app/"
# readme_example N CLASS: the N-th Java block of the README's "Use it from
# Java" section, as CLASS.java in the example's folder.
readme_example() {
  awk -v want="$1" -v title="${3:-Use it from Java}" '/^## / { section = index($0, "## " title) == 1 }
       section && /^```java$/ { n++; code = n == want; next }
       code && /^```$/ { code = 0 } code' "$src/README.md" >"$work/app/$2.java"
  grep -q "class $2" "$work/app/$2.java" || { echo "no Java example $2 in the README"; exit 1; }
}
readme_example 1 Example
readme_example 2 CallExample
readme_example 1 PoolExample "Isolated kernels and pools"
# The README's Slurm program, which needs a cluster to run, compiles, and is
# the example's SlurmPool word for word (the package line aside).
readme_example 1 SlurmPool "Beyond one machine"
diff -u <(sed '1,/^import /{/^import /!d}' "$src/examples/src/com/quorbit/ambrix/examples/SlurmPool.java") \
  "$work/app/SlurmPool.java"
(cd "$work/app" && javac -cp ambrix.jar Example.java CallExample.java PoolExample.java SlurmPool.java)

failures=0
# has_lines TEXT FILE: every line of TEXT is somewhere in FILE.
has_lines() {
  local line
  while IFS= read -r line; do
    grep -qF -- "$line" "$2" || return 1
  done <<<"$1"
}
# check NAME EXPECTED_STATUS EXPECTED_TEXT JAVA_ARGS...: runs java in the
# example's folder with the JNI checker and a private temporary folder.
check() {
  local name=$1 expected=$2 text=$3 out=$work/out status=0
  shift 3
  (cd "$work/app" && env -u LD_LIBRARY_PATH LD_PRELOAD="$sanitizer_preload" \
    java -Xcheck:jni -Djava.io.tmpdir="$work/tmp" "$@") >"$out" 2>&1 || status=$?
  if [[ $status -ne $expected ]] || ! has_lines "$text" "$out" || ! jni_clean "$out" >/dev/null \
     || [[ -n $(ls -A "$work/tmp") ]]; then
    echo "FAILED: $name (status $status, expected $expected; output below; temporary files: $(ls -A "$work/tmp"))"
    cat "$out"
    failures=$((failures + 1))
  else
    echo "ok: $name"
  fi
  rm -rf "${work:?}/tmp/"*
}

value=1267650600228229401496703205376
check "the jar's own libraries" 0 "$value" -cp ambrix.jar:. Example
check "the README's conversions and call" 0 "42 13.5 3.0" -cp ambrix.jar:. CallExample
check "the README's pool" 0 '["hello"] 1267650600228229401496703205376 13.5
9 25
time limit of 0.2 s passed' -cp ambrix.jar:. PoolExample
check "as an automatic module" 0 "$value" -p ambrix.jar --add-modules com.quorbit.ambrix -cp . Example
check "ambrix.library.path" 0 "$value" -Dambrix.library.path="$build/lib" -cp ambrix.jar:. Example
# Another kernel binds by its soname, whatever its file is called.
mkdir "$work/kernel"
cp "$build/lib/libvexelc.so" "$work/kernel/custom-kernel.so"
check "ambrix.kernel" 0 "$value" -Dambrix.kernel="$work/kernel/custom-kernel.so" -cp ambrix.jar:. Example
AMBRIX_KERNEL=$work/kernel/custom-kernel.so check "AMBRIX_KERNEL" 0 "$value" -cp ambrix.jar:. Example
AMBRIX_KERNEL=$work/none/libvexelc.so check "a missing kernel" 1 \
  "cannot load the ambrix native libraries; tried: $work/none/libvexelc.so (no such file)" -cp ambrix.jar:. Example
check "a folder without the libraries" 1 "tried: $work/none/libambrix.so (no such file)" \
  -Dambrix.library.path="$work/none" -cp ambrix.jar:. Example
# A jar without native libraries falls back to java.library.path.
classes=$build/java/classes/ambrix-classes.jar
check "java.library.path" 0 "$value" -Djava.library.path="$build/lib" -cp "$classes:." Example
check "no library anywhere" 1 "libambrix.so on java.library.path=$work/none" \
  -Djava.library.path="$work/none" -cp "$classes:." Example

# No temporary folder to extract into (a file stands in for one, which even
# root cannot write into): the loader goes on to java.library.path, or says
# what it tried. ambrix.tmpdir names the folder instead.
check "no temporary folder, a library path" 0 "$value" -Djava.io.tmpdir=/proc/version \
  -Djava.library.path="$build/lib" -cp ambrix.jar:. Example
check "no temporary folder, no library path" 1 \
  "the jar's linux-x86_64/libambrix.so extracted to /proc/version" \
  -Djava.io.tmpdir=/proc/version -Djava.library.path="$work/none" -cp ambrix.jar:. Example
mkdir "$work/own-tmp"
check "ambrix.tmpdir" 0 "$value" -Djava.io.tmpdir=/proc/version -Dambrix.tmpdir="$work/own-tmp" \
  -Djava.library.path="$work/none" -cp ambrix.jar:. Example
[[ -z $(ls -A "$work/own-tmp") ]] || { echo "FAILED: ambrix.tmpdir left files"; failures=$((failures + 1)); }
# A folder mounted noexec, where this machine lets a test mount one.
if mount -t tmpfs -o noexec tmpfs "$work/own-tmp" 2>/dev/null; then
  check "a noexec folder" 1 "mounted noexec?" -Dambrix.tmpdir="$work/own-tmp" \
    -Djava.library.path="$work/none" -cp ambrix.jar:. Example
  umount "$work/own-tmp"
fi

jar --describe-module --file "$build/java/ambrix.jar" | grep '^com.quorbit.ambrix .*automatic' >/dev/null \
  || { echo "FAILED: ambrix.jar names no automatic module"; failures=$((failures + 1)); }
exit $((failures > 0))
