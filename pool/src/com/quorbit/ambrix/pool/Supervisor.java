package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.lang.System.Logger.Level;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Set;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.TimeUnit;
import java.util.stream.Collectors;

/**
 * The pool's worker slots and what fills them: the launch of each worker,
 * its connection and the start of its kernel, its admission to the
 * {@link Dispatch}, its loss and replacement, and a slot's giving up after
 * launches that fail time after time. It keeps the pool's size between its
 * least and its most: a slot is taken into use for a request that waits
 * with no worker starting for it, and a worker beyond the least that stays
 * idle, or that has served its share of tasks, is ended and its slot freed.
 * Workers report to it through {@link Worker.Events}.
 */
final class Supervisor {
    private final PoolSettings settings;
    private final Dispatch dispatch;
    /** How a slot's worker is launched, connected and started. */
    private final Starter starter;
    /** The threads that start workers: local ones, and remote ones waited for however long they queue. */
    private final ExecutorService starters = Executors.newCachedThreadPool(r -> {
        Thread t = new Thread(r, "ambrix-pool-start");
        t.setDaemon(true);
        return t;
    });
    /** The pause of a local slot's launch after one that failed; it doubles after each failure. */
    static final long RETRY_MILLIS = 500;
    private final Object lock = new Object();
    /** Guarded by lock. */
    private final Slot[] slots;
    /** Replacements under way. Guarded by lock. */
    private int starting;
    private boolean closed;
    /** The launcher's refusal, which no retry mends. Guarded by lock. */
    private String refused;
    /** Why the last slot that gave up did. Guarded by lock. */
    private String gaveUp;
    private final Worker.Events events = new Worker.Events() {
        @Override
        public void answered(Worker w, Task task) {
            dispatch.finished(w, task);
        }

        @Override
        public void lost(Worker w, WorkerLostException e, Task task) {
            Supervisor.this.lost(w, e, task);
        }
    };

    /** Where lost workers are counted. */
    private final PoolCounters counters;

    Supervisor(PoolSettings settings, Dispatch dispatch, Tasks tasks, PoolCounters counters) {
        this.settings = settings;
        this.dispatch = dispatch;
        this.counters = counters;
        slots = new Slot[settings.maxWorkers()];
        for (int i = 0; i < slots.length; i++) {
            slots[i] = new Slot(i);
        }
        starter = new Starter(settings, tasks, events, lock);
        dispatch.sizing(new Dispatch.Sizing() {
            @Override
            public void waits() {
                balance(0);
            }

            @Override
            public void served(Worker w) {
                retire(w, "it served its " + settings.maxTasksPerWorker() + " tasks");
            }
        });
    }

    /** Takes up to n slots not in use into use. Under lock. */
    private List<Slot> takeSlots(int n) {
        List<Slot> taken = new ArrayList<>();
        for (Slot s : slots) {
            if (taken.size() >= n) {
                break;
            }
            if (!s.inUse) {
                s.inUse = true;
                s.failures = 0;
                taken.add(s);
            }
        }
        return taken;
    }

    /** The slots in use that have not given up: each holds a worker, or one starting. Under lock. */
    private int usable() {
        return (int) Arrays.stream(slots).filter(s -> s.inUse && s.gaveUp == null).count();
    }

    /**
     * Local workers: started at once, each waited for; any that does not
     * start fails the build. Remote workers: submitted, each then waited for
     * on a thread of its own, however long it queues.
     *
     * @throws VexelException when the workers cannot start; the caller closes the pool
     */
    void startAll() {
        List<Slot> first;
        synchronized (lock) {
            first = takeSlots(settings.minWorkers());
        }
        if (starter.remote()) {
            for (Slot slot : first) {
                launchAndWait(slot);
                synchronized (lock) {
                    if (refused != null) {
                        throw new VexelException("no worker could be started: " + refused);
                    }
                }
            }
            synchronized (lock) {
                if (!first.isEmpty() && usable() == 0) {
                    throw new VexelException("no worker could be started: " + gaveUp);
                }
            }
            return;
        }
        List<CompletableFuture<Worker>> started = new ArrayList<>();
        for (Slot slot : first) {
            started.add(CompletableFuture.supplyAsync(() -> starter.startLocal(slot), starters));
        }
        try {
            for (CompletableFuture<Worker> f : started) {
                dispatch.admit(f.get());
            }
        } catch (ExecutionException e) {
            throw Dispatch.unwrap(e.getCause(), "a worker did not start: ");
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new VexelException("interrupted while the workers started");
        }
    }

