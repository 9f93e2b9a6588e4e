"""The Vexel kernel against broken and hostile peers, over its real ZeroMQ
sockets: malformed and replayed messages, an unsigned peer announcing a huge
frame, requests that would wait for a busy kernel, bad history requests, and
interrupts that race their cell. Each wait has a guard timeout, so that a
fault shows as a failure, never a hang."""
import os
import signal
import socket
import struct
import time
import unittest

import zmq
from jupyter_client.manager import start_new_kernel
from jupyter_client.session import Session

from guard import Guarded

TIMEOUT = 20
ENDLESS = "for i to 10^9 do end do;"


class Peer:
    """A raw DEALER socket on one of the kernel's channels, signing with the kernel's key."""

    def __init__(self, km, session, channel):
        self.session = session
        self.socket = zmq.Context.instance().socket(zmq.DEALER)
        self.socket.linger = 0
        info = km.get_connection_info()
        self.socket.connect(f"{info['transport']}://{info['ip']}:{info[channel + '_port']}")

    def frames(self, msg_type, content, header=None):
        msg = self.session.msg(msg_type, content)
        msg["header"].update(header or {})
        return msg, self.session.serialize(msg)

    def send(self, msg_type, content, header=None):
        msg, frames = self.frames(msg_type, content, header)
        self.socket.send_multipart(frames)
        return msg["header"]["msg_id"]

    def recv(self, timeout=TIMEOUT):
        """The next reply's message, or None when none comes within the timeout."""
        if not self.socket.poll(timeout * 1000):
            return None
        _, parts = self.session.feed_identities(self.socket.recv_multipart())
        return self.session.deserialize(parts)

    def replies(self, timeout):
        """Every reply that comes within the timeout."""
        got, end = [], time.time() + timeout
        while (msg := self.recv(max(0.0, end - time.time()))) is not None:
            got.append(msg)
        return got

    def request(self, msg_type, content, timeout=TIMEOUT):
        msg_id = self.send(msg_type, content)
        while (reply := self.recv(timeout)) is not None:
            if reply["parent_header"].get("msg_id") == msg_id:
                return reply
        return None

    def close(self):
        self.socket.close()


