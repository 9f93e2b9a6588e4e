package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.io.OutputStream;
import java.time.Duration;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;
import java.nio.channels.ClosedSelectorException;
import java.nio.channels.SelectionKey;
import java.nio.channels.Selector;
import java.nio.channels.SocketChannel;

/**
 * The pool's side of one worker: its two connections, the task it runs, the
 * limits on that task, and its end, which its launcher tells.
 *
 * <p>The channels do not block, so that an interrupted caller's thread
 * never closes them. The answers are read by whichever thread holds
 * {@code reading}: a caller waiting for its task's future when it can (see
 * {@link TaskFuture}), else the worker's reader thread, which leaves the
 * channel to such callers while they wait. Only the reader thread reports
 * the end of the worker.
 */
final class Worker {
    private final EnginePool pool;
    /** The worker as its launcher sees it: where it runs, how it ends. */
    final Launcher.Launched launched;
    /** The pool's slot the worker fills. */
    final int slot;
    private final SocketChannel channel;
    private final OutputStream out;
    /** The second connection, which carries interrupts (and heartbeats), so that the worker reads them while a task runs. */
    final SocketChannel control;
    private final OutputStream interrupts;
    /** The heartbeats read from the control channel (remote workers). */
    final Wire.Assembler controlFrames = new Wire.Assembler();
    /** When the last heartbeat came, and the resident memory it reported. */
    volatile long heard = System.nanoTime();
    volatile long reportedBytes = -1;
    /** What has come of the next answer. Guarded by reading. */
    private final Wire.Assembler answers = new Wire.Assembler();
    private final ReentrantLock reading = new ReentrantLock();
    /** Callers waiting to read the channel, or reading it: the reader thread then leaves it to them. */
    private final AtomicInteger waiters = new AtomicInteger();
    /** Whether the reader thread watches the channel, or only looks now and then. */
    private volatile boolean eager = true;
    /** How long the reader thread is parked for, in nanoseconds; 0 while it is not. */
    private volatile long parkedFor;
    private static final long TICK = TimeUnit.MILLISECONDS.toNanos(1);
    private static final long MAX_TICK = TimeUnit.MILLISECONDS.toNanos(64);
    private final Selector readerSelector;
    /** The selector of the caller that holds reading. */
    private final Selector waiterSelector;
    private volatile boolean waiterSelecting;
    /** Set once the input ended, or failed: nothing more is read. */
    private volatile boolean inputEnded;
    private final AtomicBoolean ended = new AtomicBoolean();
    private final Thread reader;
    /** Why the pool ended the worker, or what killed it; null while it lives. */
    private volatile String reason;
    /** The task on the worker now, or null. Written holding this. */
    private volatile Task current;
    /** The session the worker serves, or null. */
    volatile Session session;
    /** Set once its kernel has started: only such a worker is replaced when lost. */
    volatile boolean ready;
    final long started = System.nanoTime();

    /**
     * A worker whose two connections are made.
     *
     * @param launched its launcher's handle
     * @param channels its connections for tasks and for interrupts
     */
    Worker(EnginePool pool, Launcher.Launched launched, Transport.Channels channels, int slot) throws IOException {
        this.pool = pool;
        this.launched = launched;
        this.slot = slot;
        this.channel = channels.tasks();
        this.control = channels.control();
        out = Wire.output(channel);
        interrupts = Wire.output(control);
        readerSelector = Selector.open();
        waiterSelector = Selector.open();
        channel.register(readerSelector, SelectionKey.OP_READ);
        channel.register(waiterSelector, SelectionKey.OP_READ);
        reader = new Thread(this::readAnswers, "ambrix-worker-" + name());
        reader.setDaemon(true);
        reader.start();
        launched.ended().thenRun(this::wakeReader);
    }

    /** The worker in messages: its process id, or its job. */
    String name() {
        return launched.job() != null ? "job " + launched.job() : Long.toString(launched.pid());
    }

    long pid() {
        return launched.pid();
    }

    /** Whether it runs a task (a reset included) or serves a session. */
    boolean busy() {
        return current != null || session != null;
    }

    /** Whether its kernel has started and it has not ended: it takes tasks. */
    boolean serving() {
        return ready && alive();
    }

    boolean alive() {
        return !ended.get();
    }

    /** Sends the start frame; the future completes when the kernel is ready. */
    CompletableFuture<Object> start(Task init) {
        if (!run(init)) {
            init.future.completeExceptionally(lostException());
        }
        return init.future;
    }

    /** Starts a task on this worker, with its time limit; false when the worker has ended. */
    boolean run(Task task) {
        synchronized (this) {
            if (!alive()) {
                return false;
            }
            current = task;
            task.worker = this;
            try {
                task.frame.send(out);
            } catch (IOException e) {
                // The reader sees the end and fails the task.
                kill(null);
                return true;
            }
        }
        Thread waiting = task.waiting;
        if (waiting != null) {
            LockSupport.unpark(waiting);
        } else if (task.kind == Wire.RESET || task.future.getNumberOfDependents() > 0) {
            // No caller will read this answer.
            wakeReader();
        } else if (parkedFor > TICK) {
            LockSupport.unpark(reader);
        }
        if (task.limit != null) {
            pool.schedule(task.limit, () -> limitPassed(task));
        }
        return true;
    }

