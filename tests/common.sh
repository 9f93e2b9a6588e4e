# Sourced by the test scripts that run a JVM on a build: . common.sh BUILD_DIR
#
# A sanitizer build of the library needs its runtime loaded before the JVM:
# $sanitizer_preload is what LD_PRELOAD must hold for each java run (empty
# for a normal build). jni_clean FILE fails when the output of a JVM run
# with -Xcheck:jni holds a JNI warning or error.
sanitizer_preload=
# grep reads all of nm's output (no -q): under pipefail, a grep that stops
# early makes nm die of SIGPIPE and the test fail.
if nm -D "$1/lib/libambrix.so" 2>/dev/null | grep __asan_init >/dev/null; then
  sanitizer_preload=$(g++ -print-file-name=libasan.so):$(g++ -print-file-name=libubsan.so)
  export ASAN_OPTIONS=${ASAN_OPTIONS:-handle_segv=0:detect_leaks=0:allow_user_segv_handler=1}
fi

jni_clean() {
  if grep -E -q 'WARNING in native method|FATAL ERROR in native method|JNI warning|^WARNING: JNI' "$1"; then
    echo "the JNI checker reported a problem (see above)"
    return 1
  fi
}
