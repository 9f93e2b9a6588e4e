#!/usr/bin/env bash
# Lays the Maven artifact set of a build (BUILD/maven) into a local Maven
# repository: $MAVEN_REPO_LOCAL if set (as mvn -Dmaven.repo.local=... would
# name it), else ~/.m2/repository. Versions already there stay, and the
# artifact's maven-metadata-local.xml lists them all, as Maven's own install
# leaves it.
# Usage: install-maven.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
repo=${MAVEN_REPO_LOCAL:-$HOME/.m2/repository}
from=$build/maven/com/quorbit/ambrix
to=$repo/com/quorbit/ambrix
[[ -d $from ]] || { echo "install-maven: $from is missing; build first" >&2; exit 2; }
mkdir -p "$to"
for version in "$from"/*/; do
  version=$(basename "$version")
  rm -rf "${to:?}/$version"
  cp -r "$from/$version" "$to/$version"
done
mapfile -t versions < <(cd "$to" && for d in */; do d=${d%/}; [[ -f $d/ambrix-$d.pom ]] && echo "$d"; done | sort -V)
latest=${versions[-1]}
{
  printf '<?xml version="1.0" encoding="UTF-8"?>\n<metadata>\n  <groupId>com.quorbit</groupId>\n'
  printf '  <artifactId>ambrix</artifactId>\n  <versioning>\n    <latest>%s</latest>\n' "$latest"
  printf '    <release>%s</release>\n    <versions>\n' "$latest"
  printf '      <version>%s</version>\n' "${versions[@]}"
  printf '    </versions>\n    <lastUpdated>%s</lastUpdated>\n  </versioning>\n</metadata>\n' "$(date -u +%Y%m%d%H%M%S)"
} >"$to/maven-metadata-local.xml"
sha1sum "$to/maven-metadata-local.xml" | cut -d' ' -f1 | tr -d '\n' >"$to/maven-metadata-local.xml.sha1"
md5sum "$to/maven-metadata-local.xml" | cut -d' ' -f1 | tr -d '\n' >"$to/maven-metadata-local.xml.md5"
echo "Installed com.quorbit:ambrix ($(IFS=,; echo "${versions[*]}")) in $repo"
