#!/bin/sh
# Writes the Vexel kernelspec: kernel.json in FOLDER, whose kernel is
# started by LAUNCHER --jupyter-kernel {connection_file}, and kernel.js,
# the notebook's syntax highlighting (a CodeMirror mode).
#   kernelspec.sh FOLDER LAUNCHER
set -e
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1"
cat >"$1/kernel.json" <<JSON
{
  "argv": ["$2", "--jupyter-kernel", "{connection_file}"],
  "display_name": "Vexel",
  "language": "vexel",
  "interrupt_mode": "message"
}
JSON
cp "$here/kernelspec/kernel.js" "$1/kernel.js"
