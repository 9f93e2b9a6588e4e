#!/usr/bin/env bash
# The Jupyter kernel, with Debian's Jupyter: the kernel test suite, the
# client tests, and the example notebook executed by nbconvert, its outputs
# checked. The kernelspec is made for this build in a private data folder.
# Usage: run.sh BUILD_DIR SOURCE_DIR [TEST_MODULE ...]
# With test modules named, only those run (no notebook).
set -euo pipefail
build=$(cd "$1" && pwd)
src=$(cd "$2" && pwd)
shift 2
. "$src/tests/common.sh" "$build"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export JUPYTER_DATA_DIR=$work/data JUPYTER_RUNTIME_DIR=$work/runtime JUPYTER_CONFIG_DIR=$work/config
export JUPYTER_PLATFORM_DIRS=1
mkdir -p "$JUPYTER_DATA_DIR/kernels/vexel"
cat >"$JUPYTER_DATA_DIR/kernels/vexel/kernel.json" <<JSON
{
  "argv": ["$src/shell/vexel", "--jupyter-kernel", "{connection_file}"],
  "display_name": "Vexel",
  "language": "vexel",
  "interrupt_mode": "message",
  "env": {"BUILD": "$build", "LD_PRELOAD": "$sanitizer_preload", "ASAN_OPTIONS": "${ASAN_OPTIONS:-}"}
}
JSON
# The lexer as an installed distribution, where Python looks for it here.
"$src/jupyter/pygments.sh" "$work/site" "$(cat "$src/VERSION")"
export PYTHONPATH=$work/site
node "$src/tests/jupyter/codemirror_mode.js" "$src/jupyter/kernelspec/kernel.js"
cd "$src/tests/jupyter"
if (($#)); then
    /usr/bin/python3 -m unittest -v "$@"
    exit
fi
/usr/bin/python3 -m unittest -v test_kernel test_client test_hostile test_lexer 2>&1 | tee "$work/unittest.log"
# Every cell of the example carries its id, as its format (4.5) asks: nbconvert warns of none.
/usr/bin/jupyter nbconvert --to notebook --execute --ExecutePreprocessor.timeout=60 \
  --output-dir "$work" --output executed "$src/examples/vexel-tour.ipynb" 2>"$work/nbconvert.log" \
  || { cat "$work/nbconvert.log"; exit 1; }
if grep Warning "$work/nbconvert.log"; then echo "FAILED: nbconvert warned on the example notebook"; exit 1; fi
/usr/bin/python3 "$src/tests/jupyter/check_notebook.py" "$work/executed.ipynb"
# Reopened through a notebook server, never trusted here: its plot still shows as a picture.
/usr/bin/python3 "$src/tests/jupyter/check_untrusted.py" "$work/executed.ipynb"
# nbconvert highlights the cells with the lexer that language_info names.
/usr/bin/jupyter nbconvert --to html --output-dir "$work" --output executed "$work/executed.ipynb" 2>/dev/null
grep -q '<span class="k">proc</span>' "$work/executed.html" \
  || { echo "FAILED: the notebook's HTML has no Vexel highlighting"; exit 1; }
# Its plot is an image (nbconvert strips an SVG picture's elements).
grep -q '<img src="data:image/png;base64,[A-Za-z0-9+/=]\{1000,\}" alt="plot">' "$work/executed.html" \
  || { echo "FAILED: the notebook's HTML shows no plot as an image"; exit 1; }