    private void limitPassed(Task task) {
        synchronized (this) {
            if (current != task) {
                return;
            }
            task.limitPassed = true;
            sendInterrupt(task.id);
        }
        Duration grace = pool.graceTime();
        pool.schedule(grace, () -> {
            synchronized (this) {
                if (current != task) {
                    return;
                }
            }
            kill("killed after the time limit of " + Task.seconds(task.limit) + " passed and a grace of "
                    + Task.seconds(grace));
        });
    }

    /** Asks the worker to end the task it runs now, if it is still that one. */
    void interrupt(Task task) {
        synchronized (this) {
            if (current == task && task != null) {
                sendInterrupt(task.id);
            }
        }
    }

    private void sendInterrupt(long id) {
        try {
            new Wire.Writer(Wire.INTERRUPT, id).send(interrupts);
        } catch (IOException e) {
            kill(null);
        }
    }

    /** Tells the worker that the pool lives (remote workers end when this stops coming). */
    synchronized void sendHeartbeat() {
        try {
            new Wire.Writer(Wire.HEARTBEAT, 0).send(interrupts);
        } catch (IOException e) {
            kill(null);
        }
    }

    /** The worker's resident memory: as its launcher sees it, or as its last heartbeat said. */
    long residentBytes() {
        long bytes = launched.residentBytes();
        return bytes >= 0 ? bytes : reportedBytes;
    }

    /**
     * A worker that stopped answering, whose connection may never close (a
     * node that vanished): it is ended, and its answers no longer waited for.
     */
    void silent(String why) {
        kill(why);
        try {
            channel.shutdownInput();
        } catch (IOException e) {
            // closed already
        }
        wakeReader();
    }

    /** Ends the worker at once (SIGKILL, or its scheduler's equivalent); the first reason given stands. */
    void kill(String why) {
        if (why != null && reason == null) {
            reason = why;
        }
        launched.kill();
    }

