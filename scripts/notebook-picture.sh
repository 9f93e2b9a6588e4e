#!/usr/bin/env bash
# Photographs the example notebook: executes examples/vexel-tour.ipynb with
# the Vexel kernel of build/, converts it to HTML, and takes a picture of
# the page with headless Chromium, into docs/jupyter-notebook.png.
# Needs Debian's jupyter-nbconvert and chromium (installed when missing).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh" "$root/build" >/dev/null
for p in jupyter-nbconvert python3-nbclient chromium; do
  dpkg -s "$p" >/dev/null 2>&1 || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$p" >/dev/null
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export JUPYTER_DATA_DIR=$work/data
"$root/jupyter/kernelspec.sh" "$JUPYTER_DATA_DIR/kernels/vexel" "$root/shell/vexel"
/usr/bin/jupyter nbconvert --to html --execute --output-dir "$work" --output tour "$root/examples/vexel-tour.ipynb"
chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking \
  --disable-component-update --disable-sync --user-data-dir="$work/chromium" --hide-scrollbars \
  --window-size=900,1080 --screenshot="$root/docs/jupyter-notebook.png" "file://$work/tour.html" 2>/dev/null
echo "wrote docs/jupyter-notebook.png"
