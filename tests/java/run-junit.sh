#!/usr/bin/env bash
# Runs JUnit in a JVM with -Xcheck:jni; fails on a failed test and on any
# JNI warning or error the checker prints.
# Usage: run-junit.sh BUILD_DIR JUNIT_SELECTOR...
# AMBRIX_TEST_JVM_OPTS holds extra options for the JVM (word-split).
set -u
build=$1
shift
jars=$build/java
. "$(dirname "$0")/../common.sh" "$build"
out=$(mktemp)
trap 'rm -f "$out"' EXIT
LD_PRELOAD=$sanitizer_preload java -Xcheck:jni ${AMBRIX_TEST_JVM_OPTS:-} \
  -jar /usr/share/java/junit-platform-console-standalone.jar \
  --class-path "$jars/ambrix.jar:$jars/ambrix-tests.jar:$jars/ambrix-pool-tests.jar" \
  --disable-banner --details=tree --fail-if-no-tests "$@" >"$out" 2>&1
status=$?
cat "$out"
jni_clean "$out" || exit 1
exit $status
