package com.quorbit.ambrix.pool;

import java.io.DataInputStream;
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
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;

/**
 * The pool's side of one worker process: its channel, the task it runs, the
 * limits on that task, and the process's end.
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
    private final DataInputStream in;
    private final ArrayDeque<String> lastLines = new ArrayDeque<>();
    private final AtomicBoolean ended = new AtomicBoolean();
    private final Thread reader;
    private Thread drain;
    private final Path errorFile;
    /** Why the pool ended the process, or what killed it; null while it lives. */
    private volatile String reason;
    /** The task on the worker now, or null. Guarded by this. */
    private Task current;
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
            process = new ProcessBuilder(c).redirectErrorStream(true).redirectInput(ProcessBuilder.Redirect.PIPE)
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
        in = Wire.input(channel);
        reader = new Thread(this::readAnswers, "ambrix-worker-" + process.pid());
        reader.setDaemon(true);
        reader.start();
    }

    /** The worker's connection; fails when the process ends first or takes a minute. */
    private SocketChannel accept(ServerSocketChannel server) throws IOException {
        server.configureBlocking(false);
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
        while (true) {
            SocketChannel c = server.accept();
            if (c != null) {
                c.configureBlocking(true);
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
            try {
                task.frame.send(out);
            } catch (IOException e) {
                // The reader sees the end and fails the task.
                kill(null);
                return true;
            }
        }
        if (task.limit != null) {
            pool.schedule(task.limit, () -> limitPassed(task));
        }
        return true;
    }

    private void limitPassed(Task task) {
        synchronized (this) {
            if (current != task || task.future.isDone()) {
                return;
            }
            task.limitPassed = true;
            sendInterrupt(task.id);
        }
        Duration grace = pool.graceTime();
        pool.schedule(grace, () -> {
            synchronized (this) {
                if (current != task || task.future.isDone()) {
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
            if (current == task && task != null && !task.future.isDone()) {
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

    /** The reader thread: every answer completes the task it names; the end of input is the process's end. */
    private void readAnswers() {
        String failure = null;
        try {
            for (Wire.Frame f = Wire.read(in); f != null; f = Wire.read(in)) {
                answered(f);
            }
        } catch (Wire.WireException e) {
            failure = "protocol error: " + e.getMessage();
        } catch (IOException e) {
            // the process ended
        }
        if (failure != null) {
            kill(failure);
        }
        ended();
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
        for (SocketChannel c : new SocketChannel[] {channel, control}) {
            try {
                c.close();
            } catch (IOException e) {
                // closed with the process
            }
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

    static String javaCommand() {
        String home = System.getProperty("java.home");
        return home + File.separator + "bin" + File.separator + "java";
    }
}
