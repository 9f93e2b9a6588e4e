"""The Vexel kernel through jupyter_client's BlockingKernelClient: interrupt,
restart, signatures, input, and the order of a cell's outputs. Each wait has
a guard timeout, so that a fault shows as a failure, never a hang."""
import hashlib
import hmac
import signal
import time
import unittest
from queue import Empty

from jupyter_client.manager import start_new_kernel

TIMEOUT = 20


class VexelClientTests(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.km, cls.kc = start_new_kernel(kernel_name="vexel", startup_timeout=60)

    @classmethod
    def tearDownClass(cls):
        cls.kc.stop_channels()
        cls.km.shutdown_kernel(now=True)

    def setUp(self):
        signal.signal(signal.SIGALRM, self.guard)
        signal.alarm(60)
        self.drain()

    def tearDown(self):
        signal.alarm(0)

    @staticmethod
    def guard(signum, frame):
        raise TimeoutError("the test's guard timeout passed")

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
        self.run_cell("kept := 11:")
        self.assertEqual(self.run_cell("kept;")[1][-1]["content"]["data"]["text/plain"], "11")
        self.kc.shutdown(restart=True)
        reply = self.kc.get_control_msg(timeout=TIMEOUT) if hasattr(self.kc, "get_control_msg") else None
        if reply is not None:
            self.assertEqual(reply["content"]["restart"], True)
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
            replies[reply["parent_header"]["msg_id"]] = reply["content"]["status"]
        self.assertEqual(replies, {failing: "error", queued: "aborted"})
        self.assertEqual(self.run_cell("3;")[0]["status"], "ok")

    def test_silent_cells_show_nothing_and_keep_no_history(self):
        before = self.run_cell("1;")[0]["execution_count"]
        reply, out = self.run_cell('print("quiet"); 5;', silent=True)
        self.assertEqual(out, [])
        self.assertEqual(self.run_cell("1;")[0]["execution_count"], before + 1)

    def test_unknown_and_comm_requests_are_answered(self):
        msg = self.kc.session.msg("comm_info_request", {})
        self.kc.shell_channel.send(msg)
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)
        self.assertEqual(reply["content"], {"status": "ok", "comms": {}})
        msg = self.kc.session.msg("no_such_request", {})
        self.kc.shell_channel.send(msg)
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)
        self.assertEqual(reply["content"]["status"], "error")

    def test_completion_counts_code_points(self):
        code = '"\U0001d11e" + pri'
        self.kc.complete(code, len(code))
        reply = self.kc.get_shell_msg(timeout=TIMEOUT)["content"]
        self.assertEqual(reply["matches"], ["print"])
        self.assertEqual((reply["cursor_start"], reply["cursor_end"]), (len(code) - 3, len(code)))


if __name__ == "__main__":
    unittest.main()
