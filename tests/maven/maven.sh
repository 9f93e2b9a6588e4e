#!/usr/bin/env bash
# The Maven artifact com.quorbit:ambrix: its set is whole (checksums that
# match, a source for every public class, Javadoc that opens), and a project
# that depends on it builds quietly with Debian's maven and no network at all,
# from the install tree's share/maven-repo and from a repository that
# ./vexel --install-maven filled, then runs as the README says.
# Usage: maven.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
trap 'echo "maven.sh: line $LINENO failed" >&2' ERR
build=$(cd "$1" && pwd)
src=$(cd "$2" && pwd)
. "$src/tests/common.sh" "$build"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
version=$(cat "$src/VERSION")
fail() { echo "FAILED: $*"; exit 1; }

set_dir=$build/maven/com/quorbit/ambrix/$version
base=$set_dir/ambrix-$version
for f in "$base.pom" "$base.jar" "$base-sources.jar" "$base-javadoc.jar" \
         "$build/maven/com/quorbit/ambrix/maven-metadata-local.xml"; do
  [[ -f $f ]] || fail "$f is missing"
  [[ $(cat "$f.sha1") == $(sha1sum "$f" | cut -d' ' -f1) ]] || fail "$f.sha1 does not match"
  [[ $(cat "$f.md5") == $(md5sum "$f" | cut -d' ' -f1) ]] || fail "$f.md5 does not match"
done
cmp -s "$base.jar" "$build/java/ambrix.jar" || fail "the artifact's jar is not ambrix.jar"
grep -q "<version>$version</version>" "$base.pom" || fail "the pom does not carry version $version"
! grep -q "<dependencies>" "$base.pom" || fail "the pom has dependencies"
# grep reads all its input (no -q): under pipefail, a grep that stops early would kill unzip with SIGPIPE.
unzip -p "$base.jar" META-INF/MANIFEST.MF | grep "^Implementation-Version: $version" >/dev/null \
  || fail "the jar's manifest does not carry version $version"

# A source for every public top-level class of the jar.
mapfile -t classes < <(unzip -Z1 "$base.jar" | grep '\.class$' | grep -v '\$' | sed 's/\.class$//; s|/|.|g')
mapfile -t public < <(javap -cp "$base.jar" "${classes[@]}" \
  | sed -nE 's/^public (final |abstract |sealed |non-sealed )*(class|interface|enum|record|@interface) ([A-Za-z0-9_.]+).*/\3/p')
(( ${#public[@]} > 20 )) || fail "only ${#public[@]} public classes found"
sources=$(unzip -Z1 "$base-sources.jar")
for c in "${public[@]}"; do
  grep -qx "${c//.//}.java" <<<"$sources" || fail "no source for $c in the sources jar"
done
unzip -Z1 "$base-javadoc.jar" | grep -x index.html >/dev/null || fail "the javadoc jar has no index.html at its root"
unzip -p "$base-javadoc.jar" com/quorbit/ambrix/pool/EnginePool.html | grep "EnginePool" >/dev/null \
  || fail "the javadoc jar has no page for EnginePool"

# The example project as the README builds and runs it, with no network and
# an empty local repository, by each route: after the .deb (here the install
# tree's share/maven-repo, named by AMBRIX_MAVEN_REPO) and after ./vexel
# --install-maven (the artifact in the local repository, and no
# AMBRIX_MAVEN_REPO). The build is quiet (no warning, no stack trace: Debian's
# repository has no checksums), and java -jar target/maven-app.jar runs it.
unshare -n true 2>/dev/null || fail "cannot make a network namespace (unshare -n) to build without a network"
cmake --install "$build" --prefix "$work/installed" >/dev/null
grep -q "<ambrix.version>$version</ambrix.version>" "$src/examples/maven-app/pom.xml" \
  || fail "examples/maven-app/pom.xml names another version of ambrix than $version"
for route in deb install-maven; do
  rm -rf "$work/app" "$work/local" && cp -r "$src/examples/maven-app" "$work/app"
  repo=()
  if [[ $route == deb ]]; then
    repo=("AMBRIX_MAVEN_REPO=$work/installed/share/maven-repo")
  else
    MAVEN_REPO_LOCAL=$work/local "$src/scripts/install-maven.sh" "$build" >/dev/null
  fi
  (cd "$work/app" && env -u AMBRIX_MAVEN_REPO "${repo[@]}" unshare -n mvn -B -s settings.xml \
     -Dmaven.repo.local="$work/local" package) >"$work/mvn.log" 2>&1 || { cat "$work/mvn.log"; fail "mvn package ($route)"; }
  if grep -E 'WARN|ERROR|Exception' "$work/mvn.log"; then
    fail "the build by the $route route was not quiet ($(wc -l <"$work/mvn.log") lines)"
  fi
  (cd "$work/app" && LD_PRELOAD=$sanitizer_preload java -jar target/maven-app.jar) >"$work/out" 2>&1 \
    || { cat "$work/out"; fail "the example app failed ($route)"; }
  printf 'in process: 1267650600228229401496703205376\non a worker: 42\nambrix %s\n' "$version" \
    | diff -u - "$work/out" || fail "the example app's output by the $route route"
done
echo "ok: com.quorbit:ambrix:$version"
