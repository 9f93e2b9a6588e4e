package com.quorbit.ambrix.pool;

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
    private final Task task;

    TaskFuture(Task task) {
        this.task = task;
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
        return woke(super.complete(value));
    }

    @Override
    public boolean completeExceptionally(Throwable e) {
        return woke(super.completeExceptionally(e));
    }

    @Override
    public boolean cancel(boolean mayInterruptIfRunning) {
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
