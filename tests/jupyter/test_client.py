"""The Vexel kernel through jupyter_client's BlockingKernelClient: interrupt,
restart, signatures, input, and the order of a cell's outputs. Each wait has
a guard timeout, so that a fault shows as a failure, never a hang."""
import base64
import hashlib
import hmac
from xml.etree import ElementTree
import os
import urllib.parse
import signal
import time
import unittest
from queue import Empty

from jupyter_client.manager import start_new_kernel

import png
from guard import Guarded

TIMEOUT = 20
SVG = "{http://www.w3.org/2000/svg}"


class VexelClientTests(Guarded, unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.km, cls.kc = start_new_kernel(kernel_name="vexel", startup_timeout=60)

    @classmethod
    def tearDownClass(cls):
        cls.kc.stop_channels()
        cls.km.shutdown_kernel(now=True)

    def setUp(self):
        super().setUp()
        self.drain()

    def drain(self):
        for get in (self.kc.get_shell_msg, self.kc.get_iopub_msg, self.kc.get_stdin_msg):
            while True:
                try:
                    get(timeout=0.1)
                except Empty:
                    break

    def run_cell(self, code, **kw):
        """The reply and the iopub messages of one cell, in order (status and input left out)."""
        outputs = []
        reply = self.kc.execute_interactive(code, timeout=TIMEOUT, output_hook=outputs.append, **kw)
        return reply["content"], [m for m in outputs if m["msg_type"] not in ("status", "execute_input")]

    def test_outputs_of_a_cell_come_in_order(self):
        reply, out = self.run_cell('1 + 1; print("between"); 3 * 3; x := 5: 2^10;')
        self.assertEqual(reply["status"], "ok")
        shown = [(m["msg_type"], m["content"].get("text") or m["content"]["data"]["text/plain"]) for m in out]
        self.assertEqual(shown, [("display_data", "2"), ("stream", '"between"\n'), ("display_data", "9"),
                                 ("execute_result", "1024")])
        self.assertEqual(out[-1]["content"]["execution_count"], reply["execution_count"])

    def test_a_back_quoted_name_may_end_in_a_backslash(self):
        reply, out = self.run_cell("`dir\\` := 5: `dir\\`; `dir\\` + 1;")
        self.assertEqual([m["msg_type"] for m in out], ["display_data", "execute_result"], out)
        self.assertEqual([m["content"]["data"]["text/plain"] for m in out], ["5", "6"])
        self.assertEqual(reply["status"], "ok")

    def test_an_error_stops_the_cell(self):
        reply, out = self.run_cell('print("before"); error "stop here %1", 7; print("after");')
        self.assertEqual(reply["status"], "error")
        self.assertEqual(reply["evalue"], "stop here 7")
        kinds = [m["msg_type"] for m in out]
        self.assertEqual(kinds, ["stream", "error"])

    def test_interrupt_ends_a_long_cell_and_the_kernel_goes_on(self):
        msg_id = self.kc.execute("for i to 10^9 do end do;")
        time.sleep(0.5)
        start = time.time()
        self.km.interrupt_kernel()
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)
        self.assertEqual(reply["parent_header"]["msg_id"], msg_id)
        # The loop alone would run for minutes: any answer within seconds came
        # of the interrupt, however busy the machine.
        self.assertLess(time.time() - start, 20.0)
        self.assertEqual(reply["content"]["status"], "error")
        self.assertIn("interrupted", reply["content"]["evalue"])
        reply, out = self.run_cell("6 * 7;")
        self.assertEqual(out[-1]["content"]["data"]["text/plain"], "42")

    def test_sigint_interrupts_as_the_message_does(self):
        msg_id = self.kc.execute("for i to 10^9 do end do;")
        time.sleep(0.5)
        self.km.signal_kernel(signal.SIGINT)
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)
        self.assertEqual(reply["parent_header"]["msg_id"], msg_id)
        self.assertIn("interrupted", reply["content"]["evalue"])
        self.assertTrue(self.km.is_alive())
        self.assertEqual(self.run_cell("6 * 7;")[1][-1]["content"]["data"]["text/plain"], "42")

    def test_restart_forgets_definitions(self):
        """A restart as a notebook makes it: the kernel answers and exits by itself, and the manager
        starts a new one. A kernel that stayed up would be terminated after half the manager's wait."""
        self.run_cell("kept := 11:")
        self.assertEqual(self.run_cell("kept;")[1][-1]["content"]["data"]["text/plain"], "11")
        old = self.km.provisioner.process
        start = time.time()
        self.km.restart_kernel(now=False)
        took = time.time() - start
        self.assertEqual(old.returncode, 0, "the kernel did not exit by itself")
        self.assertLess(took, self.km.shutdown_wait_time / 2)
        self.kc.wait_for_ready(timeout=60)
        self.drain()
        self.assertEqual(self.run_cell("kept;")[1][-1]["content"]["data"]["text/plain"], "kept")

    def test_a_message_with_a_bad_signature_is_not_executed(self):
        session = self.kc.session
        good_key = session.key
        try:
            session.key = b"not the key"
            session.auth = hmac.HMAC(session.key, digestmod=hashlib.sha256)
            self.kc.execute("forged := 1:")
            with self.assertRaises(Empty):
                self.kc.get_shell_msg(timeout=2)
        finally:
            session.key = good_key
            session.auth = hmac.HMAC(good_key, digestmod=hashlib.sha256)
        self.assertEqual(self.run_cell("forged;")[1][-1]["content"]["data"]["text/plain"], "forged")

    def test_input_when_the_client_allows_it(self):
        answers = []

        def stdin_hook(msg):
            answers.append(msg["content"])
            self.kc.input("typed line")

        outputs = []
        reply = self.kc.execute_interactive("readline();", timeout=TIMEOUT, allow_stdin=True,
                                            stdin_hook=stdin_hook, output_hook=outputs.append)
        self.assertEqual(reply["content"]["status"], "ok")
        self.assertEqual(len(answers), 1)
        results = [m for m in outputs if m["msg_type"] == "execute_result"]
        self.assertEqual(results[0]["content"]["data"]["text/plain"], '"typed line"')

    def test_an_interrupt_ends_a_wait_for_input(self):
        msg_id = self.kc.execute("readline();", allow_stdin=True)
        request = self.kc.get_stdin_msg(timeout=TIMEOUT)
        self.assertEqual(request["parent_header"]["msg_id"], msg_id)
        self.km.interrupt_kernel()
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)
        self.assertEqual(reply["content"]["status"], "error")
        self.assertIn("interrupted", reply["content"]["evalue"])

    def test_input_when_the_client_does_not_allow_it(self):
        reply, _ = self.run_cell("readline();", allow_stdin=False)
        self.assertEqual(reply["status"], "error")
        self.assertIn("input", reply["evalue"])

    def test_an_error_aborts_the_cells_queued_behind_it(self):
        failing = self.kc.execute('for i to 200000 do end do; error "first";')
        queued = self.kc.execute("2;")
        replies = {}
        while len(replies) < 2:
            reply = self.kc.get_shell_msg(timeout=TIMEOUT)
            replies[reply["parent_header"]["msg_id"]] = reply["content"]
        self.assertEqual(replies[failing]["status"], "error")
        # As the Python kernel's: no execution count, so the cell's prompt shows none ("In [ ]").
        self.assertEqual(replies[queued], {"status": "aborted"})
        self.assertEqual(self.run_cell("3;")[0]["status"], "ok")

    def test_silent_cells_show_nothing_and_keep_no_history(self):
        before = self.run_cell("1;")[0]["execution_count"]
        reply, out = self.run_cell('print("quiet"); 5;', silent=True)
        self.assertEqual(out, [])
        self.assertEqual(self.run_cell("1;")[0]["execution_count"], before + 1)

    def test_unknown_requests_are_answered_and_comms_ignored(self):
        msg = self.kc.session.msg("comm_info_request", {})
        self.kc.shell_channel.send(msg)
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)
        self.assertEqual(reply["content"], {"status": "ok", "comms": {}})
        # A kernel without widgets ignores comm messages: no reply, and the next request is answered.
        for kind, content in (("comm_open", {"comm_id": "c1", "target_name": "t", "data": {}}),
                              ("comm_msg", {"comm_id": "c1", "data": {}}), ("comm_close", {"comm_id": "c1"})):
            self.kc.shell_channel.send(self.kc.session.msg(kind, content))
        msg = self.kc.session.msg("no_such_request", {})
        self.kc.shell_channel.send(msg)
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)
        self.assertEqual(reply["msg_type"], "no_such_reply")
        self.assertEqual(reply["content"]["status"], "error")

    def test_help_lines_as_in_the_shell(self):
        cases = [("?", "?topic"), ("??print", "print(e1, e2, ...)"), ("???print", "print(")]
        for code, expected in cases:
            reply, out = self.run_cell(code)
            self.assertEqual(reply["status"], "ok", code)
            text = out[-1]["content"]["data"]["text/plain"]
            self.assertIn(expected, text, code)
        usage = self.run_cell("??print")[1][-1]["content"]["data"]["text/plain"]
        whole = self.run_cell("?print")[1][-1]["content"]["data"]["text/plain"]
        self.assertLess(len(usage), len(whole))

    def test_inspect_finds_the_call_around_the_cursor(self):
        for code in ("seq(", "x := seq(i, i = 1..", "seq(f(2), "):
            self.kc.inspect(code, len(code))
            reply = self.kc.get_shell_msg(timeout=TIMEOUT)["content"]
            self.assertTrue(reply["found"], code)
            self.assertIn("seq", reply["data"]["text/plain"], code)
        self.kc.inspect("1 + ", 4)
        self.assertFalse(self.kc.get_shell_msg(timeout=TIMEOUT)["content"]["found"])

    def test_a_syntax_error_shows_the_users_line_and_a_caret(self):
        reply, out = self.run_cell("y := 2:\nx := 1 +;")
        self.assertEqual(reply["status"], "error")
        self.assertNotIn("':'", reply["evalue"])
        self.assertEqual(reply["traceback"][1:], ["x := 1 +;", "\x1b[0;31m        ^\x1b[0m"])

    def test_completion_offers_no_test_hooks(self):
        for prefix in ("fail", "textc", "poi"):
            self.kc.complete(prefix, len(prefix))
            self.assertEqual(self.kc.get_shell_msg(timeout=TIMEOUT)["content"]["matches"], [], prefix)

    def test_the_help_link_opens_a_file_that_exists(self):
        self.kc.kernel_info()
        links = self.kc.get_shell_msg(timeout=TIMEOUT)["content"]["help_links"]
        self.assertEqual(len(links), 1)
        self.assertTrue(links[0]["url"].startswith("file:///"))
        self.assertTrue(os.path.isfile(urllib.parse.unquote(links[0]["url"][len("file://"):])))

    def test_values_are_typeset_plots_drawn_and_both_keep_their_order(self):
        reply, out = self.run_cell('(x+1)^2/(y-3); plot(x^2, x = -1..1); print("after"); '
                                   'Matrix(2, 2, [[1, 2], [3, 4]]);')
        self.assertEqual(reply["status"], "ok")
        kinds = [(m["msg_type"], sorted(m["content"].get("data", {"stream": 1}))) for m in out]
        self.assertEqual(kinds, [("display_data", ["text/latex", "text/plain"]),
                                 ("display_data", ["image/png", "image/svg+xml", "text/html", "text/plain"]),
                                 ("stream", ["stream"]),
                                 ("execute_result", ["text/latex", "text/plain"])])
        self.assertEqual(out[0]["content"]["data"]["text/latex"],
                         "$\\displaystyle \\frac{\\left(x+1\\right)^{2}}{y-3}$")
        self.assertEqual(out[0]["content"]["data"]["text/plain"], "(x+1)^2/(y-3)")
        self.assertIn("\\begin{pmatrix}1 & 2 \\\\ 3 & 4\\end{pmatrix}", out[3]["content"]["data"]["text/latex"])
        svg = ElementTree.fromstring(out[1]["content"]["data"]["image/svg+xml"])
        axes = [e for e in svg.iter(SVG + "rect") if e.get("class") == "axes"][0]
        left, top = float(axes.get("x")), float(axes.get("y"))
        right, bottom = left + float(axes.get("width")), top + float(axes.get("height"))
        lines = list(svg.iter(SVG + "polyline"))
        self.assertEqual(len(lines), 1)
        points = [tuple(map(float, p.split(","))) for p in lines[0].get("points").split()]
        self.assertGreater(len(points), 100)
        for x, y in points:
            self.assertTrue(left <= x <= right and top <= y <= bottom, (x, y))
        # x^2 on -1..1: highest at both ends, lowest in the middle (y grows downwards).
        ys = [y for _, y in points]
        self.assertEqual(min(ys), ys[0])
        self.assertAlmostEqual(max(ys), ys[len(ys) // 2], delta=0.5)

    def test_a_plot_is_drawn_as_png_too(self):
        """The PNG image (for untrusted notebooks, and as HTML for nbconvert's) is the SVG picture drawn:
        its size, its white ground, and both curves in their colours."""
        data = self.run_cell("plot([x, x^3], x = 0..1);")[1][0]["content"]["data"]
        svg = ElementTree.fromstring(data["image/svg+xml"])
        image = base64.b64decode(data["image/png"])
        self.assertEqual(data["text/html"], f'<img src="data:image/png;base64,{data["image/png"]}" alt="plot">')
        width, height, rows = png.pixels(image)
        self.assertEqual((width, height), (round(float(svg.get("width"))), round(float(svg.get("height")))))
        self.assertEqual(rows[2][2], (255, 255, 255))
        colours = {p for row in rows for p in row}
        for line in svg.iter(SVG + "polyline"):
            want = tuple(bytes.fromhex(line.get("stroke")[1:]))
            self.assertTrue(any(sum(abs(a - b) for a, b in zip(p, want)) < 24 for p in colours), want)

    def test_display_plain_turns_typesetting_off_and_latex_on(self):
        try:
            reply, out = self.run_cell("%display plain\nx^2;")
            self.assertEqual(reply["status"], "ok")
            self.assertEqual(list(out[-1]["content"]["data"]), ["text/plain"])
            self.assertEqual(list(self.run_cell("y^2;")[1][-1]["content"]["data"]), ["text/plain"])
            # A plot is no typesetting: it still shows.
            out = self.run_cell("plot([x, x^3], x = 0..1);")[1]
            svg = ElementTree.fromstring(out[0]["content"]["data"]["image/svg+xml"])
            self.assertEqual(len(list(svg.iter(SVG + "polyline"))), 2)
            legend = [g for g in svg.iter(SVG + "g") if g.get("class") == "legend"][0]
            self.assertEqual([t.text for t in legend.iter(SVG + "text")], ["x", "x^3"])
        finally:
            self.run_cell("%display latex")
        self.assertIn("text/latex", self.run_cell("x^2;")[1][-1]["content"]["data"])
        reply, _ = self.run_cell("%display fancy")
        self.assertEqual(reply["status"], "error")
        # A table of more than 400 entries stays plain; one of 400 is typeset.
        self.assertIn("text/latex", self.run_cell("Matrix(20, 20);")[1][-1]["content"]["data"])
        self.assertNotIn("text/latex", self.run_cell("Matrix(20, 21);")[1][-1]["content"]["data"])

    def test_an_error_is_red_and_a_bad_plot_is_the_kernels_error(self):
        reply, out = self.run_cell("plot(x, x = 1..0);")
        self.assertEqual(reply["status"], "error")
        self.assertIn("the range must be", reply["evalue"])
        self.assertTrue(reply["traceback"][0].startswith("\x1b[0;31mError, "), reply["traceback"])

    def test_help_pages_come_as_html_too(self):
        reply, out = self.run_cell("?print")
        html = out[-1]["content"]["data"]["text/html"]
        self.assertIn("<h4>Usage</h4>", html)
        self.assertIn("<h4>See Also</h4>", html)
        self.assertIn("c.set_text('?lprint')", html.replace("&#39;", "'"))
        self.assertIn("See Also", out[-1]["content"]["data"]["text/plain"])
        self.kc.inspect("print", 5)
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)["content"]
        self.assertIn("<h4>Usage</h4>", reply["data"]["text/html"])

    def test_completion_counts_code_points(self):
        code = '"\U0001d11e" + pri'
        self.kc.complete(code, len(code))
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)["content"]
        self.assertEqual(reply["matches"], ["print"])
        self.assertEqual((reply["cursor_start"], reply["cursor_end"]), (len(code) - 3, len(code)))


if __name__ == "__main__":
    unittest.main()