    /**
     * Ends the process as a pool's close does: its input closes, which a
     * worker answers by halting; after the grace time it is killed.
     */
    void stop(String why, Duration grace) {
        if (reason == null) {
            reason = why;
        }
        try {
            channel.shutdownOutput();
        } catch (IOException e) {
            // ending anyway
        }
        if (launched.job() != null) {
            // A scheduler's job is cancelled as well, so that none outlives the pool.
            launched.cancel();
        }
        endWithin(launched, grace.toNanos());
        try {
            reader.join(5000);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }

    /**
     * Waits for a launched worker's end, at most that long; then kills it
     * and waits 10 s more. An interrupt kills it at once.
     *
     * @return false when it did not end even then
     */
    static boolean endWithin(Launcher.Launched launched, long nanos) {
        try {
            if (awaitEnd(launched, nanos)) {
                return true;
            }
            launched.kill();
            return awaitEnd(launched, TimeUnit.SECONDS.toNanos(10));
        } catch (InterruptedException e) {
            launched.kill();
            Thread.currentThread().interrupt();
            return false;
        }
    }

    private static boolean awaitEnd(Launcher.Launched launched, long nanos) throws InterruptedException {
        try {
            launched.ended().get(nanos, TimeUnit.NANOSECONDS);
            return true;
        } catch (java.util.concurrent.ExecutionException e) {
            return true;
        } catch (java.util.concurrent.TimeoutException e) {
            return false;
        }
    }

    /**
     * The reader thread. While it is eager it watches the channel and reads
     * every answer no caller waits to read. When it finds callers reading
     * their own answers twice in a row, it turns lazy: it looks at the worker
     * now and then, a millisecond apart at first and less often while
     * nothing changes, and turns eager again for a task that stays
     * unanswered with no caller reading or that something depends on, for a
     * reset (which no caller waits for), and when the process ends. So a
     * caller that waits for its answers is not woken together with it.
     */
    private void readAnswers() {
        long tick = TICK;
        Task seen = null;
        int votes = 0;
        try {
            while (!inputEnded) {
                if (eager && waiters.get() == 0) {
                    reading.lock();
                    try {
                        if (readAvailable() > 0) {
                            votes = 0;
                        }
                    } finally {
                        reading.unlock();
                    }
                    if (inputEnded) {
                        break;
                    }
                    readerSelector.select();
                    readerSelector.selectedKeys().clear();
                    if (waiters.get() > 0 && ++votes == 2) {
                        eager = false;
                        votes = 0;
                    }
                    continue;
                }
                // Lazy, or callers read now: look again after a while.
                Task now = current;
                tick = now != seen ? TICK : Math.min(2 * tick, MAX_TICK);
                boolean idle = !eager && now == null && now == seen && tick == MAX_TICK;
                seen = now;
                parkedFor = idle ? Long.MAX_VALUE : tick;
                // Published before current is read again: a task sent meanwhile unparks a long park.
                if (current == now && !inputEnded) {
                    if (idle) {
                        LockSupport.park(this);
                    } else {
                        LockSupport.parkNanos(this, tick);
                    }
                }
                parkedFor = 0;
                if (now != null && waiters.get() == 0
                        && (current == now || now.future.getNumberOfDependents() > 0)) {
                    eager = true;
                }
            }
        } catch (IOException | ClosedSelectorException e) {
            inputEnded = true;
        }
        ended();
    }

    /** Makes the reader thread watch the channel again, from any thread. */
    private void wakeReader() {
        eager = true;
        LockSupport.unpark(reader);
        readerSelector.wakeup();
    }

    /**
     * Waits for a task's answer by reading the channel on this thread, if no
     * other thread reads it now.
     *
     * @return false when an interrupt ended the wait; true otherwise, also
     *         when another thread reads, or the deadline passed
     */
    boolean awaitAnswer(Task task, Wait wait) {
        waiters.incrementAndGet();
        try {
            boolean locked;
            try {
                // Whoever holds it now is about to leave: done with its own answer, or reading what came.
                locked = reading.tryLock(1, TimeUnit.MILLISECONDS);
            } catch (InterruptedException e) {
                if (wait.interruptEnds()) {
                    return false;
                }
                locked = reading.tryLock();
            }
            if (!locked) {
                return true;
            }
            try {
                while (!task.future.isDone() && !inputEnded) {
                    readAvailable();
                    long nanos = wait.next(TimeUnit.SECONDS.toNanos(1));
                    if (nanos == 0) {
                        break;
                    }
                    if (wait.interrupted()) {
                        return false;
                    }
                    waiterSelecting = true;
                    try {
                        if (!task.future.isDone() && !inputEnded) {
                            waiterSelector.select(Math.max(1, TimeUnit.NANOSECONDS.toMillis(nanos)));
                        }
                    } finally {
                        waiterSelecting = false;
                    }
                    waiterSelector.selectedKeys().clear();
                }
            } finally {
                reading.unlock();
            }
        } catch (IOException | ClosedSelectorException e) {
            // This thread cannot wait on the channel: the reader thread reads on.
        } finally {
            waiters.decrementAndGet();
            if (current == task) {
                // Left before the answer came (a deadline, an interrupt, a future completed by the caller):
                // the reader thread reads it.
                wakeReader();
            }
        }
        return true;
    }

    /** Ends a caller's wait on the channel, for a task completed by another thread. */
    void wakeWaiter() {
        if (waiterSelecting) {
            waiterSelector.wakeup();
        }
    }

    /** Completes the tasks of every whole answer that has come; returns how many. Holding reading. */
    private int readAvailable() {
        int n = 0;
        if (inputEnded) {
            return n;
        }
        try {
            for (Wire.Frame f = answers.next(channel); f != null; f = answers.next(channel)) {
                answered(f);
                n++;
            }
        } catch (Wire.WireException e) {
            kill("protocol error: " + e.getMessage());
            endInput();
        } catch (IOException e) {
            // the process ended
            endInput();
        }
        return n;
    }

    private void endInput() {
        inputEnded = true;
        wakeReader();
    }

    private void answered(Wire.Frame f) throws Wire.WireException {
        Task task;
        synchronized (this) {
            task = current;
            if (task == null || task.id != f.task()) {
                throw new Wire.WireException("an answer for task " + f.task() + ", which does not run");
            }
            current = null;
        }
        task.answer(f);
        pool.finished(this, task);
    }

    private void ended() {
        if (!ended.compareAndSet(false, true)) {
            return;
        }
        // The connection ended: the worker has, or will in a moment (it halts when its input ends).
        endWithin(launched, TimeUnit.SECONDS.toNanos(launched.job() != null ? 10 : 2));
        if (reason == null) {
            String why = launched.ended().getNow(null);
            reason = why != null ? why : "the connection to the worker closed";
        }
        reading.lock();
        try {
            for (java.io.Closeable c : new java.io.Closeable[] {out, interrupts, channel, control, readerSelector,
                waiterSelector}) {
                try {
                    c.close();
                } catch (IOException e) {
                    // closed with the process
                }
            }
        } finally {
            reading.unlock();
        }
        Task task;
        synchronized (this) {
            task = current;
            current = null;
        }
        WorkerLostException lost = lostException();
        if (task != null) {
            task.future.completeExceptionally(lost);
        }
        pool.lost(this, lost);
    }

    WorkerLostException lostException() {
        return new WorkerLostException(reason == null ? "exit status unknown" : reason, lastLines());
    }

    /** The last lines the worker wrote, as its launcher has them. */
    private java.util.List<String> lastLines() {
        return launched.lastLines();
    }
}
