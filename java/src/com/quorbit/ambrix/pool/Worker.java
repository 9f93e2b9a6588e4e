package com.quorbit.ambrix.pool;

import java.io.File;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.io.BufferedReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.channels.ClosedSelectorException;
import java.nio.channels.SelectionKey;
import java.nio.channels.Selector;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;

/**
 * The pool's side of one worker process: its channel, the task it runs, the
 * limits on that task, and the process's end.
 *
 * <p>The channels do not block, so that an interrupted caller's thread
 * never closes them. The answers are read by whichever thread holds
 * {@code reading}: a caller waiting for its task's future when it can (see
 * {@link TaskFuture}), else the worker's reader thread, which leaves the
 * channel to such callers while they wait. Only the reader thread reports
 * the end of the process.
 */
final class Worker {
    /** HotSpot's first report of a fatal signal, on the standard error it was told to use. */
    private static final Pattern FATAL_SIGNAL = Pattern.compile("^#\\s+(SIG[A-Z]+) \\(0x([0-9a-fA-F]+)\\)");
    private static final int LAST_LINES = 20;

    private final EnginePool pool;
    private final Process process;
    private final SocketChannel channel;
    private final OutputStream out;
    /** The second connection, which carries only interrupts, so that the worker reads them while a task runs. */
    private final SocketChannel control;
    private final OutputStream interrupts;
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
    private final ArrayDeque<String> lastLines = new ArrayDeque<>();
    private final AtomicBoolean ended = new AtomicBoolean();
    private final Thread reader;
    private Thread drain;
    private final Path errorFile;
    /** Why the pool ended the process, or what killed it; null while it lives. */
    private volatile String reason;
    /** The task on the worker now, or null. Written holding this. */
    private volatile Task current;
    /** The session the worker serves, or null. */
    volatile Session session;
    /** Set once its kernel has started: only such a worker is replaced when lost. */
    volatile boolean ready;
    final long started = System.nanoTime();

    /**
     * Starts a worker process and waits for it to connect twice to its
     * socket, a new one in the pool's private folder: first for tasks, then
     * for interrupts.
     *
     * @param command the command, to which the socket's path is added
     */
    Worker(EnginePool pool, java.util.List<String> command, Path socketPath, Path errorFile) throws IOException {
        this.pool = pool;
        this.errorFile = errorFile;
        SocketChannel channel;
        SocketChannel control = null;
        try (ServerSocketChannel server = ServerSocketChannel.open(StandardProtocolFamily.UNIX)) {
            server.bind(UnixDomainSocketAddress.of(socketPath));
            java.util.List<String> c = new ArrayList<>(command);
            c.add(1 + c.indexOf(WorkerMain.class.getName()), socketPath.toString());
            // Standard output carries nothing of the protocol: both streams are drained as one.
            process = new ProcessBuilder(detached(c)).redirectErrorStream(true).redirectInput(ProcessBuilder.Redirect.PIPE)
                    .start();
            drain = new Thread(this::drainErrors, "ambrix-worker-output-" + process.pid());
            drain.setDaemon(true);
            drain.start();
            channel = accept(server);
            try {
                control = accept(server);
            } finally {
                if (control == null) {
                    channel.close();
                }
            }
        } finally {
            Files.deleteIfExists(socketPath);
        }
        this.channel = channel;
        this.control = control;
        out = Wire.output(channel);
        interrupts = Wire.output(control);
        readerSelector = Selector.open();
        waiterSelector = Selector.open();
        channel.register(readerSelector, SelectionKey.OP_READ);
        channel.register(waiterSelector, SelectionKey.OP_READ);
        reader = new Thread(this::readAnswers, "ambrix-worker-" + process.pid());
        reader.setDaemon(true);
        reader.start();
        process.onExit().thenRun(this::wakeReader);
    }

    /** The worker's connection; fails when the process ends first or takes a minute. */
    private SocketChannel accept(ServerSocketChannel server) throws IOException {
        server.configureBlocking(false);
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
        while (true) {
            SocketChannel c = server.accept();
            if (c != null) {
                c.configureBlocking(false);
                return c;
            }
            if (!process.isAlive() || System.nanoTime() > deadline) {
                process.destroyForcibly();
                java.util.List<String> lines = lastLines();
                throw new IOException("the worker process did not connect"
                        + (process.isAlive() ? "" : " (" + exitReason(waitExit()) + ")")
                        + (lines.isEmpty() ? "" : ": " + String.join("\n", lines)));
            }
            try {
                Thread.sleep(2);
            } catch (InterruptedException e) {
                process.destroyForcibly();
                Thread.currentThread().interrupt();
                throw new IOException("interrupted while a worker started");
            }
        }
    }

