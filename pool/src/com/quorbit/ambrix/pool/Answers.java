package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.nio.channels.ClosedSelectorException;
import java.nio.channels.SelectionKey;
import java.nio.channels.Selector;
import java.nio.channels.SocketChannel;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/**
 * The reading of one worker's answers. The channel does not block, so that
 * an interrupted caller's thread never closes it. Answers are read by
 * whichever thread holds {@code reading}: a caller waiting for its task's
 * future when it can (see {@link TaskFuture}), else the worker's reader
 * thread, which leaves the channel to such callers while they wait. Each
 * whole answer goes to its {@link Worker}; only the reader thread reports
 * the end of the input.
 */
final class Answers {
    private final Worker worker;
    private final SocketChannel channel;
    /** What has come of the next answer. Guarded by reading. */
    private final Wire.Assembler frames = new Wire.Assembler();
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
    private final Thread reader;

    Answers(Worker worker, SocketChannel channel) throws IOException {
        this.worker = worker;
        this.channel = channel;
        readerSelector = Selector.open();
        waiterSelector = Selector.open();
        channel.register(readerSelector, SelectionKey.OP_READ);
        channel.register(waiterSelector, SelectionKey.OP_READ);
        reader = new Thread(this::readAnswers, "ambrix-worker-" + worker.name());
        reader.setDaemon(true);
    }

    void start() {
        reader.start();
    }

    /**
     * A task was sent: the thread that will read its answer is told. A
     * caller waiting in line is unparked to read it itself; an answer that
     * no caller will read wakes the reader thread.
     */
    void sent(Task task) {
        Thread waiting = task.waiting;
        if (waiting != null) {
            LockSupport.unpark(waiting);
        } else if (task.kind == Wire.RESET || task.future.getNumberOfDependents() > 0) {
            wakeReader();
        } else if (parkedFor > TICK) {
            LockSupport.unpark(reader);
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
                Task now = worker.current();
                tick = now != seen ? TICK : Math.min(2 * tick, MAX_TICK);
                boolean idle = !eager && now == null && now == seen && tick == MAX_TICK;
                seen = now;
                parkedFor = idle ? Long.MAX_VALUE : tick;
                // Published before current is read again: a task sent meanwhile unparks a long park.
                if (worker.current() == now && !inputEnded) {
                    if (idle) {
                        LockSupport.park(this);
                    } else {
                        LockSupport.parkNanos(this, tick);
                    }
                }
                parkedFor = 0;
                if (now != null && waiters.get() == 0
                        && (worker.current() == now || now.future.getNumberOfDependents() > 0)) {
                    eager = true;
                }
            }
        } catch (IOException | ClosedSelectorException e) {
            inputEnded = true;
        } catch (RuntimeException | Error e) {
            worker.kill("the pool's reader of the worker failed: " + e);
            inputEnded = true;
        }
        worker.ended();
    }

    /** Makes the reader thread watch the channel again, from any thread. */
    void wakeReader() {
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
    boolean await(Task task, Wait wait) {
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
            if (worker.current() == task) {
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

    /** Stops reading: a worker that stopped answering, whose connection may never close. */
    void stop() {
        try {
            channel.shutdownInput();
        } catch (IOException e) {
            // closed already
        }
        wakeReader();
    }

    /** Completes the tasks of every whole answer that has come; returns how many. Holding reading. */
    private int readAvailable() {
        int n = 0;
        if (inputEnded) {
            return n;
        }
        try {
            for (Wire.Frame f = frames.next(channel); f != null; f = frames.next(channel)) {
                worker.answered(f);
                n++;
            }
        } catch (Wire.WireException e) {
            worker.kill("protocol error: " + e.getMessage());
            endInput();
        } catch (IOException e) {
            // the process ended
            endInput();
        } catch (RuntimeException | Error e) {
            // Whatever the worker's bytes did to this thread ends that worker, and only it.
            worker.kill("the pool could not read the worker's answer: " + e);
            endInput();
        }
        return n;
    }

    private void endInput() {
        inputEnded = true;
        wakeReader();
    }

    /** Closes the selectors, and these, once no caller reads any more; on the reader thread, at its end. */
    void close(java.io.Closeable... also) {
        reading.lock();
        try {
            java.util.List<java.io.Closeable> all = new java.util.ArrayList<>(java.util.List.of(also));
            all.add(readerSelector);
            all.add(waiterSelector);
            for (java.io.Closeable c : all) {
                try {
                    c.close();
                } catch (IOException e) {
                    // closed with the process
                }
            }
        } finally {
            reading.unlock();
        }
    }

    /** Waits for the reader thread to end, at most that long. */
    void join(long millis) throws InterruptedException {
        reader.join(millis);
    }
}
