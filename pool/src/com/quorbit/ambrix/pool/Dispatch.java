package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.lang.System.Logger.Level;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;

/**
 * The hand-off of requests to workers: the line of waiting tasks and
 * session requests, the free workers, and the matching of one to the
 * other. A task goes from here to its worker's link and onto the wire, its
 * time limit to the {@link Timers}; its answer completes its future, and a
 * finished worker comes back here ({@link #finished}) to take the next, or
 * goes when it has served its share of tasks. A task whose worker was lost
 * comes back here ({@link #lost}) to run again or fail.
 */
final class Dispatch {
    private final Timers timers;
    private final Tasks tasks;
    /** The pool's worker slots: while fewer workers are members, one is being started or replaced. */
    private final int slots;
    /** The tasks and sessions after which a worker goes, 0 for no limit. */
    private final int maxTasksPerWorker;

    /** What the pool's size does about the line: told outside this one's lock. */
    interface Sizing {
        /** A request waits in line for a worker. */
        void waits();

        /** A worker has served its share and takes no more: it is to end. */
        void served(Worker w);
    }

    private volatile Sizing sizing;
    /** Where the tasks run again are counted. */
    private final PoolCounters counters;
    private final Object lock = new Object();
    /** Tasks and session requests (a CompletableFuture of the worker) in line. Guarded by lock. */
    private final ArrayDeque<Object> waiting = new ArrayDeque<>();
    /** Workers free for a request. Guarded by lock. */
    private final ArrayDeque<Worker> idle = new ArrayDeque<>();
    /** Every worker admitted and not lost. Guarded by lock. */
    private final Set<Worker> members = new HashSet<>();
    private boolean closed;
    private boolean warnedAboutSessions;

    Dispatch(Timers timers, Tasks tasks, int slots, int maxTasksPerWorker, PoolCounters counters) {
        this.counters = counters;
        this.timers = timers;
        this.tasks = tasks;
        this.slots = slots;
        this.maxTasksPerWorker = maxTasksPerWorker;
    }

    void sizing(Sizing s) {
        sizing = s;
    }

    /** Sends a task to a worker, and watches its time limit; false when the worker has ended. */
    boolean start(Worker w, Task t) {
        if (!w.run(t)) {
            return false;
        }
        timers.limit(w, t);
        return true;
    }

    /**
     * Runs the task on a free worker, or puts it in line: first in line for
     * a task that met a worker as it ended.
     */
    void dispatch(Task t, boolean first) {
        Worker w;
        synchronized (lock) {
            if (closed) {
                t.future.completeExceptionally(closedError());
                return;
            }
            w = idle.poll();
            if (w == null) {
                if (first) {
                    waiting.addFirst(t);
                } else {
                    waiting.add(t);
                }
                warnIfHeldBySessions();
            }
        }
        if (w == null) {
            sizing.waits();
        } else if (!start(w, t)) {
            dispatch(t, true);
        }
    }

    /**
     * A task whose worker was lost while it ran: it runs again, first in
     * line, when the loss was none of its own doing and it has runs left;
     * else it fails, naming each run.
     */
    void lost(Task task, Worker w, WorkerLostException e) {
        WorkerLostException failure = task.lostRun(w, e, !w.endedByTask());
        if (failure != null) {
            task.future.completeExceptionally(failure);
            return;
        }
        counters.retried();
        PoolLog.log(Level.INFO, "task " + task.id + " lost with worker " + w.name() + " (" + e.reason()
                + "); running it again, run " + task.runs() + " of " + (task.retries + 1));
        dispatch(task, true);
    }

    /** The requests in line for a worker. */
    int waitingCount() {
        synchronized (lock) {
            return waiting.size();
        }
    }

    /**
     * Takes a free worker out of the pool, so that no request goes to it.
     *
     * @return false when it is not free now
     */
    boolean takeIdle(Worker w) {
        synchronized (lock) {
            return idle.remove(w);
        }
    }

    /** The free workers, the longest free first. */
    List<Worker> idleWorkers() {
        synchronized (lock) {
            return List.copyOf(idle);
        }
    }

    /**
     * A task that waits while every worker is held by an open session waits
     * until one of them closes: said once per pool, since it is the likely
     * reason for a program that seems to hang. Under lock.
     */
    private void warnIfHeldBySessions() {
        if (warnedAboutSessions || members.size() < slots) {
            return;
        }
        for (Worker w : members) {
            if (w.session == null) {
                return;
            }
        }
        warnedAboutSessions = true;
        PoolLog.log(Level.WARNING, "a task waits in line while every worker (" + members.size()
                + ") is held by an open session; it runs only when a session is closed");
    }

