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
 * a worker process ({@code --isolated}), the second Ctrl-C within the
 * grace time kills and replaces the kernel instead.
 * </ul>
 */
final class Interrupts {
    enum Mode { PROMPT, RUNNING, READING }

    private static final int PRESSES_TO_EXIT = 3;

    private volatile LineInput input;
    /** Asks the running statement to end: the engine's interrupt, or the isolated session's. */
    private volatile Runnable interrupter;
    /** With an isolated kernel: kills and replaces it. */
    private volatile Runnable killer;
    private volatile long graceNanos;
    /** When the last Ctrl-C during this statement came; 0 for none. */
    private volatile long lastPress;
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
     * Ctrl-C within the grace time kills and replaces it.
     */
    void setIsolated(Runnable interrupt, Runnable kill, java.time.Duration grace) {
        this.interrupter = interrupt;
        this.killer = kill;
        this.graceNanos = grace.toNanos();
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
                long now = System.nanoTime();
                Runnable kill = killer;
                if (kill != null && lastPress != 0 && now - lastPress < graceNanos) {
                    lastPress = 0;
                    kill.run();
                    return;
                }
                lastPress = now;
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

    /** The answer to the kernel's interrupt query; clears the request. */
    boolean poll() {
        unanswered.set(0);
        return requested.getAndSet(false);
    }

    /** Enters a mode; entering {@link Mode#RUNNING} forgets old requests. */
    void enter(Mode m) {
        if (m == Mode.RUNNING && mode == Mode.PROMPT) {
            echoed = false;
            lastPress = 0;
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
