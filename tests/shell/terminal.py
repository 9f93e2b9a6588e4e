"""The shell at a terminal (a pseudo-terminal that is the shell's controlling
terminal, so that Ctrl-C is the terminal's own signal and echo):
- Tab completes the kernel's built-ins and the names assigned so far, never
  the test hooks unless --test-hooks is on;
- the banner shows, the same with the kernel in process and isolated, and
  -q leaves it out;
- after a first Ctrl-C that does not stop the statement, a hint says what a
  second does; the message after the second starts on a line of its own,
  not behind the "^C^C" the terminal echoed.
Usage: SHELL_PRELOAD=... terminal.py LAUNCHER"""
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
    """Types each group of keys after the shell's output settles (or, for
    ("wait", text), waits until the text shows); the whole screen text."""
    master, slave = os.openpty()
    # A terminal of a real size: without one, the line editor cannot lay out its lines.
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 30, 100, 0, 0))
    env = dict(os.environ, TERM="xterm")
    # The sanitizer runtime, when the build has one, for the shell's JVM alone.
    env["LD_PRELOAD"] = os.environ.get("SHELL_PRELOAD", "")

    def controlling_terminal():
        os.setsid()
        fcntl.ioctl(0, termios.TIOCSCTTY, 0)

    shell = subprocess.Popen([launcher, *args], stdin=slave, stdout=slave, stderr=slave, env=env,
                             close_fds=True, preexec_fn=controlling_terminal)
    os.close(slave)
    seen = b""

    def read_until(quiet=0.4, limit=30.0, text=None):
        nonlocal seen
        end = time.time() + limit
        last = time.time()
        while time.time() < end and (text is not None or time.time() - last < quiet):
            if text is not None and text.encode() in seen:
                return
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

    # Keys typed before the line editor is up are lost (it flushes the input as it starts): wait for the prompt.
    read_until(text="> ")
    for group in keys:
        if isinstance(group, tuple) and group[0] == "prompts":
            # Waits until the shell has shown that many prompts: the statements before have run.
            end = time.time() + 30
            while seen.count(b"> ") < group[1] and time.time() < end:
                read_until(quiet=0.1, limit=0.2)
        elif isinstance(group, tuple):
            read_until(text=group[1])
            if group[1].encode() not in seen:
                shell.kill()
                sys.exit("FAILED: no %r in:\n%s" % (group[1], seen.decode("latin-1")))
        else:
            os.write(master, group.encode())
            read_until()
    os.write(master, b"quit\r")
    read_until(quiet=30.0)  # to the end of the output: the shell exits
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
# Each statement is waited for before the next keys, however slow a loaded machine makes it.
screen = session(launcher, ["-q"], ["myvalue := 3:\r", ("prompts", 2), "print(myv\t", ");\r", ("wait", "3\r\n"),
                                    "fai\t", ";\r", ("wait", "fai\r\n"), "pri\t", "(kernelo\t",
                                    "(version));\r"])
expect(screen, "print(myvalue);")
expect(screen, "\n3\n")
expect(screen, "failalloc", present=False)
expect(screen, "\nfai\n")
expect(screen, "print(kernelopts(version));")
screen = session(launcher, ["-q", "--test-hooks"], ["fai\t", ";\r"])
expect(screen, "\nfailalloc\n")

# The banner: the same in both modes, and none with -q.
banners = []
for mode in [[], ["--isolated"]]:
    screen = session(launcher, mode, [])
    first = screen.lstrip("\n").split("\n")[:2]
    expect(first[0], "Vexel stand-in kernel 1.0, in the Vexel shell of ambrix ")
    expect(first[1], "? lists the help topics")
    banners.append(first)
if banners[0] != banners[1]:
    sys.exit("FAILED: the banners differ: %r" % banners)
expect(session(launcher, ["-q"], []), "in the Vexel shell", present=False)

# Ctrl-C on a kernel that does not listen: the hint, then a second Ctrl-C
# kills it; each message starts a line of its own. Not with the sanitizer
# runtime preloaded: there the line editor's stty, run while the isolated
# kernel spins, fails (the shell on a normal build has no such preload).
if os.environ.get("SHELL_PRELOAD"):
    print("ok: the shell at a terminal (Ctrl-C on an isolated kernel left to the normal build)")
    sys.exit(0)
screen = session(launcher, ["-q", "--isolated", "--test-hooks"],
                 ["spin();\r", "\x03", ("wait", "Ctrl-C again kills it"), "\x03", ("wait", "a new kernel was started"),
                  "6 * 7;\r", ("wait", "42\r\n")])
expect(screen, "^C\nvexel: the kernel has not stopped yet; Ctrl-C again kills it (definitions are lost)\n")
expect(screen, "^C\nkernel process ended: killed on request; a new kernel was started")
expect(screen, "\n42\n")
print("ok: the shell at a terminal")
