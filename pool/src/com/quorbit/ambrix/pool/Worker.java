package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.nio.channels.SocketChannel;
import java.time.Duration;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;

/**
 * The pool's link to one worker: its two connections, the task it runs,
 * and its end, which its launcher tells. It sends tasks and interrupts, and
 * its {@link Answers} read what comes back. What happens (an answer, the
 * worker's end) goes to the {@link Events} it was made with; it never calls
 * the pool's scheduling.
 */
final class Worker {
    /** What a worker reports, on its reader thread. */
    interface Events {
        /** A task's answer came and completed it. */
        void answered(Worker w, Task task);

        /**
         * The worker ended, with this reason; the task it ran then, or null,
         * is not completed yet: it runs again or fails.
         */
        void lost(Worker w, WorkerLostException e, Task task);
    }

    private final Events events;
    /** Whether it runs elsewhere: its end is then reported as soon as its connection ends. */
    private final boolean remote;
    /** The worker as its launcher sees it: where it runs, how it ends. */
    final Launcher.Launched launched;
    /** The pool's slot the worker fills. */
    final int slot;
    private final SocketChannel channel;
    private final Outbox out;
    /** The second connection, which carries interrupts (and heartbeats), so that the worker reads them while a task runs. */
    final SocketChannel control;
    private final Outbox interrupts;
    /** The heartbeats read from the control channel (remote workers). */
    final Wire.Assembler controlFrames = new Wire.Assembler();
    /** When the last heartbeat came, and the resident memory it reported. */
    volatile long heard = System.nanoTime();
    volatile long reportedBytes = -1;
    private final Answers answers;
    private final AtomicBoolean ended = new AtomicBoolean();
    /** Why the pool ended the worker, or what killed it; null while it lives. */
    private volatile String reason;
    /** Set when the pool killed it for its task's own limit: the task does not run again. */
    private volatile boolean tasksFault;
    /** Why the pool ended it by its own choice (idle, or done its tasks), or null: it is not lost then. */
    volatile String retired;
    /** When it last became free for a task (System.nanoTime). */
    volatile long idleSince = System.nanoTime();
    /** The tasks and sessions it has served. */
    final java.util.concurrent.atomic.AtomicInteger served = new java.util.concurrent.atomic.AtomicInteger();
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
     * @param slot     the pool's slot it fills
     * @param events   where it reports its answers and its end
     * @param flusher  the pool's writer thread, for what a socket cannot take at once
     * @param remote   whether it runs elsewhere, connected over TCP
     */
    Worker(Launcher.Launched launched, Transport.Channels channels, int slot, Events events, Outbox.Flusher flusher,
            boolean remote) throws IOException {
        this.remote = remote;
        this.events = events;
        this.launched = launched;
        this.slot = slot;
        this.channel = channels.tasks();
        this.control = channels.control();
        out = new Outbox(channel, flusher, this::silent);
        interrupts = new Outbox(control, flusher, this::silent);
        answers = new Answers(this, channel);
        answers.start();
        launched.ended().thenRun(answers::wakeReader);
    }

    /** The worker in messages: its process id, or its job. */
    String name() {
        return launched.job() != null ? "job " + launched.job() : Long.toString(launched.pid());
    }

    long pid() {
        return launched.pid();
    }

    /** Where it runs, for a task's record of its runs: "on c1 (job 12)", or "(pid 4242)" here. */
    String where() {
        String host = launched.host();
        String job = launched.job();
        String name = job != null ? "job " + job : "pid " + launched.pid();
        return host != null && job != null ? "on " + host + " (" + name + ")" : "(" + name + ")";
    }