    /**
     * Submits a remote worker for the slot, then waits for it on a starter
     * thread. A launch that fails, or ends before its worker is ready, is
     * made again, until {@value Slot#FAILED_LAUNCHES} in a row have: then
     * the slot gives up; a launch the launcher refuses gives it up at once.
     */
    private void launchAndWait(Slot slot) {
        Transport.Rendezvous rendezvous;
        Launcher.Launched launched;
        try {
            rendezvous = starter.open();
        } catch (IOException e) {
            launchFailed(slot, "cannot listen for a worker: " + e.getMessage(), false);
            return;
        }
        try {
            launched = starter.launch(slot, rendezvous);
        } catch (IOException | RuntimeException e) {
            closeQuietly(rendezvous);
            launchFailed(slot, String.valueOf(e.getMessage()), e instanceof Launcher.RefusedException);
            return;
        }
        try {
            starters.execute(() -> {
                Worker w;
                try {
                    Transport.Channels channels = rendezvous.await(launched, 0);
                    w = starter.startKernel(slot, launched, channels);
                } catch (IOException | RuntimeException e) {
                    launched.kill();
                    String why = launched.ended().getNow(null);
                    launchFailed(slot, why != null ? why : String.valueOf(e.getMessage()), false);
                    return;
                } finally {
                    closeQuietly(rendezvous);
                }
                admit(w);
            });
        } catch (java.util.concurrent.RejectedExecutionException e) {
            // closed meanwhile
            launched.cancel();
            closeQuietly(rendezvous);
        }
    }

    /** A worker that became ready after the build: free for tasks, or ended when the pool closed meanwhile. */
    private void admit(Worker w) {
        boolean late;
        synchronized (lock) {
            late = closed;
        }
        if (late || !dispatch.admit(w)) {
            w.stop("pool closed", Duration.ZERO);
        }
    }

    private static void closeQuietly(java.io.Closeable c) {
        try {
            c.close();
        } catch (IOException e) {
            // closed anyway
        }
    }

    /**
     * A launch ended before its worker was ready: another, or the slot gives
     * up (at once when the launcher refused it). A local slot pauses before it
     * launches again, {@value #RETRY_MILLIS} ms after the first failure,
     * doubling after each.
     */
    private void launchFailed(Slot slot, String why, boolean refusal) {
        boolean again;
        int failures;
        synchronized (lock) {
            slot.launched = null;
            slot.worker = null;
            if (closed) {
                return;
            }
            failures = ++slot.failures;
            again = !refusal && failures < Slot.FAILED_LAUNCHES;
            if (!again) {
                slot.gaveUp = why;
                gaveUp = why;
                if (refusal) {
                    refused = why;
                }
                lock.notifyAll();
            }
        }
        if (again) {
            long pause = starter.remote() ? 0 : RETRY_MILLIS << (failures - 1);
            PoolLog.log(Level.WARNING, "a worker ended before it was ready (" + why + "); launching another"
                    + (pause > 0 ? " in " + pause + " ms" : ""));
            if (starter.remote()) {
                launchAndWait(slot);
            } else {
                startLocal(slot, pause, null);
            }
            return;
        }
        PoolLog.log(Level.ERROR, "worker slot " + slot.index + (refusal ? " gave up: " : " gave up after "
                + Slot.FAILED_LAUNCHES + " launches in a row ended before they were ready: ") + why);
        // Another slot takes up what waits; when none can, it fails with this reason.
        balance(0);
    }

    /**
     * Brings the pool's size to what it should be now: at least its least,
     * and {@code wanted} when that is more, never past its most; and one
     * more worker for each request that waits in line with no worker
     * starting for it. When requests wait and no slot is usable or can be
     * taken into use, they fail with the reason the last slot gave up for.
     */
    private void balance(int wanted) {
        int waiting = dispatch.waitingCount();
        List<Slot> launch;
        String stranded = null;
        synchronized (lock) {
            if (closed) {
                return;
            }
            int inUse = 0;
            int starting = 0;
            for (Slot s : slots) {
                if (s.inUse) {
                    inUse++;
                    if (s.gaveUp == null && (s.worker == null || !s.worker.serving())) {
                        starting++;
                    }
                }
            }
            int max = slots.length;
            int more = Math.max(Math.max(settings.minWorkers(), Math.min(wanted, max)) - inUse,
                    Math.min(waiting - starting, max - inUse));
            launch = refused != null ? List.of() : takeSlots(more);
            if (waiting > 0 && launch.isEmpty() && usable() == 0) {
                stranded = refused != null ? refused : gaveUp;
            }
        }
        for (Slot slot : launch) {
            launchInto(slot);
        }
        if (stranded != null) {
            // No worker will ever take what waits.
            dispatch.failWaiting(new VexelException("no worker could be started: " + stranded));
        }
    }

