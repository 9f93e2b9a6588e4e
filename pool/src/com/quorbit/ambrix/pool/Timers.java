package com.quorbit.ambrix.pool;

import java.time.Duration;
import java.util.concurrent.Executors;
import java.util.concurrent.RejectedExecutionException;
import java.util.concurrent.ScheduledExecutorService;
import java.util.concurrent.TimeUnit;

/**
 * The pool's clock, on one daemon thread: each task's time limit (an
 * interrupt when it passes, and a kill when the grace time passes after
 * it), and work done at a fixed rate, such as sampling the workers' memory.
 * Heartbeats keep a thread of their own ({@link Heartbeats}).
 */
final class Timers implements AutoCloseable {
    private final Duration grace;
    private final ScheduledExecutorService timer = Executors.newSingleThreadScheduledExecutor(r -> {
        Thread t = new Thread(r, "ambrix-pool-timer");
        t.setDaemon(true);
        return t;
    });

    Timers(Duration grace) {
        this.grace = grace;
    }

    /**
     * Watches a task just sent to a worker: when its limit passes, the
     * worker is asked to interrupt it; when the grace time passes after that
     * and it still runs, the worker is killed.
     */
    void limit(Worker w, Task task) {
        if (task.limit == null) {
            return;
        }
        schedule(task.limit, () -> {
            if (w.limitPassed(task)) {
                schedule(grace, () -> {
                    if (w.runs(task)) {
                        w.killForTask("killed after the time limit of " + Task.seconds(task.limit) + " passed and a grace of "
                                + Task.seconds(grace));
                    }
                });
            }
        });
    }

    /** Runs the action every period, until the pool closes. */
    void every(Duration period, Runnable action) {
        long nanos = period.toNanos();
        try {
            timer.scheduleAtFixedRate(action, nanos, nanos, TimeUnit.NANOSECONDS);
        } catch (RejectedExecutionException e) {
            // closed
        }
    }

    private void schedule(Duration delay, Runnable action) {
        try {
            timer.schedule(action, delay.toNanos(), TimeUnit.NANOSECONDS);
        } catch (RejectedExecutionException e) {
            // closed
        }
    }

    @Override
    public void close() {
        timer.shutdownNow();
    }
}