    private int waitExit() {
        try {
            return process.waitFor();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            return -1;
        }
    }

    long pid() {
        return process.pid();
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

    /** Ends the process at once (SIGKILL); the first reason given stands. */
    void kill(String why) {
        if (why != null && reason == null) {
            reason = why;
        }
        process.destroyForcibly();
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
        try {
            if (!process.waitFor(grace.toNanos(), TimeUnit.NANOSECONDS)) {
                process.destroyForcibly();
            }
            process.waitFor();
            reader.join(5000);
        } catch (InterruptedException e) {
            process.destroyForcibly();
            Thread.currentThread().interrupt();
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
        try {
            if (!process.waitFor(2, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                process.waitFor();
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        if (reason == null) {
            // The output is read to its end first: a fatal signal's report in it names the cause
            // better than the status the JVM exits with after it.
            try {
                drain.join(2000);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
        }
        if (reason == null) {
            reason = exitReason(process.exitValue());
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
        if (errorFile != null) {
            try {
                Files.deleteIfExists(errorFile.resolveSibling(errorFile.getFileName().toString()
                        .replace("%p", Long.toString(process.pid()))));
            } catch (IOException e) {
                // a report left behind
            }
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

    /** The last lines the process wrote, as they are now. */
    private java.util.List<String> lastLines() {
        synchronized (lastLines) {
            return new ArrayList<>(lastLines);
        }
    }

    /** "signal 11 (SIGSEGV)" for a death by signal (status 128 + n), else "exit status n". */
    static String exitReason(int status) {
        if (status > 128 && status < 128 + 32) {
            int signal = status - 128;
            String name = switch (signal) {
                case 4 -> "SIGILL";
                case 6 -> "SIGABRT";
                case 7 -> "SIGBUS";
                case 8 -> "SIGFPE";
                case 9 -> "SIGKILL";
                case 11 -> "SIGSEGV";
                case 15 -> "SIGTERM";
                default -> null;
            };
            return "signal " + signal + (name == null ? "" : " (" + name + ")");
        }
        return "exit status " + status;
    }

    /**
     * Drains the process's output (standard error, with standard output
     * joined to it) all the time, keeping the last lines and watching for a
     * fatal signal.
     */
    private void drainErrors() {
        try (BufferedReader err = new BufferedReader(
                new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8))) {
            for (String line = err.readLine(); line != null; line = err.readLine()) {
                synchronized (lastLines) {
                    if (lastLines.size() == LAST_LINES) {
                        lastLines.removeFirst();
                    }
                    lastLines.addLast(line);
                }
                Matcher m = FATAL_SIGNAL.matcher(line);
                if (m.find()) {
                    // The JVM would go on to write its report: the task fails now.
                    kill("signal " + Integer.parseInt(m.group(2), 16) + " (" + m.group(1) + ")");
                }
            }
        } catch (IOException e) {
            // the process ended
        }
    }

    /** The resident memory of the process, in bytes; -1 when it cannot be read. */
    long residentBytes() {
        try {
            for (String line : Files.readAllLines(Path.of("/proc", Long.toString(process.pid()), "status"))) {
                if (line.startsWith("VmRSS:")) {
                    String[] parts = line.substring(6).trim().split("\\s+");
                    return Long.parseLong(parts[0]) * 1024;
                }
            }
        } catch (IOException | RuntimeException e) {
            // ended, or no /proc
        }
        return -1;
    }

    /**
     * The command that starts a worker's JVM in a session of its own, so that
     * the signals a terminal sends its foreground process group (Ctrl-C,
     * Ctrl-\\) never reach it: only the pool interrupts or kills a worker.
     */
    static java.util.List<String> detached(java.util.List<String> command) {
        if (!Files.isExecutable(SETSID)) {
            return command;
        }
        java.util.List<String> c = new ArrayList<>(command.size() + 1);
        c.add(SETSID.toString());
        c.addAll(command);
        return c;
    }

    private static final Path SETSID = Path.of("/usr/bin/setsid");

    static String javaCommand() {
        String home = System.getProperty("java.home");
        return home + File.separator + "bin" + File.separator + "java";
    }
}