class HostilePeerTests(Guarded, unittest.TestCase):
    guard_seconds = 120

    @classmethod
    def setUpClass(cls):
        cls.km, cls.kc = start_new_kernel(kernel_name="vexel", startup_timeout=60)
        cls.shell = Peer(cls.km, cls.kc.session, "shell")
        cls.control = Peer(cls.km, cls.kc.session, "control")

    @classmethod
    def tearDownClass(cls):
        cls.shell.close()
        cls.control.close()
        cls.kc.stop_channels()
        cls.km.shutdown_kernel(now=True)

    def assertAnswers(self):
        """Both channels still answer."""
        reply = self.shell.request("kernel_info_request", {})
        self.assertIsNotNone(reply, "no kernel_info_reply on shell")
        self.assertEqual(reply["content"]["status"], "ok")
        reply = self.control.request("interrupt_request", {})
        self.assertIsNotNone(reply, "no interrupt_reply on control")
        self.assertTrue(self.km.is_alive())

    def await_start(self, msg_id):
        """Waits until the cell has started: its input is published."""
        while True:
            msg = self.kc.get_iopub_msg(timeout=TIMEOUT)
            if msg["msg_type"] == "execute_input" and msg["parent_header"].get("msg_id") == msg_id:
                return

    def test_messages_that_are_no_requests_leave_both_channels_answering(self):
        for peer in (self.shell, self.control):
            for header in ({"msg_type": {}}, {"msg_type": ["execute_request"]}, {"msg_type": 7},
                           {"msg_id": {"x": 1}}):
                with self.subTest(header=header):
                    peer.send("kernel_info_request", {}, header)
                    self.assertAnswers()
        # JSON nested far deeper than any parser's stack: dropped, the kernel goes on.
        msg, frames = self.shell.frames("execute_request", {})
        frames[-1] = b'{"a": ' * 200000 + b"{}" + b"}" * 200000
        frames[1] = self.kc.session.sign(frames[2:6])
        self.shell.socket.send_multipart(frames)
        self.assertAnswers()

    def test_a_replayed_signed_message_is_refused(self):
        msg, frames = self.shell.frames("execute_request", {"code": "replayed;", "silent": False})
        self.shell.socket.send_multipart(frames)
        self.shell.socket.send_multipart(frames)
        first = self.shell.recv()
        self.assertEqual(first["parent_header"]["msg_id"], msg["header"]["msg_id"])
        replies = [r for r in self.shell.replies(3) if r["msg_type"] == "execute_reply"]
        self.assertEqual(replies, [], "the replayed request was run again")
        self.assertAnswers()

    def test_bad_history_requests_get_an_error_reply(self):
        self.kc.execute_interactive("x" * 59 + ";", timeout=TIMEOUT, output_hook=lambda msg: None)
        cases = [{"hist_access_type": "tail", "n": -1},
                 {"hist_access_type": "search", "pattern": "*", "n": -1},
                 {"hist_access_type": "tail", "n": "ten"},
                 {"hist_access_type": "range", "start": {}},
                 {"hist_access_type": "sideways"}]
        for content in cases:
            with self.subTest(content=content):
                reply = self.shell.request("history_request", dict(content, output=False, raw=True))
                self.assertIsNotNone(reply, "no reply")
                self.assertEqual(reply["content"]["status"], "error")
        self.assertAnswers()

    def test_history_search_does_not_backtrack(self):
        """Twelve stars over a 60-character input that does not match: a backtracking matcher takes
        minutes; one that does not answers at once, well within the guard timeout."""
        self.kc.execute_interactive("x" * 59 + ";", timeout=TIMEOUT, output_hook=lambda msg: None)
        cases = [("x*" * 12 + "y", []), ("x*" * 12 + ";", ["x" * 59 + ";"]), ("*x?;", ["x" * 59 + ";"]),
                 ("x*x?x", [])]
        for pattern, expected in cases:
            with self.subTest(pattern=pattern):
                reply = self.shell.request("history_request", {"hist_access_type": "search", "pattern": pattern,
                                                               "output": False, "raw": True, "unique": True})
                self.assertIsNotNone(reply, "no reply")
                self.assertEqual([row[2] for row in reply["content"]["history"]
                                  if row[2].startswith("x" * 59)], expected)

    def test_a_request_on_control_does_not_wait_for_a_running_cell(self):
        cell = self.shell.send("execute_request", {"code": ENDLESS, "silent": False})
        self.await_start(cell)
        try:
            complete = self.control.send("complete_request", {"code": "pri", "cursor_pos": 3})
            inspect = self.control.send("inspect_request", {"code": "print", "cursor_pos": 5})
            interrupt = self.control.send("interrupt_request", {})
            got = {}
            while len(got) < 3 and (reply := self.control.recv(8)) is not None:
                got[reply["parent_header"]["msg_id"]] = reply["content"]["status"]
            self.assertEqual(got, {complete: "error", inspect: "error", interrupt: "ok"})
            reply = self.shell.recv()
            self.assertEqual(reply["parent_header"]["msg_id"], cell)
            self.assertIn("interrupted", reply["content"]["evalue"])
        finally:
            os.kill(self.km.provisioner.process.pid, signal.SIGINT)
            self.shell.replies(1)
        # Idle, the same request on control is served.
        reply = self.control.request("complete_request", {"code": "pri", "cursor_pos": 3})
        self.assertEqual(reply["content"]["matches"], ["print"])

    def test_an_interrupt_right_behind_its_cell_ends_it(self):
        """From the cell's own client, and from another (a notebook server's kernel manager interrupts
        with a session of its own): the interrupt may overtake the cell on its way."""
        manager = Peer(self.km, Session(key=self.kc.session.key), "control")
        self.addCleanup(manager.close)
        for interrupter in (self.control, manager):
            for n in range(100):
                cell = self.shell.send("execute_request", {"code": ENDLESS, "silent": False})
                time.sleep((n % 5) / 1000)
                interrupter.send("interrupt_request", {})
                reply = self.shell.recv(10)
                if reply is None:
                    os.kill(self.km.provisioner.process.pid, signal.SIGINT)
                    self.shell.recv()
                    self.fail(f"cell {n} ran on after an interrupt {n % 5} ms behind it")
                self.assertEqual(reply["parent_header"]["msg_id"], cell)
                self.assertIn("interrupted", reply["content"]["evalue"])
                interrupter.replies(0)
        # An interrupt that comes while the kernel is idle reaches no cell sent after it: at once from
        # its own client, whose time stamps order its messages, even when the cell overtakes the
        # interrupt; from another, after a moment. (First the grace of the last interrupt above ends:
        # meanwhile it ends any client's cell, which might have been sent before it.)
        time.sleep(0.3)
        for n in range(20):
            self.control.send("interrupt_request", {})
            reply = self.shell.request("execute_request", {"code": "6 * 7;", "silent": False})
            self.assertEqual(reply["content"]["status"], "ok", f"cell {n} sent right behind the interrupt: {reply['content']}")
            self.control.replies(0.05)
        for interrupter, pause in ((self.control, 0), (manager, 0.3)):
            self.assertIsNotNone(interrupter.request("interrupt_request", {}))
            time.sleep(pause)
            reply = self.shell.request("execute_request", {"code": "6 * 7;", "silent": False})
            self.assertEqual(reply["content"]["status"], "ok")


class UnsignedPeerTests(unittest.TestCase):
    """A kernel with a small heap, as a loaded machine would leave it: an unsigned peer that
    announces a frame larger than the heap must not stop it from answering."""

    def setUp(self):
        env = dict(os.environ, JAVA_TOOL_OPTIONS="-Xmx160m")
        self.km, self.kc = start_new_kernel(kernel_name="vexel", startup_timeout=60, env=env)

    def tearDown(self):
        self.kc.stop_channels()
        self.km.shutdown_kernel(now=True)

    def test_a_huge_announced_frame_is_refused_before_it_is_read(self):
        info = self.km.get_connection_info()
        peers = []
        for channel in ("shell", "control", "stdin", "hb"):
            s = socket.create_connection((info["ip"], info[channel + "_port"]), timeout=5)
            # A greeting as a peer of the wire's second revision (a DEALER, no identity), then a
            # frame header that announces 600 MB and never sends them.
            s.sendall(b"\xff" + b"\0" * 8 + b"\x7f" + b"\x01\x05" + b"\0\0")
            s.sendall(b"\x02" + struct.pack(">Q", 600_000_000) + b"x" * 64)
            peers.append(s)
        time.sleep(1)
        try:
            reply = self.kc.kernel_info(reply=True, timeout=TIMEOUT)
            self.assertEqual(reply["content"]["status"], "ok")
            self.assertEqual(self.kc.execute_interactive("6 * 7;", timeout=TIMEOUT)["content"]["status"], "ok")
        finally:
            for s in peers:
                s.close()


if __name__ == "__main__":
    unittest.main()
