"""Tab completion in the shell at a terminal (a pseudo-terminal): the kernel's
built-ins and the names assigned so far, never the test hooks unless
--test-hooks is on.
Usage: SHELL_PRELOAD=... complete.py LAUNCHER"""
import fcntl
import os
import re
import select
import struct
import subprocess
import sys
import termios
import time


def session(launcher, args, keys):
    """Types the keys, each group after the shell's output settles; the whole screen text."""
    master, slave = os.openpty()
    # A terminal of a real size: without one, the line editor cannot lay out its lines.
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 30, 100, 0, 0))
    env = dict(os.environ, TERM="xterm")
    # The sanitizer runtime, when the build has one, for the shell's JVM alone.
    env["LD_PRELOAD"] = os.environ.get("SHELL_PRELOAD", "")
    shell = subprocess.Popen([launcher, "-q", *args], stdin=slave, stdout=slave, stderr=slave, env=env,
                             close_fds=True, start_new_session=True)
    os.close(slave)
    seen = b""

    def read_until_quiet(quiet=0.4, limit=30.0):
        nonlocal seen
        end = time.time() + limit
        last = time.time()
        while time.time() < end and time.time() - last < quiet:
            ready, _, _ = select.select([master], [], [], 0.05)
            if ready:
                try:
                    chunk = os.read(master, 4096)
                except OSError:
                    return
                if not chunk:
                    return
                seen += chunk
                last = time.time()

    read_until_quiet(quiet=1.0)
    for group in keys:
        os.write(master, group.encode())
        read_until_quiet()
    os.write(master, b"quit\r")
    try:
        shell.wait(timeout=30)
    finally:
        if shell.poll() is None:
            shell.kill()
    os.close(master)
    # The screen's lines, without the terminal's control sequences.
    text = re.sub(r"\x1b(\[[0-9;?]*[A-Za-z]|[=>])", "", seen.decode("latin-1"))
    return text.replace("\r\n", "\n").replace("\r", "")


def expect(screen, text, present=True):
    if (text in screen) != present:
        sys.exit("FAILED: %r %s in:\n%s" % (text, "missing" if present else "present", screen))


launcher = sys.argv[1]
screen = session(launcher, [], ["myvalue := 3:\r", "print(myv\t", ");\r", "fai\t", ";\r", "pri\t", "(kernelo\t", "(version));\r"])
expect(screen, "print(myvalue);")
expect(screen, "\n3\n")
expect(screen, "failalloc", present=False)
expect(screen, "\nfai\n")
expect(screen, "print(kernelopts(version));")
screen = session(launcher, ["--test-hooks"], ["fai\t", ";\r"])
expect(screen, "\nfailalloc\n")
print("ok: completion")