    /** Launches a worker into a slot just taken into use, on a starter thread. */
    private void launchInto(Slot slot) {
        if (starter.remote()) {
            underWay(() -> launchAndWait(slot));
        } else {
            startLocal(slot, 0, null);
        }
    }

    /**
     * Runs a start on a starter thread, unless the pool has closed; it
     * counts as a start under way, which a close waits for, until it returns.
     */
    private void underWay(Runnable start) {
        synchronized (lock) {
            if (closed) {
                return;
            }
            starting++;
        }
        try {
            starters.execute(() -> {
                try {
                    start.run();
                } finally {
                    startingDone();
                }
            });
        } catch (java.util.concurrent.RejectedExecutionException e) {
            // closed meanwhile
            startingDone();
        }
    }

    /**
     * Ends a worker that the pool no longer needs (idle, or done with its
     * share of tasks), on a thread of its own: it is taken out of the pool
     * already, and it ends as a close ends it. Its slot goes free when it
     * has, or is filled again while the pool is below its least.
     */
    private void retire(Worker w, String why) {
        w.retired = why;
        try {
            starters.execute(() -> w.stop(why, settings.graceTime()));
        } catch (java.util.concurrent.RejectedExecutionException e) {
            // closed meanwhile: the close ends it
        }
    }

    /**
     * Ends the workers that have been free for the idle timeout, the longest
     * free first, while more than the pool's least exist.
     */
    void endIdle() {
        long now = System.nanoTime();
        long timeout = settings.idleTimeout().toNanos();
        int exist;
        synchronized (lock) {
            if (closed) {
                return;
            }
            exist = (int) Arrays.stream(slots).filter(s -> s.inUse && s.gaveUp == null
                    && (s.worker == null || s.worker.retired == null)).count();
        }
        for (Worker w : dispatch.idleWorkers()) {
            if (exist <= settings.minWorkers()) {
                return;
            }
            if (now - w.idleSince >= timeout && dispatch.takeIdle(w)) {
                exist--;
                retire(w, "it was idle for " + Task.seconds(settings.idleTimeout()));
            }
        }
    }

    /**
     * Starts a local worker into the slot on a starter thread, after a pause
     * that a close cuts short; it counts as a replacement under way until it
     * is admitted or has failed. A start that fails is a failed launch.
     *
     * @param replaced the worker it replaces, for the log; null for a launch after a failed one
     */
    private void startLocal(Slot slot, long pauseMillis, Worker replaced) {
        underWay(() -> {
            if (!pause(pauseMillis)) {
                return;
            }
            Worker fresh;
            try {
                fresh = starter.startLocal(slot);
            } catch (RuntimeException e) {
                launchFailed(slot, String.valueOf(e.getMessage()), false);
                return;
            }
            if (replaced != null) {
                PoolLog.log(Level.INFO, "worker " + fresh.name() + " replaced worker " + replaced.name());
            }
            admit(fresh);
        });
    }

    /** Waits that long, or less when the pool closes; false when it did. */
    private boolean pause(long millis) {
        long deadline = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(millis);
        synchronized (lock) {
            while (!closed) {
                long left = deadline - System.nanoTime();
                if (left <= 0) {
                    return true;
                }
                try {
                    TimeUnit.NANOSECONDS.timedWait(lock, left);
                } catch (InterruptedException e) {
                    Thread.currentThread().interrupt();
                    return false;
                }
            }
            return false;
        }
    }

    /**
     * A worker ended: its task runs again or fails, and a new worker takes
     * its slot while the pool is below its least; else the slot goes free,
     * and the pool's size follows what waits.
     */
    private void lost(Worker w, WorkerLostException e, Task task) {
        Slot slot = slots[w.slot];
        boolean replace;
        boolean free = false;
        synchronized (lock) {
            if (slot.worker == w) {
                slot.worker = null;
                slot.launched = null;
            }
            // A worker that never became ready is not replaced here: its start failed.
            replace = !closed && w.ready;
            if (replace) {
                free = usable() > settings.minWorkers();
                if (free) {
                    slot.inUse = false;
                } else {
                    starting++;
                }
            }
        }
        dispatch.forget(w);
        starter.forget(w);
        if (task != null) {
            dispatch.lost(task, w, e);
        }
        Session s = w.session;
        if (s != null) {
            s.lost(e);
        }
        if (!replace) {
            return;
        }
        if (w.retired != null) {
            PoolLog.log(Level.INFO, "worker " + w.name() + " ended: " + w.retired);
        } else {
            counters.lostWorker();
            PoolLog.log(Level.WARNING, "worker " + w.name() + " lost: " + e.getMessage());
        }
        if (free) {
            balance(0);
            return;
        }
        if (starter.remote()) {
            launchAndWait(slot);
        } else {
            startLocal(slot, 0, w);
        }
        startingDone();
    }

