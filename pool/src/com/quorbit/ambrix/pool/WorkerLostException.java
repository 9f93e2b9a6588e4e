package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;

/**
 * A worker's kernel process ended while it served a task or a session: a
 * crash, a kill after a limit, or the pool's close. The message is "kernel
 * process ended: " and the reason; for a task that ran more than once
 * (see {@link EnginePool.Builder#retries}), each run's worker and the
 * reason it was lost; then the last lines the process wrote to its standard
 * error, if any.
 */
public class WorkerLostException extends VexelException {
    private static final long serialVersionUID = 1;

    /** Why the process ended. */
    private final String reason;
    /** The last lines the process wrote to its standard error. */
    private final java.util.List<String> lastLines;
    /** Each run's worker and why it was lost, oldest first; one for a task that ran once. */
    private final java.util.List<String> runs;

    WorkerLostException(String reason, java.util.List<String> lastLines) {
        this(reason, lastLines, java.util.List.of());
    }

    WorkerLostException(String reason, java.util.List<String> lastLines, java.util.List<String> runs) {
        super(message(reason, lastLines, runs));
        this.reason = reason;
        this.lastLines = java.util.List.copyOf(lastLines);
        this.runs = java.util.List.copyOf(runs);
    }

    private static String message(String reason, java.util.List<String> lastLines, java.util.List<String> runs) {
        StringBuilder m = new StringBuilder("kernel process ended: ").append(reason);
        if (runs.size() > 1) {
            m.append("; the task ran ").append(runs.size()).append(" times, and each worker was lost");
            for (int i = 0; i < runs.size(); i++) {
                m.append(i == 0 ? ": " : "; ").append("run ").append(i + 1).append(' ').append(runs.get(i));
            }
        }
        for (String line : lastLines) {
            m.append('\n').append(line);
        }
        return m.toString();
    }

    /**
     * Each run of the task and why its worker was lost, oldest first, as
     * "on c1 (job 12): the connection to the worker on c1 was lost": more
     * than one when the task ran again after a loss.
     *
     * @return the runs; empty when the failure belongs to no task's run
     */
    public java.util.List<String> runs() {
        return runs;
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
