#!/usr/bin/env bash
# The Maven artifact com.quorbit:ambrix: its set is whole (checksums that
# match, a source for every public class, Javadoc that opens), and a project
# that depends on it builds with Debian's maven and no network at all, from
# the install tree's share/maven-repo and from a repository that
# ./vexel --install-maven filled, then runs.
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
unzip -p "$base.jar" META-INF/MANIFEST.MF | grep -q "^Implementation-Version: $version" \
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
unzip -Z1 "$base-javadoc.jar" | grep -qx index.html || fail "the javadoc jar has no index.html at its root"
unzip -p "$base-javadoc.jar" com/quorbit/ambrix/pool/EnginePool.html | grep -q "EnginePool" \
  || fail "the javadoc jar has no page for EnginePool"

# The example project, built with no network from each repository in turn.
unshare -n true 2>/dev/null || fail "cannot make a network namespace (unshare -n) to build without a network"
cmake --install "$build" --prefix "$work/installed" >/dev/null
MAVEN_REPO_LOCAL=$work/m2 "$src/scripts/install-maven.sh" "$build" >/dev/null
grep -q "<ambrix.version>$version</ambrix.version>" "$src/examples/maven-app/pom.xml" \
  || fail "examples/maven-app/pom.xml names another version of ambrix than $version"
for repo in "$work/installed/share/maven-repo" "$work/m2"; do
  rm -rf "$work/app" && cp -r "$src/examples/maven-app" "$work/app"
  (cd "$work/app" && AMBRIX_MAVEN_REPO=$repo unshare -n mvn -B -q -s settings.xml \
     -Dmaven.repo.local="$work/local" package) >"$work/mvn.log" 2>&1 || { cat "$work/mvn.log"; fail "mvn package"; }
  rm -rf "$work/local"
  LD_PRELOAD=$sanitizer_preload java -cp "$work/app/target/maven-app.jar:$repo/com/quorbit/ambrix/$version/ambrix-$version.jar" \
    com.example.app.App >"$work/out" 2>&1 || { cat "$work/out"; fail "the example app failed"; }
  printf 'in process: 1267650600228229401496703205376\non a worker: 42\nambrix %s\n' "$version" \
    | diff -u - "$work/out" || fail "the example app's output from $repo"
done
echo "ok: com.quorbit:ambrix:$version"
