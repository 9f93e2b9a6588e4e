#!/usr/bin/env bash
# Runs JUnit in a JVM with -Xcheck:jni; fails on a failed test and on any
# JNI warning or error the checker prints.
# Usage: run-junit.sh BUILD_DIR JUNIT_SELECTOR...
set -u
build=$1
shift
jars=$build/java
preload=
# A sanitizer build of the library needs its runtime loaded before the JVM.
if nm -D "$build/lib/libambrix.so" 2>/dev/null | grep -q __asan_init; then
  preload=$(g++ -print-file-name=libasan.so):$(g++ -print-file-name=libubsan.so)
  export ASAN_OPTIONS=${ASAN_OPTIONS:-handle_segv=0:detect_leaks=0:allow_user_segv_handler=1}
fi
out=$(mktemp)
trap 'rm -f "$out"' EXIT
LD_PRELOAD=$preload java -Xcheck:jni -Djava.library.path="$build/lib" \
  -jar /usr/share/java/junit-platform-console-standalone.jar \
  --class-path "$jars/ambrix.jar:$jars/ambrix-tests.jar" \
  --disable-banner --details=tree --fail-if-no-tests "$@" >"$out" 2>&1
status=$?
cat "$out"
if grep -E -q 'WARNING in native method|FATAL ERROR in native method|JNI warning|^WARNING: JNI' "$out"; then
  echo "run-junit: the JNI checker reported a problem (see above)"
  exit 1
fi
exit $status
