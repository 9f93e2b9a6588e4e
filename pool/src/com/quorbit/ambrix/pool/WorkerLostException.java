package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;

/**
 * A worker's kernel process ended while it served a task or a session: a
 * crash, a kill after a limit, or the pool's close. The message is "kernel
 * process ended: " and the reason, followed by the last lines the process
 * wrote to its standard error, if any.
 */
public class WorkerLostException extends VexelException {
    private static final long serialVersionUID = 1;

    /** Why the process ended. */
    private final String reason;
    /** The last lines the process wrote to its standard error. */
    private final java.util.List<String> lastLines;

    WorkerLostException(String reason, java.util.List<String> lastLines) {
        super(message(reason, lastLines));
        this.reason = reason;
        this.lastLines = java.util.List.copyOf(lastLines);
    }

    private static String message(String reason, java.util.List<String> lastLines) {
        String m = "kernel process ended: " + reason;
        return lastLines.isEmpty() ? m : m + "\n" + String.join("\n", lastLines);
    }

    /**
     * Why the process ended.
     *
     * @return the reason, such as "signal 11 (SIGSEGV)" or "pool closed"
     */
    public String reason() {
        return reason;
    }

    /**
     * The last lines the process wrote to its standard error.
     *
     * @return the lines, none when it wrote nothing
     */
    public java.util.List<String> lastLines() {
        return lastLines;
    }
}
