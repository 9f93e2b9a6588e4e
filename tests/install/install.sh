#!/usr/bin/env bash
# The installed shell works: the build is installed into a temporary prefix
# (then moved, since the launcher finds everything relative to itself), and
# the .deb is unpacked with dpkg-deb -x into another folder; a file of
# statements runs through each installed vexel. The package's dependencies
# are Debian package names.
# Usage: install.sh BUILD_DIR
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/installed" >/dev/null
mv "$work/installed" "$work/moved"
for f in lib/libambrix.so lib/libvexelc.so share/java/ambrix.jar share/java/vexelshell.jar bin/vexel; do
  [[ -e $work/moved/$f ]] || { echo "not installed: $f"; exit 1; }
done

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/package") >"$work/cpack.log" 2>&1 \
  || { cat "$work/cpack.log"; exit 1; }
deb=$(echo "$work"/package/*.deb)
dpkg-deb -x "$deb" "$work/unpacked"
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for package in default-jre-headless libgmp10 libjline3-java; do
  [[ ", $depends" == *", $package"* ]] || { echo "the package does not depend on $package"; exit 1; }
done

"$here/../shell/pipe.sh" "$build" "$work/moved/bin/vexel"
"$here/../shell/pipe.sh" "$build" "$work/unpacked/usr/bin/vexel"
