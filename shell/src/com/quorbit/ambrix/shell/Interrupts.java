package com.quorbit.ambrix.shell;

import com.quorbit.ambrix.Engine;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * What Ctrl-C does, by what the shell is doing at the moment.
 *
 * <ul>
 * <li>Waiting at the prompt, or for a line for the kernel's {@code readline()}:
 * the waiting read is woken with {@link LineInput#INTERRUPT} (at a terminal,
 * JLine does this itself).
 * <li>Running a statement: the engine is asked to interrupt
 * ({@link Engine#interrupt()}), and the kernel stops with "computation
 * interrupted" at its next interrupt query. A flag is set as well, which
 * help output reads. If the kernel does not ask (a long computation without
 * a loop), the third Ctrl-C in a row ends the program. With the kernel in
 * a worker process ({@code --isolated}), a second Ctrl-C while the statement
 * still runs kills and replaces the kernel instead. When the statement has
 * not stopped a moment after the first Ctrl-C, a hint on standard error
 * says what more Ctrl-C will do.
 * </ul>
 */
final class Interrupts {
    enum Mode { PROMPT, RUNNING, READING }

    private static final int PRESSES_TO_EXIT = 3;
    /** How long after the first Ctrl-C a statement that still runs gets the hint. */
    private static final long HINT_DELAY_MILLIS = 500;

    private volatile LineInput input;
    /** Asks the running statement to end: the engine's interrupt, or the isolated session's. */
    private volatile Runnable interrupter;
    /** With an isolated kernel: kills and replaces it. */
    private volatile Runnable killer;
    /** Whether a Ctrl-C came during this statement. */
    private volatile boolean pressed;
    /** Counts the statements run, so that a late hint knows its own statement ended. */
    private final AtomicInteger statements = new AtomicInteger();
    private final AtomicBoolean requested = new AtomicBoolean();
    private final AtomicInteger unanswered = new AtomicInteger();
    private volatile Mode mode = Mode.PROMPT;
    private volatile boolean any;
    /** A Ctrl-C during a kernel call, whose "^C" the terminal echoed. */
    private volatile boolean echoed;

    /** The input whose reads Ctrl-C wakes. */
    void setInput(LineInput input) {
        this.input = input;
    }

    /** The engine whose statements Ctrl-C stops. */
    void setEngine(Engine engine) {
        this.interrupter = engine::interrupt;
    }

    /**
     * A kernel in a worker process: Ctrl-C interrupts it, and a second
     * Ctrl-C while the statement still runs kills and replaces it.
     */
    void setIsolated(Runnable interrupt, Runnable kill) {
        this.interrupter = interrupt;
        this.killer = kill;
    }

    /** Installs the handler of SIGINT; false when the JVM does not allow it. */
    boolean install() {
        try {
            sun.misc.Signal.handle(new sun.misc.Signal("INT"), signal -> signalled());
            return true;
        } catch (IllegalArgumentException e) {
            return false;
        }
    }

    /** Called on every SIGINT (on the JVM's signal thread). */
    void signalled() {
        any = true;
        // Ctrl-C may come before the shell has set its input.
        LineInput in = input;
        switch (mode) {
            case PROMPT -> {
                if (in != null) {
                    in.interrupt();
                }
            }
            case READING -> {
                echoed = true;
                if (in != null) {
                    in.interrupt();
                }
            }
            case RUNNING -> {
                echoed = true;
                requested.set(true);
                Runnable kill = killer;
                if (kill != null && pressed) {
                    pressed = false;
                    kill.run();
                    return;
                }
                if (!pressed) {
                    pressed = true;
                    hintLater(kill == null ? "vexel: the kernel has not stopped yet; Ctrl-C twice more ends the shell"
                            : "vexel: the kernel has not stopped yet; Ctrl-C again kills it (definitions are lost)");
                }
                Runnable interrupt = interrupter;
                try {
                    if (interrupt != null) {
                        interrupt.run();
                    }
                } catch (RuntimeException e) {
                    // stopped already: nothing runs
                }
                if (kill == null && unanswered.incrementAndGet() >= PRESSES_TO_EXIT) {
                    System.out.flush();
                    System.err.println();
                    System.err.println("vexel: the kernel does not respond to interrupts; exiting");
                    Runtime.getRuntime().halt(130);
                }
            }
        }
    }

    /**
     * Prints the hint on standard error, on a line of its own, if the
     * statement of this moment still runs a moment from now.
     */
    private void hintLater(String hint) {
        int statement = statements.get();
        Thread t = new Thread(() -> {
            try {
                Thread.sleep(HINT_DELAY_MILLIS);
            } catch (InterruptedException e) {
                return;
            }
            if (mode == Mode.RUNNING && statements.get() == statement && pressed) {
                System.out.flush();
                if (echoed && System.console() != null) {
                    echoed = false;
                    System.err.println(); // after the "^C" that the terminal echoed
                }
                System.err.println(hint);
            }
        }, "vexel-interrupt-hint");
        t.setDaemon(true);
        t.start();
    }

    /** The answer to the kernel's interrupt query; clears the request. */
    boolean poll() {
        unanswered.set(0);
        return requested.getAndSet(false);
    }

    /** Enters a mode; entering {@link Mode#RUNNING} forgets old requests. */
    void enter(Mode m) {
        if (m == Mode.RUNNING && mode == Mode.PROMPT) {
            statements.incrementAndGet();
            echoed = false;
            pressed = false;
            requested.set(false);
            unanswered.set(0);
        }
        mode = m;
    }

    Mode mode() {
        return mode;
    }

    /** True if a Ctrl-C arrived during a kernel call since the last call. */
    boolean takeEchoed() {
        boolean e = echoed;
        echoed = false;
        return e;
    }

    /** True if any Ctrl-C arrived since the last call. */
    boolean takeAny() {
        boolean a = any;
        any = false;
        return a;
    }
}