    private void startingDone() {
        synchronized (lock) {
            starting--;
            lock.notifyAll();
        }
    }

    /** Whether at least n workers are ready, waiting at most that long; false when fewer ever can be. */
    boolean awaitWorkers(int n, Duration timeout) {
        long deadline = System.nanoTime() + timeout.toNanos();
        // What is missing for n is launched, up to the pool's most.
        balance(n);
        synchronized (lock) {
            while (true) {
                int ready = 0;
                int able = 0;
                for (Slot s : slots) {
                    if (s.worker != null && s.worker.serving()) {
                        ready++;
                    }
                    if (s.gaveUp == null) {
                        // in use, or free to be taken into use
                        able++;
                    }
                }
                long left = deadline - System.nanoTime();
                if (ready >= n) {
                    return true;
                }
                if (closed || able < n || left <= 0) {
                    return false;
                }
                try {
                    TimeUnit.NANOSECONDS.timedWait(lock, Math.min(left, TimeUnit.MILLISECONDS.toNanos(100)));
                } catch (InterruptedException e) {
                    Thread.currentThread().interrupt();
                    return false;
                }
            }
        }
    }

    /** One state per slot in use, in slot order. */
    List<WorkerState> workerStates() {
        synchronized (lock) {
            return Arrays.stream(slots).filter(s -> s.inUse).map(Slot::state).toList();
        }
    }

    /** The status of each slot that holds a worker, starting or alive: those empty or given up are left out. */
    List<WorkerState.Status> heldSlots() {
        synchronized (lock) {
            return Arrays.stream(slots).filter(s -> s.worker != null || s.launched != null)
                    .map(s -> s.state().status()).toList();
        }
    }

    /** The workers connected now. */
    List<Worker> workers() {
        synchronized (lock) {
            return Arrays.stream(slots).map(s -> s.worker).filter(w -> w != null).toList();
        }
    }

    /** Kills each worker whose resident memory passed the limit. */
    void sampleMemory() {
        for (Worker w : workers()) {
            long rss = w.residentBytes();
            if (rss > settings.memoryLimit() && w.alive()) {
                w.killForTask("memory limit of " + (settings.memoryLimit() >> 20) + " MiB passed");
            }
        }
    }

    /**
     * Ends every worker: its input is closed, and after the grace time it is
     * killed. Every other launch still alive (queued, starting, or begun
     * while the close came) is cancelled, and killed after the grace time.
     * Returns once every launch has ended, replacements under way included.
     */
    void close() {
        List<Worker> all = new ArrayList<>();
        synchronized (lock) {
            closed = true;
            starter.refuseLaunches();
            // Pauses before a launch end now.
            lock.notifyAll();
            for (Slot slot : slots) {
                if (slot.worker != null) {
                    all.add(slot.worker);
                }
            }
        }
        starter.stopListening();
        List<Thread> stopping = new ArrayList<>();
        for (Worker w : all) {
            stopping.add(closer(() -> w.stop("pool closed", settings.graceTime())));
        }
        Set<Launcher.Launched> stopped = all.stream().map(w -> w.launched).collect(Collectors.toSet());
        for (Launcher.Launched l : starter.launchesLeft(stopped)) {
            l.cancel();
            stopping.add(closer(() -> endLaunch(l)));
        }
        for (Thread t : stopping) {
            try {
                t.join();
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
        }
        // Replacements under way find their launch ended, or end the worker they admit.
        synchronized (lock) {
            Starter.awaitNone(lock, () -> starting);
        }
        starters.shutdownNow();
        starter.close();
    }

    private static Thread closer(Runnable r) {
        Thread t = new Thread(r, "ambrix-pool-close");
        t.start();
        return t;
    }

    /** Waits for a cancelled launch to end, the grace time at most; then kills it. */
    private void endLaunch(Launcher.Launched l) {
        if (!Worker.endWithin(l, settings.graceTime().toNanos()) && !Thread.currentThread().isInterrupted()) {
            PoolLog.log(Level.WARNING, "a worker did not end after it was killed");
        }
    }
}
