package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.time.Duration;
import java.util.Arrays;
import java.util.concurrent.atomic.AtomicLong;

/** Makes a pool's tasks, each with an id of its own; a task's frame holds its request. */
final class Tasks {
    private final AtomicLong ids = new AtomicLong();
    private final PoolSettings settings;
    /** Where the outcomes of statements and calls are counted. */
    private final PoolCounters counters;

    Tasks(PoolSettings settings, PoolCounters counters) {
        this.settings = settings;
        this.counters = counters;
    }

    /** A new task of that kind; its frame holds the header, and the caller adds the payload. */
    private Task task(byte kind, Duration limit, boolean resetAfter, boolean pooled) {
        // A pooled statement or call may run again after a loss; a session's never does.
        int retries = pooled && Task.callers(kind) ? settings.retries() : 0;
        return new Task(ids.incrementAndGet(), kind, limit, resetAfter, pooled, retries);
    }

    /** A statement's task: a pooled one resets its worker after it (as settings say) and frees it. */
    Task eval(String statement, Duration limit, boolean pooled) {
        if (statement == null) {
            throw new VexelException("Statement is NULL");
        }
        Task t = task(Wire.EVAL, limit, pooled && settings.resetEveryTask(), pooled);
        t.frame.string(statement);
        t.future.countIn(counters);
        return sized(t, "Statement");
    }

    Task call(String procedure, Object[] args, Duration limit, boolean pooled) {
        if (procedure == null) {
            throw new VexelException("Procedure name is NULL");
        }
        Task t = task(Wire.CALL, limit, pooled && settings.resetEveryTask(), pooled);
        t.frame.string(procedure).value(Arrays.asList(args == null ? new Object[0] : args));
        t.future.countIn(counters);
        return sized(t, "Call");
    }

    /** A session's request for help text. */
    Task help(String topic, int section, int width) {
        if (topic == null) {
            throw new VexelException("Topic is NULL");
        }
        Task t = task(Wire.HELP, null, false, false);
        t.frame.string(topic).number(section).number(width);
        return sized(t, "Topic");
    }

    /**
     * The task, when its worker can take it: a worker's heap must hold the
     * frame and what it decodes to.
     *
     * @throws VexelException naming the limit, for a task too large
     */
    private Task sized(Task t, String what) {
        long limit = settings.taskLimit();
        if (t.frame.size() > limit) {
            throw new VexelException(what + " too large for a worker: " + t.frame.size() + " bytes encoded, at most "
                    + limit + " (an eighth of a worker's heap of " + (settings.workerHeap() >> 20)
                    + " MiB; give workers more with javaOptions(\"-Xmx...\"))");
        }
        return t;
    }

    /** A worker's restart of its kernel, after which it is free again. */
    Task reset() {
        return task(Wire.RESET, null, false, true);
    }

    /** A new worker's start of its kernel, with the pool's arguments and statements. */
    Task init() {
        Task t = task(Wire.INIT, null, false, false);
        t.frame.strings(settings.kernelArguments()).strings(settings.initialize());
        return t;
    }
}