    /** A worker has finished a task (on its reader thread): reset, or free for the next request. */
    void finished(Worker w, Task task) {
        if (task.kind == Wire.RESET && task.future.isCompletedExceptionally()) {
            // Its kernel did not come back as the pool set it up: a new worker takes its place.
            w.kill("the reset failed: " + task.future.handle((v, e) -> String.valueOf(e.getMessage())).join());
            return;
        }
        if (!task.pooled) {
            return;
        }
        if (Task.callers(task.kind) && servedItsShare(w)) {
            return;
        }
        if (task.resetAfter) {
            start(w, tasks.reset());
            return;
        }
        release(w);
    }

    /** Counts a task or session the worker served: true when that was its last, and it is to end. */
    private boolean servedItsShare(Worker w) {
        if (w.served.incrementAndGet() < maxTasksPerWorker || maxTasksPerWorker == 0) {
            return false;
        }
        sizing.served(w);
        return true;
    }

    /**
     * A worker ready for the first time joins the pool, free for requests.
     *
     * @return false when the pool has closed: the worker is not taken
     */
    boolean admit(Worker w) {
        synchronized (lock) {
            if (closed) {
                return false;
            }
            members.add(w);
        }
        release(w);
        return true;
    }

    /** The tasks in line now; session requests are left out. */
    int queuedTasks() {
        synchronized (lock) {
            return (int) waiting.stream().filter(r -> r instanceof Task).count();
        }
    }

    /** A worker ended: it takes no more requests. */
    void forget(Worker w) {
        synchronized (lock) {
            idle.remove(w);
            members.remove(w);
        }
    }

    /** A worker is free: it takes the next waiting request, or waits itself. */
    private void release(Worker w) {
        Task next = null;
        CompletableFuture<Worker> sessionRequest = null;
        synchronized (lock) {
            if (closed) {
                return;
            }
            Object request = waiting.poll();
            if (request == null) {
                w.idleSince = System.nanoTime();
                idle.add(w);
                return;
            }
            if (request instanceof Task t) {
                next = t;
            } else {
                @SuppressWarnings("unchecked")
                CompletableFuture<Worker> f = (CompletableFuture<Worker>) request;
                sessionRequest = f;
            }
        }
        if (next != null) {
            if (!start(w, next)) {
                dispatch(next, true);
            }
        } else if (!sessionRequest.complete(w)) {
            release(w);
        }
    }

    /**
     * Takes a free worker for a session, waiting in line for one.
     *
     * @throws VexelException when the pool is closed, or the wait was interrupted
     */
    Worker takeForSession() {
        CompletableFuture<Worker> request = new CompletableFuture<>();
        Worker w;
        synchronized (lock) {
            if (closed) {
                throw closedError();
            }
            w = idle.poll();
            if (w == null) {
                waiting.add(request);
            }
        }
        if (w == null) {
            sizing.waits();
        }
        try {
            if (w == null) {
                w = request.get();
            }
        } catch (ExecutionException e) {
            throw unwrap(e.getCause(), "");
        } catch (InterruptedException e) {
            request.cancel(false);
            Thread.currentThread().interrupt();
            throw new VexelException("interrupted while waiting for a worker");
        }
        return w;
    }

    /** A session ends: its worker is reset, then free again. */
    void endSession(Worker w) {
        w.session = null;
        if (w.alive() && !servedItsShare(w)) {
            start(w, tasks.reset());
        }
    }

    /** No worker will ever take what waits now: it fails with this. */
    void failWaiting(RuntimeException failure) {
        List<Object> stranded;
        synchronized (lock) {
            stranded = new ArrayList<>(waiting);
            waiting.clear();
        }
        failAll(stranded, failure);
    }

    /** Takes no more requests, and fails those in line with "pool closed". */
    void close() {
        List<Object> queued;
        synchronized (lock) {
            closed = true;
            queued = new ArrayList<>(waiting);
            waiting.clear();
            idle.clear();
        }
        failAll(queued, closedError());
    }

    /** Fails every queued request, tasks and session requests alike. */
    private static void failAll(List<Object> requests, RuntimeException failure) {
        for (Object request : requests) {
            if (request instanceof Task t) {
                t.future.completeExceptionally(failure);
            } else {
                ((CompletableFuture<?>) request).completeExceptionally(failure);
            }
        }
    }

    static WorkerLostException closedError() {
        return new WorkerLostException("pool closed", List.of());
    }

    /** What failed a future, as the pool's callers get it: a runtime exception as it is, else wrapped. */
    static RuntimeException unwrap(Throwable cause, String prefix) {
        return cause instanceof RuntimeException r ? r : new VexelException(prefix + cause);
    }
}
