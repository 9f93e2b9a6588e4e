#!/usr/bin/env bash
# Photographs the example notebook in a real notebook: executes
# examples/vexel-tour.ipynb with the Vexel kernel of build/, opens it in
# Jupyter's classic notebook served on localhost, and takes a picture of the
# page with headless Chromium (formulas typeset by the MathJax that Debian's
# notebook serves), into docs/jupyter-notebook.png.
# Needs Debian's jupyter-notebook, jupyter-nbconvert, libjs-mathjax and
# chromium (installed when missing).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh" "$root/build" >/dev/null
for p in jupyter-notebook jupyter-nbconvert python3-nbclient libjs-mathjax chromium; do
  dpkg -s "$p" >/dev/null 2>&1 || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$p" >/dev/null
done
work=$(mktemp -d)
server=
trap '[[ -n $server ]] && kill "$server" 2>/dev/null; rm -rf "$work"' EXIT
export JUPYTER_DATA_DIR=$work/data JUPYTER_RUNTIME_DIR=$work/runtime JUPYTER_CONFIG_DIR=$work/config
"$root/jupyter/kernelspec.sh" "$JUPYTER_DATA_DIR/kernels/vexel" "$root/shell/vexel"
mkdir "$work/notebooks"
/usr/bin/jupyter nbconvert --to notebook --execute --output-dir "$work/notebooks" --output vexel-tour \
  "$root/examples/vexel-tour.ipynb" 2>/dev/null
# Trusted, as a notebook one ran oneself is: its SVG plots are shown.
/usr/bin/python3 -c 'import sys, nbformat; from nbformat.sign import NotebookNotary
nb = nbformat.read(sys.argv[1], 4); NotebookNotary().sign(nb); nbformat.write(nb, sys.argv[1])' \
  "$work/notebooks/vexel-tour.ipynb"
port=$((20000 + RANDOM % 20000))
/usr/bin/jupyter notebook --no-browser --ip=127.0.0.1 --port="$port" --allow-root \
  --NotebookApp.token= --NotebookApp.password= --NotebookApp.disable_check_xsrf=True --notebook-dir="$work/notebooks" >"$work/server.log" 2>&1 &
server=$!
for _ in $(seq 100); do
  curl -sf "http://127.0.0.1:$port/api" >/dev/null 2>&1 && break
  sleep 0.2
done
# The notebook's kernel started before the page opens, which then joins it:
# its kernel.js (the Vexel mode) loads at once, not after the picture is
# taken on a machine where the kernel is slow to start.
kernel=$(curl -sf -X POST -H 'Content-Type: application/json' "http://127.0.0.1:$port/api/sessions" \
  -d '{"path": "vexel-tour.ipynb", "type": "notebook", "kernel": {"name": "vexel"}}' \
  | /usr/bin/python3 -c 'import json, sys; print(json.load(sys.stdin)["kernel"]["id"])')
for _ in $(seq 300); do
  state=$(curl -sf "http://127.0.0.1:$port/api/kernels/$kernel" \
    | /usr/bin/python3 -c 'import json, sys; print(json.load(sys.stdin)["execution_state"])')
  [[ $state == idle ]] && break
  sleep 0.2
done
chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking \
  --disable-component-update --disable-sync --user-data-dir="$work/chromium" --hide-scrollbars \
  --virtual-time-budget=20000 --window-size=1000,2300 --screenshot="$root/docs/jupyter-notebook.png" \
  "http://127.0.0.1:$port/notebooks/vexel-tour.ipynb" 2>/dev/null
grep -E " 404 " "$work/server.log" || true
echo "wrote docs/jupyter-notebook.png"
