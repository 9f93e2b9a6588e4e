package com.quorbit.ambrix.pool;

import com.quorbit.ambrix.KernelErrorException;
import com.quorbit.externalcall.VexelException;
import java.math.BigDecimal;
import java.time.Duration;

/** One request to a worker: its frame, its time limit, and the future it completes. */
final class Task {
    final long id;
    final byte kind;
    final Wire.Writer frame;
    final Duration limit;          // null: none
    /** Whether the worker restarts its kernel after this task. */
    final boolean resetAfter;
    /**
     * Whether the worker goes back to the pool after this task: true for
     * submit, call and a reset, false for a session's tasks and a start.
     * Decided by the task, not by the worker's state when it ends, which a
     * session's close on another thread may have changed.
     */
    final boolean pooled;
    /** How many more runs the task gets when its worker is lost through no fault of its own. */
    final int retries;
    final TaskFuture<Object> future = new TaskFuture<>(this);
    /** Each lost run's worker and reason, oldest first. Guarded by itself. */
    final java.util.List<String> lostRuns = new java.util.ArrayList<>();
    /** The worker the task was sent to, once it was. */
    volatile Worker worker;
    /** A caller waiting for the task to be sent, so that it reads the answer itself; or null. */
    volatile Thread waiting;
    /** Set once the limit passed and the worker was asked to interrupt. */
    volatile boolean limitPassed;

    /** A task whose frame holds its header; the payload is added to {@link #frame}. */
    Task(long id, byte kind, Duration limit, boolean resetAfter, boolean pooled, int retries) {
        this.id = id;
        this.retries = retries;
        this.kind = kind;
        this.frame = new Wire.Writer(kind, id);
        this.limit = limit;
        this.resetAfter = resetAfter;
        this.pooled = pooled;
    }

    /**
     * Decodes the worker's answer to this task, without completing it yet.
     *
     * @return what completes the task with the answer
     * @throws Wire.WireException for an answer that does not decode, or of a kind no task takes
     */
    Runnable answer(Wire.Frame reply) throws Wire.WireException {
        Wire.Reader values = reply.values();
        switch (reply.kind()) {
            case Wire.RESULT -> {
                String text = values.string();
                Object value = values.value();
                java.util.List<String> output = values.strings();
                Duration elapsed = Duration.ofNanos(values.number());
                java.util.List<String> plots = values.strings();
                values.end();
                Object outcome = kind == Wire.CALL ? value : new Result(text, value, output, elapsed, plots, runs());
                return () -> future.complete(outcome);
            }
            case Wire.ERROR -> {
                String message = values.string();
                java.util.List<String> output = values.strings();
                long offset = values.number();
                if (offset < -1 || offset > Integer.MAX_VALUE) {
                    throw new Wire.WireException("malformed frame: an error at offset " + offset);
                }
                values.end();
                VexelException failure = new KernelErrorException(message, (int) offset, output);
                if (limitPassed) {
                    VexelException e = new VexelException("time limit of " + seconds(limit) + " passed");
                    e.initCause(failure);
                    failure = e;
                }
                VexelException outcome = failure;
                return () -> future.completeExceptionally(outcome);
            }
            case Wire.READY, Wire.DONE -> {
                values.end();
                return () -> future.complete(null);
            }
            default -> throw new Wire.WireException("malformed frame: an answer of kind " + reply.kind());
        }
    }

    /** Whether a task of this kind is a caller's statement or call, not the pool's own reset or start. */
    static boolean callers(byte kind) {
        return kind == Wire.EVAL || kind == Wire.CALL;
    }

    /** The runs the task has taken so far, the one now included. */
    int runs() {
        synchronized (lostRuns) {
            return lostRuns.size() + 1;
        }
    }

    /**
     * Its worker was lost while it ran: the run is noted, and the task is
     * made ready to run again when {@code again} allows it, runs are left
     * and no one completed it meanwhile.
     *
     * @return null when it is to run again; else the failure to complete it with, naming every run
     */
    WorkerLostException lostRun(Worker w, WorkerLostException e, boolean again) {
        java.util.List<String> runs;
        synchronized (lostRuns) {
            lostRuns.add(w.where() + ": " + e.reason());
            if (again && lostRuns.size() <= retries && !future.isDone()) {
                worker = null;
                return null;
            }
            runs = java.util.List.copyOf(lostRuns);
        }
        return new WorkerLostException(e.reason(), e.lastLines(), runs);
    }

    /** A duration as "0.2 s". */
    static String seconds(Duration d) {
        BigDecimal s = BigDecimal.valueOf(d.getSeconds()).add(BigDecimal.valueOf(d.getNano(), 9));
        return s.stripTrailingZeros().toPlainString() + " s";
    }
}
