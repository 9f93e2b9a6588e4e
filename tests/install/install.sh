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
version=$(cat "$here/../../VERSION")
maven=share/maven-repo/com/quorbit/ambrix
for f in lib/libambrix.so lib/libvexelc.so share/java/ambrix.jar share/java/vexelshell.jar \
         share/java/vexeljupyter.jar bin/vexel share/jupyter/kernels/vexel/kernel.json share/doc/ambrix/README.md \
         $maven/$version/ambrix-$version.jar $maven/$version/ambrix-$version.pom \
         $maven/debian/ambrix-debian.jar $maven/debian/ambrix-debian.pom share/jupyter/kernels/vexel/kernel.js \
         lib/python3/dist-packages/vexel_pygments/__init__.py \
         lib/python3/dist-packages/vexel_pygments-$version.dist-info/entry_points.txt; do
  [[ -e $work/moved/$f ]] || { echo "not installed: $f"; exit 1; }
done

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/package") >"$work/cpack.log" 2>&1 \
  || { cat "$work/cpack.log"; exit 1; }
deb=$(echo "$work"/package/*.deb)
[[ $(dpkg-deb -f "$deb" Version) == "$version" ]] || { echo "the package's version is not $version"; exit 1; }
# The Maven repository layout, with Debian's version link.
dpkg-deb -c "$deb" | awk '{print $6, $7, $8}' >"$work/files"
for f in ambrix-$version.jar ambrix-$version.pom ambrix-$version-sources.jar ambrix-$version-javadoc.jar \
         ambrix-$version.jar.sha1 ambrix-$version.pom.md5; do
  grep -q "^./usr/$maven/$version/$f " "$work/files" || { echo "the package lacks $maven/$version/$f"; exit 1; }
done
grep -q "^./usr/$maven/maven-metadata-local.xml " "$work/files"
grep -qF "./usr/$maven/debian/ambrix-debian.jar -> ../$version/ambrix-$version.jar" "$work/files" \
  || { echo "the package lacks Debian's version link"; grep maven-repo "$work/files"; exit 1; }
grep -q "^./usr/$maven/debian/ambrix-debian.pom " "$work/files"
grep -q "^./usr/share/jupyter/kernels/vexel/kernel.js " "$work/files"
grep -q "^./usr/lib/python3/dist-packages/vexel_pygments/__init__.py " "$work/files"
dpkg-deb -x "$deb" "$work/unpacked"
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
for package in default-jre-headless libgmp10 libjline3-java libjeromq-java libgoogle-gson-java libbatik-java; do
  [[ ", $depends" == *", $package"* ]] || { echo "the package does not depend on $package"; exit 1; }
done

# The kernelspecs name their own launcher: the package's the one under /usr.
grep -qF '"argv": ["/usr/bin/vexel", "--jupyter-kernel", "{connection_file}"]' \
  "$work/unpacked/usr/share/jupyter/kernels/vexel/kernel.json" \
  || { cat "$work/unpacked/usr/share/jupyter/kernels/vexel/kernel.json"; exit 1; }
grep -qF '"interrupt_mode": "message"' "$work/moved/share/jupyter/kernels/vexel/kernel.json"

"$here/../shell/pipe.sh" "$build" "$work/moved/bin/vexel"
"$here/../shell/pipe.sh" "$build" "$work/unpacked/usr/bin/vexel"
