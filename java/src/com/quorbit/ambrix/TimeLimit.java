package com.quorbit.ambrix;

import com.quorbit.externalcall.VexelException;
import java.math.BigDecimal;
import java.time.Duration;
import java.util.concurrent.ScheduledFuture;
import java.util.concurrent.ScheduledThreadPoolExecutor;
import java.util.concurrent.TimeUnit;

/**
 * The time limit of one {@link Engine#evaluate(String, Duration)}: when it
 * passes, a timer thread asks the engine to interrupt, and asks again every
 * few milliseconds until the evaluation ends, since a request made before
 * the kernel call has begun is dropped. The evaluating thread holds the
 * kernel lock meanwhile, so no other call can be hit, and {@link #end()}
 * returns only once no request can follow.
 */
final class TimeLimit implements Runnable {
    private static final long REPEAT_MILLIS = 10;

    /** One timer thread for every limit of the process; it does not keep the JVM alive. */
    private static final class Timer {
        static final ScheduledThreadPoolExecutor TIMER = new ScheduledThreadPoolExecutor(1, task -> {
            Thread t = new Thread(task, "ambrix-time-limit");
            t.setDaemon(true);
            return t;
        });

        static {
            TIMER.setRemoveOnCancelPolicy(true);
        }
    }

    private final Engine engine;
    private final Duration limit;
    private ScheduledFuture<?> task;
    private boolean passed;
    private boolean ended;

    private TimeLimit(Engine engine, Duration limit) {
        this.engine = engine;
        this.limit = limit;
    }

    /** Starts the clock; a zero limit has passed at once. */
    static TimeLimit start(Engine engine, Duration limit) {
        TimeLimit t = new TimeLimit(engine, limit);
        if (limit.isZero()) {
            t.passed = true;
        } else {
            long nanos;
            try {
                nanos = limit.toNanos();
            } catch (ArithmeticException e) {
                nanos = Long.MAX_VALUE;
            }
            synchronized (t) {
                t.task = Timer.TIMER.scheduleAtFixedRate(t, nanos,
                        TimeUnit.MILLISECONDS.toNanos(REPEAT_MILLIS), TimeUnit.NANOSECONDS);
            }
        }
        return t;
    }

    @Override
    public synchronized void run() {
        if (ended) {
            return;
        }
        passed = true;
        try {
            engine.interrupt();
        } catch (RuntimeException e) {
            // The engine was stopped: there is nothing left to interrupt.
        }
    }

    synchronized boolean passed() {
        return passed;
    }

    /** Stops the clock; true when the limit passed. No request is made after it returns. */
    synchronized boolean end() {
        ended = true;
        if (task != null) {
            task.cancel(false);
        }
        return passed;
    }

    /** The exception of a passed limit, with the evaluation's own as its cause. */
    VexelException error(RuntimeException cause) {
        BigDecimal seconds = BigDecimal.valueOf(limit.getSeconds()).add(BigDecimal.valueOf(limit.getNano(), 9));
        VexelException e = new VexelException("time limit of " + seconds.stripTrailingZeros().toPlainString()
                + " s passed");
        if (cause != null) {
            e.initCause(cause);
        }
        return e;
    }
}
