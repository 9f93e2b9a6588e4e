"""Checks the executed example notebook: every cell's outputs, in order."""
import base64
import json
import sys

EXPECTED = [
    # (kind, text) for each output of each code cell, in order
    [("display_data", "1267650600228229401496703205376"), ("display_data", "1/2"),
     ("execute_result", "0.3333333333333333")],
    [("execute_result", "13.5")],
    [("display_data", "[1, 4, 9, 16, 25, 36]"), ("execute_result", "6")],
    [("display_data", "[4, 5]"), ("stream", '"a pear costs", 4\n')],
    [("display_data", "(x+1)^2/(y-3)", "$\\displaystyle \\frac{\\left(x+1\\right)^{2}}{y-3}$"),
     ("execute_result", "sqrt(x^2+1)+3/4*x", "$\\displaystyle \\sqrt{x^{2}+1}+\\frac{3 x}{4}$")],
    [("display_data", "Array(1..2, 1..3, [[1, 2, 3], [4, 5, 6]], datatype = anything)",
      "$\\displaystyle \\begin{pmatrix}1 & 2 & 3 \\\\ 4 & 5 & 6\\end{pmatrix}$"),
     ("display_data", "<plot>", "svg")],
    [("error", "numeric exception: division by zero")],
    [("display_data", "nops(e)")],
]


def text(t):
    """nbformat keeps text as a string or as a list of lines."""
    return "".join(t) if isinstance(t, list) else t


def shown(output):
    """An output's kind and text; with its LaTeX, or "svg" for a picture, when it has one."""
    kind = output["output_type"]
    if kind == "stream":
        return kind, text(output["text"])
    if kind == "error":
        return kind, output["evalue"]
    data = output["data"]
    if "text/latex" in data:
        return kind, text(data["text/plain"]), text(data["text/latex"])
    if "image/svg+xml" in data:
        assert text(data["image/svg+xml"]).startswith("<svg"), "a plot that is no SVG document"
        png = text(data["image/png"]).replace("\n", "")
        assert base64.b64decode(png).startswith(b"\x89PNG"), "a plot without its PNG image"
        assert text(data["text/html"]) == f'<img src="data:image/png;base64,{png}" alt="plot">', "no <img> of it"
        return kind, text(data["text/plain"]), "svg"
    return kind, text(data["text/plain"])


def main(path):
    notebook = json.load(open(path))
    cells = [c for c in notebook["cells"] if c["cell_type"] == "code"]
    assert len(cells) == len(EXPECTED), f"{len(cells)} code cells"
    for n, (cell, want) in enumerate(zip(cells, EXPECTED), 1):
        # An expected output without LaTeX is checked on its kind and text alone.
        got = [shown(o)[:len(w)] if len(w) == 2 else shown(o) for o, w in zip(cell["outputs"], want)] \
            + [shown(o) for o in cell["outputs"][len(want):]]
        if got[-1:] and got[-1][0] == "display_data" and want[-1][0] == "display_data" and len(want[-1]) == 2:
            # help text: its first line is enough
            got[-1] = (got[-1][0], got[-1][1].split("\n")[1] if "\n" in got[-1][1] else got[-1][1])
        assert got == want, f"cell {n}: {got} != {want}"
    print(f"ok: {len(cells)} code cells of {path} gave their outputs in order")


if __name__ == "__main__":
    main(sys.argv[1])
