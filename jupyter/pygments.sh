#!/bin/sh
# Installs the Pygments lexer for Vexel (jupyter console, nbconvert) into a
# Python site folder, as the distribution vexel_pygments whose entry point
# lets Pygments find the lexer by the name "vexel".
#   pygments.sh SITE_FOLDER VERSION
set -e
here=$(cd "$(dirname "$0")" && pwd)
site=$1
info=$site/vexel_pygments-$2.dist-info
mkdir -p "$site/vexel_pygments"
rm -rf "$site"/vexel_pygments-*.dist-info
mkdir -p "$info"
cp "$here/pygments/vexel_pygments/__init__.py" "$site/vexel_pygments/__init__.py"
printf 'Metadata-Version: 2.1\nName: vexel_pygments\nVersion: %s\nSummary: Pygments lexer for Vexel\n' "$2" \
  >"$info/METADATA"
printf '[pygments.lexers]\nvexel = vexel_pygments:VexelLexer\n' >"$info/entry_points.txt"
printf 'vexel_pygments\n' >"$info/top_level.txt"
