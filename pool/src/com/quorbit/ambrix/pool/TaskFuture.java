package com.quorbit.ambrix.pool;

import java.lang.invoke.MethodHandles;
import java.lang.invoke.VarHandle;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.concurrent.locks.LockSupport;

/**
 * A task's future. A thread that waits for it reads the worker's answer
 * itself when no other thread is reading that worker's channel, so the
 * answer wakes the waiting thread directly instead of a reader thread that
 * would then wake it. Otherwise it behaves as any {@link CompletableFuture}.
 */
final class TaskFuture<T> extends CompletableFuture<T> {
    private static final VarHandle COUNTERS;

    static {
        try {
            COUNTERS = MethodHandles.lookup().findVarHandle(TaskFuture.class, "counters", PoolCounters.class);
        } catch (ReflectiveOperationException e) {
            throw new ExceptionInInitializerError(e);
        }
    }

    private final Task task;
    /**
     * Where the task's outcome is counted, or null for a task not counted;
     * the completion that takes it counts, so a task counts once.
     */
    private volatile PoolCounters counters;

    TaskFuture(Task task) {
        this.task = task;
    }

    /** The task's outcome is to be counted there; set before the task is sent or put in line. */
    void countIn(PoolCounters c) {
        counters = c;
    }

    /**
     * Counts the outcome of a completion about to happen, before it
     * happens, so that a caller who sees the future done sees it counted.
     * Of two completions at the same moment (an answer and the worker's
     * loss), the one counted may be the one that loses; the task still
     * counts once.
     */
    private void count(boolean answered) {
        if (isDone()) {
            return;
        }
        PoolCounters c = (PoolCounters) COUNTERS.getAndSet(this, (PoolCounters) null);
        if (c != null) {
            if (answered) {
                c.completed();
            } else {
                c.failed();
            }
        }
    }

    @Override
    public T join() {
        awaitAnswer(Wait.untimed(false));
        return super.join();
    }

    @Override
    public T get() throws InterruptedException, ExecutionException {
        if (!awaitAnswer(Wait.untimed(true))) {
            throw new InterruptedException();
        }
        return super.get();
    }

    @Override
    public T get(long timeout, TimeUnit unit) throws InterruptedException, ExecutionException, TimeoutException {
        long deadline = System.nanoTime() + unit.toNanos(timeout);
        if (!awaitAnswer(Wait.until(deadline))) {
            throw new InterruptedException();
        }
        return super.get(Math.max(0, deadline - System.nanoTime()), TimeUnit.NANOSECONDS);
    }

    /**
     * Reads the answer on this thread once the task runs on a worker, if no
     * other thread reads there; otherwise the completion comes as usual.
     *
     * @return false when an interrupt ended the wait
     */
    private boolean awaitAnswer(Wait wait) {
        try {
            while (!isDone()) {
                Worker w = task.worker;
                if (w == null) {
                    // In line for a worker: the worker that takes it unparks this thread.
                    task.waiting = Thread.currentThread();
                    try {
                        while ((w = task.worker) == null && !isDone()) {
                            long nanos = wait.next(TimeUnit.MILLISECONDS.toNanos(50));
                            if (nanos == 0) {
                                return true;
                            }
                            if (wait.interrupted()) {
                                return false;
                            }
                            LockSupport.parkNanos(this, nanos);
                        }
                    } finally {
                        task.waiting = null;
                    }
                }
                if (isDone()) {
                    return true;
                }
                if (!w.awaitAnswer(task, wait)) {
                    return false;
                }
                if (task.worker == w || wait.next(1) == 0) {
                    // Answered, or read by another thread, or the time is up; a task lost with its
                    // worker and sent again is waited for on its new worker.
                    return true;
                }
            }
            return true;
        } finally {
            wait.end();
        }
    }

    // Any completion, also one a caller makes, ends a wait that reads the channel.

    @Override
    public boolean complete(T value) {
        count(true);
        return woke(super.complete(value));
    }

    @Override
    public boolean completeExceptionally(Throwable e) {
        count(false);
        return woke(super.completeExceptionally(e));
    }

    @Override
    public boolean cancel(boolean mayInterruptIfRunning) {
        count(false);
        return woke(super.cancel(mayInterruptIfRunning));
    }

    @Override
    public void obtrudeValue(T value) {
        super.obtrudeValue(value);
        woke(true);
    }

    @Override
    public void obtrudeException(Throwable e) {
        super.obtrudeException(e);
        woke(true);
    }

    private boolean woke(boolean completed) {
        if (completed) {
            Worker w = task.worker;
            if (w != null) {
                w.wakeWaiter();
            }
            Thread t = task.waiting;
            if (t != null) {
                LockSupport.unpark(t);
            }
        }
        return completed;
    }
}
