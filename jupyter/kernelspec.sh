#!/bin/sh
# Writes the Vexel kernelspec: kernel.json in FOLDER, whose kernel is
# started by LAUNCHER --jupyter-kernel {connection_file}.
#   kernelspec.sh FOLDER LAUNCHER
set -e
mkdir -p "$1"
cat >"$1/kernel.json" <<JSON
{
  "argv": ["$2", "--jupyter-kernel", "{connection_file}"],
  "display_name": "Vexel",
  "language": "vexel",
  "interrupt_mode": "message"
}
JSON