    /** The task on the worker now, or null. */
    Task current() {
        return current;
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

    /** Sends a task to this worker; false when the worker has ended. */
    boolean run(Task task) {
        synchronized (this) {
            if (!alive()) {
                return false;
            }
            current = task;
            task.worker = this;
        }
        try {
            out.send(task.frame.frame());
        } catch (IOException e) {
            // The reader sees the end and fails the task.
            kill(null);
            return true;
        }
        answers.sent(task);
        return true;
    }

    /** Whether the task runs on this worker now. */
    synchronized boolean runs(Task task) {
        return current == task;
    }

    /**
     * The task's time limit passed: it is marked so, and the worker asked to
     * end it.
     *
     * @return false when the task no longer runs here
     */
    synchronized boolean limitPassed(Task task) {
        if (current != task) {
            return false;
        }
        task.limitPassed = true;
        sendInterrupt(task.id);
        return true;
    }

    /** Asks the worker to end the task it runs now, if it is still that one. */
    synchronized void interrupt(Task task) {
        if (current == task && task != null) {
            sendInterrupt(task.id);
        }
    }

    private void sendInterrupt(long id) {
        try {
            interrupts.send(new Wire.Writer(Wire.INTERRUPT, id).frame());
        } catch (IOException e) {
            kill(null);
        }
    }

    /** Tells the worker that the pool lives (remote workers end when this stops coming). */
    void sendHeartbeat() {
        try {
            interrupts.send(new Wire.Writer(Wire.HEARTBEAT, 0).frame());
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
        answers.stop();
    }

    /**
     * Ends the worker at once for its task's own doing (its time or memory
     * limit passed): the task does not run again.
     */
    void killForTask(String why) {
        tasksFault = true;
        kill(why);
    }

    /**
     * Whether the worker ended through its task's own doing: the pool
     * killed it for the task's limit, its kernel crashed (a fatal signal
     * from inside: another run would repeat it), or its scheduler ended it
     * for the memory it took.
     */
    boolean endedByTask() {
        String why = reason;
        return tasksFault || why != null && CRASH.matcher(why).find();
    }

    private static final java.util.regex.Pattern CRASH = java.util.regex.Pattern.compile(
            "\\((SIGSEGV|SIGBUS|SIGILL|SIGFPE|SIGABRT)\\)|\\(OUT_OF_MEMORY\\)");

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
            answers.join(5000);
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

    /** A caller waits for its task's answer: see {@link Answers#await}. */
    boolean awaitAnswer(Task task, Wait wait) {
        return answers.await(task, wait);
    }

    /** Ends a caller's wait on the channel, for a task completed by another thread. */
    void wakeWaiter() {
        answers.wakeWaiter();
    }

    /**
     * An answer came: it completes the task it answers, which is reported.
     * It is decoded first, while the task is still this worker's, so that an
     * answer that does not decode fails the task with the worker's loss.
     */
    void answered(Wire.Frame f) throws Wire.WireException {
        Task task = current;
        if (task == null || task.id != f.task()) {
            throw new Wire.WireException("an answer for task " + f.task() + ", which does not run");
        }
        Runnable completion = task.answer(f);
        synchronized (this) {
            current = null;
        }
        completion.run();
        events.answered(this, task);
    }

    /** The input ended: the worker has, or will in a moment; its end is reported with its task. */
    void ended() {
        if (!ended.compareAndSet(false, true)) {
            return;
        }
        if (remote) {
            // Elsewhere, the connection's end is the news: a node that died or a worker that crashed is lost now,
            // not once its scheduler has noticed. Its job is ended; what the scheduler knows already is added.
            if (reason == null) {
                String why = schedulersWord();
                String host = launched.host();
                String job = launched.job();
                reason = "the connection to the worker" + (host == null ? "" : " on " + host) + " was lost"
                        + (why != null ? ": " + why : job != null ? " (job " + job + ")" : "");
            }
            launched.kill();
        } else {
            // The connection ended: the worker has, or will in a moment (it halts when its input ends).
            endWithin(launched, TimeUnit.SECONDS.toNanos(2));
            if (reason == null) {
                String why = launched.ended().getNow(null);
                reason = why != null ? why : "the connection to the worker closed";
            }
        }
        answers.close(out, interrupts, channel, control);
        Task task;
        synchronized (this) {
            task = current;
            current = null;
        }
        events.lost(this, lostException(), task);
    }

    /**
     * How the worker's launcher says it ended, if it can tell within a
     * second (a job its scheduler cancelled); null for a node that died,
     * which the scheduler notices only much later.
     */
    private String schedulersWord() {
        try {
            return launched.ended().get(1, TimeUnit.SECONDS);
        } catch (java.util.concurrent.ExecutionException | java.util.concurrent.TimeoutException e) {
            return null;
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            return null;
        }
    }

    WorkerLostException lostException() {
        return new WorkerLostException(reason == null ? "exit status unknown" : reason, launched.lastLines());
    }
}
