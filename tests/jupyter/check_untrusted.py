"""An executed notebook reopened, untrusted, through a real notebook server:
its plot must still show as a picture. The server says whether the notebook
is trusted; which of an output's representations the notebook's page then
shows is decided by the page's own rules, read from the installed page code
(the order of representations, and those shown in an untrusted notebook)."""
import json
import os
import re
import socket
import subprocess
import sys
import time
import urllib.request

import notebook

OUTPUT_AREA = os.path.join(os.path.dirname(notebook.__file__), "static", "notebook", "js", "outputarea.js")


def page_rules():
    """The page's order of representations, and the set it shows untrusted (HTML only sanitized)."""
    js = open(OUTPUT_AREA).read()
    names = dict(re.findall(r"var (MIME_\w+) = '([^']+)';", js))
    order = re.search(r"OutputArea\.display_order = \[([^\]]*)\]", js).group(1)
    order = [names[n.strip()] for n in order.split(",") if n.strip()]
    safe = {names[n] for n in re.findall(r"OutputArea\.safe_outputs\[(MIME_\w+)\] = true", js)}
    return order, safe | {"text/html"}


def shown(data, trusted, order, safe):
    """The representation the page shows."""
    return next(t for t in order if t in data and (trusted or t in safe))


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def reopen(folder, name):
    """The notebook as a notebook server opens it."""
    port, token = free_port(), "vexel-test"
    server = subprocess.Popen(["/usr/bin/jupyter-notebook", "--no-browser", "--allow-root", f"--port={port}", "--ip=127.0.0.1",
                               f"--NotebookApp.token={token}", f"--notebook-dir={folder}"],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        url = f"http://127.0.0.1:{port}/api/contents/{name}?token={token}"
        for _ in range(300):
            try:
                with urllib.request.urlopen(url, timeout=5) as answer:
                    return json.load(answer)["content"]
            except OSError:
                time.sleep(0.2)
        raise SystemExit("FAILED: the notebook server did not answer")
    finally:
        server.terminate()
        server.wait(timeout=30)


def main(path):
    order, safe = page_rules()
    nb = reopen(os.path.dirname(os.path.abspath(path)), os.path.basename(path))
    plots = [(cell, o) for cell in nb["cells"] if cell["cell_type"] == "code"
             for o in cell["outputs"] if "image/svg+xml" in o.get("data", {})]
    assert plots, "no plot in the notebook"
    for cell, output in plots:
        assert cell["metadata"].get("trusted") is False, "the server took the notebook for trusted"
        data = output["data"]
        # The page's rule, checked on the picture alone: an SVG without an image shows as its text.
        assert shown({"image/svg+xml": 1, "text/plain": 1}, False, order, safe) == "text/plain"
        kind = shown(data, False, order, safe)
        assert kind in ("image/png", "text/html"), f"an untrusted plot shows as {kind}"
        assert kind == "image/png" or data[kind].startswith('<img src="data:image/png;base64,'), data[kind][:80]
    print(f"ok: {len(plots)} plot(s) of {path} show as images, untrusted, through the notebook server")


if __name__ == "__main__":
    main(sys.argv[1])
