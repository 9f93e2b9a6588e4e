package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.io.File;
import java.io.IOException;
import java.lang.System.Logger.Level;
import java.net.URISyntaxException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.Executors;
import java.util.concurrent.ScheduledExecutorService;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.concurrent.atomic.AtomicLong;

/**
 * Kernels in worker processes: each worker is a child JVM with its own
 * kernel, so that a crash of native code, a computation that ignores
 * interrupts, or one that takes too much memory ends only that worker, and
 * several evaluations run at the same time.
 *
 * <pre>{@code
 * try (EnginePool pool = EnginePool.builder().workers(4).timeLimit(Duration.ofSeconds(30)).build()) {
 *     Result r = pool.submit("2^100;").join();
 *     Object product = pool.call("area", 3, 4.5).join();
 * }
 * }</pre>
 *
 * <p>{@link #submit} and {@link #call} run on any free worker, in a kernel
 * with no trace of earlier tasks: after each task the worker restarts its
 * kernel and runs the {@code initialize} statements again (unless
 * {@link Builder#resetEveryTask(boolean)} turned this off). A
 * {@link #session()} keeps one worker and its definitions until it is
 * closed.
 *
 * <p>A task whose time limit passes is interrupted; if it has not ended
 * after the grace time, its worker is killed. A worker whose resident
 * memory passes the memory limit is killed. A lost worker fails its own
 * task with a {@link WorkerLostException} (the task is not retried
 * elsewhere) and is replaced at once; the other workers are untouched.
 * Worker starts, losses and replacements are logged to the
 * {@link System.Logger} named {@code com.quorbit.ambrix.pool}.
 *
 * <p>Workers talk to the pool over Unix-domain sockets in a folder only
 * the user can open, and end by themselves when the pool's JVM ends,
 * however it ends. With another {@link Launcher}, such as
 * {@link SlurmLauncher}, workers run anywhere (as a cluster's jobs) and
 * connect back over TCP, proving that they hold the pool's secret; see
 * {@link Builder#launcher}.
 *
 * <p>A thread that waits for a task's future with {@code join} or
 * {@code get} reads the worker's answer itself, so the answer wakes it
 * directly. A caller's interrupt status never harms a worker: {@code join}
 * keeps it, and {@code get} throws {@link InterruptedException} while the
 * task goes on.
 */
public final class EnginePool implements AutoCloseable {
    static final System.Logger LOG = System.getLogger("com.quorbit.ambrix.pool");

    /** The worker JVM's options unless javaOptions adds its own after them. */
    static final java.util.List<String> DEFAULT_JAVA_OPTIONS = java.util.List.of("-Xmx64m", "-Xss1m",
            "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1", "-XX:CICompilerCount=1", "-XX:ReservedCodeCacheSize=16m",
            "-XX:MaxMetaspaceSize=64m", "-XX:+DisplayVMOutputToStderr", "-XX:-CreateCoredumpOnCrash",
            "-XX:-UsePerfData");
    private static final String[] FORWARDED = {"ambrix.library.path", "ambrix.kernel", "ambrix.tmpdir",
        "java.library.path", "java.io.tmpdir"};

    private final Builder settings;
    private final java.util.List<String> command;
    /** The folder of local workers' sockets, which only this user can open; null for remote workers. */
    private final Path socketFolder;
    /** Where workers connect: that folder, or a TCP listener. */
    private final Transport transport;
    /** Heartbeats in both directions, for workers over TCP; null for local ones. */
    private final Heartbeats heartbeats;
    private final ScheduledExecutorService timer;
    /** The threads that wait for remote workers to connect, however long they queue. */
    private final java.util.concurrent.ExecutorService starters = Executors.newCachedThreadPool(r -> {
        Thread t = new Thread(r, "ambrix-pool-start");
        t.setDaemon(true);
        return t;
    });
    /** The worker slots, each with its current launch. Guarded by lock. */
    private final Slot[] slots;
    private final AtomicLong ids = new AtomicLong();
    private final Object lock = new Object();
    /** Guarded by lock. */
    private final ArrayDeque<Object> waiting = new ArrayDeque<>();  // Task or CompletableFuture<Worker>
    private final ArrayDeque<Worker> idle = new ArrayDeque<>();
    private final java.util.List<Worker> workers = new ArrayList<>();
    private int starting;
    private boolean closed;
    private boolean warnedAboutSessions;

    /**
     * One worker slot: its launch now, the worker once connected, and how
     * many launches in a row ended before they were ready.
     */
    private static final class Slot {
        final int index;
        Launcher.Launched launched;
        Worker worker;
        int failures;
        /** Set when the slot gave up after failed launches; the reason of the last. */
        String gaveUp;

        Slot(int index) {
            this.index = index;
        }
    }

    /** Launches in a row that may end before they are ready, before a slot gives up. */
    static final int FAILED_LAUNCHES = 3;

    private EnginePool(Builder b) {
        settings = b;
        command = command(b);
        slots = new Slot[b.workers];
        for (int i = 0; i < slots.length; i++) {
            slots[i] = new Slot(i);
        }
        if (b.launcher.remote()) {
            socketFolder = null;
            try {
                transport = Transport.tcp(b.listenAddress, Handshake.newSecret());
            } catch (IOException e) {
                throw new VexelException("cannot listen for workers: " + e.getMessage());
            }
            heartbeats = new Heartbeats(b.heartbeatTimeout);
        } else {
            socketFolder = SocketFolders.make();
            transport = Transport.local(socketFolder);
            heartbeats = null;
        }
        timer = Executors.newSingleThreadScheduledExecutor(r -> {
            Thread t = new Thread(r, "ambrix-pool-timer");
            t.setDaemon(true);
            return t;
        });
    }

    /**
     * A builder with the defaults: as many workers as processors, no limits.
     *
     * @return the builder
     */
    public static Builder builder() {
        return new Builder();
    }

    /** The settings of a pool. */
    public static final class Builder {
        private int workers = Runtime.getRuntime().availableProcessors();
        private java.util.List<String> kernelArguments = java.util.List.of("-q");
        private java.util.List<String> initialize = java.util.List.of();
        private Duration timeLimit;
        private Duration graceTime = Duration.ofSeconds(1);
        private long memoryLimit;
        private java.util.List<String> javaOptions = java.util.List.of();
        private boolean resetEveryTask = true;
        private Launcher launcher = Launcher.local();
        private String listenAddress;
        private Duration heartbeatTimeout = Duration.ofSeconds(10);

        private Builder() {
        }

        /**
         * How workers are started (default {@link Launcher#local()}): with a
         * launcher for a cluster, such as {@link SlurmLauncher}, they connect
         * back over TCP, and {@link #build()} returns once they are submitted.
         *
         * @param launcher the launcher
         * @return this builder
         */
        public Builder launcher(Launcher launcher) {
            if (launcher == null) {
                throw new IllegalArgumentException("launcher must not be null");
            }
            this.launcher = launcher;
            return this;
        }

        /**
         * The address that remote workers connect to, and that the pool
         * listens on (default: this host's name, listening on every address).
         *
         * @param address a host name or an IP address of this machine
         * @return this builder
         */
        public Builder listenAddress(String address) {
            listenAddress = address;
            return this;
        }

        /**
         * How long a remote worker may stay silent before the pool takes it
         * for lost and ends its job, and how long a worker waits for the
         * pool's heartbeat before it ends itself (default 10 s).
         *
         * @param timeout at least a second
         * @return this builder
         */
        public Builder heartbeatTimeout(Duration timeout) {
            if (timeout == null || timeout.compareTo(Duration.ofSeconds(1)) < 0) {
                throw new IllegalArgumentException("heartbeatTimeout must be at least a second");
            }
            heartbeatTimeout = timeout;
            return this;
        }

        /**
         * The number of worker processes.
         *
         * @param n at least 1
         * @return this builder
         */
        public Builder workers(int n) {
            if (n < 1) {
                throw new IllegalArgumentException("workers must be at least 1, not " + n);
            }
            workers = n;
            return this;
        }

        /**
         * Each kernel's start arguments (default: "-q").
         *
         * @param args the arguments
         * @return this builder
         */
        public Builder kernelArguments(String... args) {
            kernelArguments = java.util.List.of(args);
            return this;
        }

        /**
         * Statements run at each kernel's start and after each reset.
         *
         * @param statements the statements, run in order
         * @return this builder
         */
        public Builder initialize(String... statements) {
            initialize = java.util.List.of(statements);
            return this;
        }

        /**
         * The default time limit of a task; none unless set.
         *
         * @param limit a positive duration
         * @return this builder
         */
        public Builder timeLimit(Duration limit) {
            timeLimit = positive(limit, "timeLimit");
            return this;
        }

        /**
         * How long an interrupted task may take to end before its worker is
         * killed (default 1 s).
         *
         * @param grace zero or more
         * @return this builder
         */
        public Builder graceTime(Duration grace) {
            if (grace == null || grace.isNegative()) {
                throw new IllegalArgumentException("graceTime must be zero or more");
            }
            graceTime = grace;
            return this;
        }

        /**
         * The resident memory a worker process may take; none unless set.
         *
         * @param bytes a positive number of bytes
         * @return this builder
         */
        public Builder memoryLimit(long bytes) {
            if (bytes <= 0) {
                throw new IllegalArgumentException("memoryLimit must be positive");
            }
            memoryLimit = bytes;
            return this;
        }

        /**
         * Options for each worker's JVM, after the pool's small defaults (a
         * 64 MiB heap and the like).
         *
         * @param options the JVM's options
         * @return this builder
         */
        public Builder javaOptions(String... options) {
            javaOptions = java.util.List.of(options);
            return this;
        }

        /**
         * Whether each submit or call runs in a fresh kernel (default true);
         * false keeps definitions from task to task, for trusted batch work.
         *
         * @param reset whether to reset
         * @return this builder
         */
        public Builder resetEveryTask(boolean reset) {
            resetEveryTask = reset;
            return this;
        }

        /**
         * Starts the workers. With the local launcher it returns once every
         * one is ready; with another, once every one is submitted: tasks
         * wait in line until a worker is ready ({@link #awaitWorkers}).
         *
         * @return the pool
         * @throws VexelException when a local worker does not start, or no
         *         remote one can be submitted, with the reason
         */
        public EnginePool build() {
            EnginePool pool = new EnginePool(this);
            pool.startAll();
            return pool;
        }

        private static Duration positive(Duration d, String what) {
            if (d == null || d.isNegative() || d.isZero()) {
                throw new IllegalArgumentException(what + " must be positive");
            }
            return d;
        }
    }

    private static java.util.List<String> command(Builder b) {
        java.util.List<String> c = new ArrayList<>();
        c.add(LocalLauncher.javaCommand());
        c.addAll(DEFAULT_JAVA_OPTIONS);
        for (String p : FORWARDED) {
            String v = System.getProperty(p);
            if (v != null) {
                c.add("-D" + p + "=" + v);
            }
        }
        c.addAll(b.javaOptions);
        c.add("-cp");
        c.add(classPath());
        c.add(WorkerMain.class.getName());
        return c;
    }

    /** Where this class came from: ambrix.jar, or a folder of classes. */
    static String classPath() {
        try {
            return new File(EnginePool.class.getProtectionDomain().getCodeSource().getLocation().toURI()).getPath();
        } catch (URISyntaxException | RuntimeException e) {
            return System.getProperty("java.class.path");
        }
    }

    Duration graceTime() {
        return settings.graceTime;
    }

    Duration timeLimit() {
        return settings.timeLimit;
    }

    void schedule(Duration delay, Runnable action) {
        try {
            timer.schedule(action, delay.toNanos(), TimeUnit.NANOSECONDS);
        } catch (java.util.concurrent.RejectedExecutionException e) {
            // closed
        }
    }

    // ---- workers ----

    /**
     * Local workers: started at once, each waited for; any that does not
     * start fails the build. Remote workers: submitted, each then waited for
     * on a thread of its own, however long it queues.
     */
    private void startAll() {
        if (settings.launcher.remote()) {
            for (Slot slot : slots) {
                launchAndWait(slot);
            }
            synchronized (lock) {
                if (noSlotLeft()) {
                    String why = slots[slots.length - 1].gaveUp;
                    closeQuietly();
                    throw new VexelException("no worker could be started: " + why);
                }
            }
        } else {
            java.util.List<CompletableFuture<Worker>> started = new ArrayList<>();
            for (Slot slot : slots) {
                started.add(CompletableFuture.supplyAsync(() -> startLocal(slot), starters));
            }
            try {
                for (CompletableFuture<Worker> f : started) {
                    release(f.get());
                }
            } catch (ExecutionException e) {
                closeQuietly();
                throw unwrap(e.getCause(), "a worker did not start: ");
            } catch (InterruptedException e) {
                closeQuietly();
                Thread.currentThread().interrupt();
                throw new VexelException("interrupted while the workers started");
            }
        }
        if (settings.memoryLimit > 0) {
            timer.scheduleAtFixedRate(this::sampleMemory, 50, 50, TimeUnit.MILLISECONDS);
        }
    }

    private void closeQuietly() {
        try {
            close();
        } catch (RuntimeException e) {
            // the build's own failure is what the caller sees
        }
    }

    /** Launches a worker into the slot: its command, with where and as what to connect. */
    private Launcher.Launched launch(Slot slot, Transport.Rendezvous rendezvous) throws IOException {
        java.util.List<String> c = new ArrayList<>(command);
        c.addAll(rendezvous.arguments());
        if (heartbeats != null) {
            c.add("--heartbeat=" + settings.heartbeatTimeout.toMillis());
        }
        Launcher.Launched launched = settings.launcher.launch(
                new Launcher.Launch(c, rendezvous.environment(), settings.memoryLimit, "ambrix-worker"));
        if (launched == null) {
            throw new IOException("the launcher started nothing");
        }
        synchronized (lock) {
            slot.launched = launched;
        }
        return launched;
    }

    /** Starts one local worker and waits until its kernel is ready; it is not yet idle. */
    private Worker startLocal(Slot slot) {
        Launcher.Launched launched;
        Transport.Channels channels;
        try (Transport.Rendezvous rendezvous = transport.open()) {
            launched = launch(slot, rendezvous);
            channels = rendezvous.await(launched, Transport.LOCAL_CONNECT_NANOS);
        } catch (IOException e) {
            throw new VexelException("cannot start a worker process: " + e.getMessage());
        }
        return startKernel(slot, launched, channels);
    }

    /** A connected worker: its kernel started, waited for a minute at most. */
    private Worker startKernel(Slot slot, Launcher.Launched launched, Transport.Channels channels) {
        Worker w;
        try {
            w = new Worker(this, launched, channels, slot.index);
        } catch (IOException e) {
            launched.kill();
            throw new VexelException("cannot start a worker: " + e.getMessage());
        }
        synchronized (lock) {
            slot.worker = w;
        }
        if (heartbeats != null) {
            heartbeats.add(w);
        }
        Task init = task(Wire.INIT, null, false, false);
        init.frame.strings(settings.kernelArguments).strings(settings.initialize);
        try {
            w.start(init).get(60, TimeUnit.SECONDS);
        } catch (ExecutionException e) {
            w.kill("did not start");
            Throwable cause = e.getCause();
            throw new VexelException("a worker did not start: " + cause.getMessage());
        } catch (TimeoutException e) {
            w.kill("did not start within 60 s");
            throw new VexelException("a worker did not start within 60 s");
        } catch (InterruptedException e) {
            w.kill("did not start");
            Thread.currentThread().interrupt();
            throw new VexelException("interrupted while a worker started");
        }
        w.ready = true;
        synchronized (lock) {
            slot.failures = 0;
            lock.notifyAll();
        }
        LOG.log(Level.DEBUG, "worker " + w.name() + " started in "
                + TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - w.started) + " ms");
        return w;
    }

    /**
     * Submits a remote worker for the slot, then waits for it on a starter
     * thread. A launch that fails, or ends before its worker is ready, is
     * made again, until {@value #FAILED_LAUNCHES} in a row have: then the
     * slot gives up.
     */
    private void launchAndWait(Slot slot) {
        Transport.Rendezvous rendezvous;
        Launcher.Launched launched;
        try {
            rendezvous = transport.open();
        } catch (IOException e) {
            launchFailed(slot, "cannot listen for a worker: " + e.getMessage());
            return;
        }
        try {
            launched = launch(slot, rendezvous);
        } catch (IOException | RuntimeException e) {
            closeQuietly(rendezvous);
            launchFailed(slot, String.valueOf(e.getMessage()));
            return;
        }
        try {
            starters.execute(() -> {
                Worker w;
                try {
                    Transport.Channels channels = rendezvous.await(launched, 0);
                    w = startKernel(slot, launched, channels);
                } catch (IOException | RuntimeException e) {
                    launched.kill();
                    String why = launched.ended().getNow(null);
                    launchFailed(slot, why != null ? why : String.valueOf(e.getMessage()));
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
        if (late) {
            w.stop("pool closed", Duration.ZERO);
        } else {
            release(w);
        }
    }

    /** Fails every queued request, tasks and session requests alike. */
    private static void failAll(java.util.List<Object> requests, RuntimeException failure) {
        for (Object request : requests) {
            if (request instanceof Task t) {
                t.future.completeExceptionally(failure);
            } else {
                ((CompletableFuture<?>) request).completeExceptionally(failure);
            }
        }
    }

    private static void closeQuietly(java.io.Closeable c) {
        try {
            c.close();
        } catch (IOException e) {
            // closed anyway
        }
    }

    /** A launch ended before its worker was ready: another, or the slot gives up. */
    private void launchFailed(Slot slot, String why) {
        boolean again;
        java.util.List<Object> stranded = java.util.List.of();
        synchronized (lock) {
            slot.launched = null;
            slot.worker = null;
            if (closed) {
                return;
            }
            slot.failures++;
            again = slot.failures < FAILED_LAUNCHES;
            if (!again) {
                slot.gaveUp = why;
                lock.notifyAll();
                if (noSlotLeft()) {
                    // No worker will ever take what waits: it fails with the last reason.
                    stranded = new ArrayList<>(waiting);
                    waiting.clear();
                }
            }
        }
        if (again) {
            LOG.log(Level.WARNING, "a worker ended before it was ready (" + why + "); launching another");
            launchAndWait(slot);
            return;
        }
        LOG.log(Level.ERROR, "worker slot " + slot.index + " gave up after " + FAILED_LAUNCHES
                + " launches in a row ended before they were ready: " + why);
        failAll(stranded, new VexelException("no worker could be started: " + why));
    }

    /** Whether every slot gave up. Under lock. */
    private boolean noSlotLeft() {
        return Arrays.stream(slots).allMatch(s -> s.gaveUp != null);
    }

    /**
     * Waits until at least n workers are ready (free or busy): remote ones
     * may wait in their scheduler's queue first.
     *
     * @param n       how many
     * @param timeout how long at most
     * @return true when n were ready in time; false when the time passed
     *         first, or when fewer than n ever can be
     */
    public boolean awaitWorkers(int n, Duration timeout) {
        long deadline = System.nanoTime() + timeout.toNanos();
        synchronized (lock) {
            while (true) {
                int ready = 0;
                int able = 0;
                for (Slot s : slots) {
                    if (s.worker != null && s.worker.serving()) {
                        ready++;
                    }
                    if (s.gaveUp == null) {
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

    /**
     * A snapshot of every worker slot: where its worker runs, its job, and
     * what it does.
     *
     * @return one state per slot, in slot order
     */
    public java.util.List<WorkerState> workerStates() {
        java.util.List<WorkerState> states = new ArrayList<>();
        synchronized (lock) {
            for (Slot s : slots) {
                Launcher.Launched l = s.launched;
                Worker w = s.worker;
                WorkerState.Status status;
                if (s.gaveUp != null) {
                    status = WorkerState.Status.LOST;
                } else if (w != null && w.serving()) {
                    status = w.busy() ? WorkerState.Status.BUSY : WorkerState.Status.READY;
                } else if (l != null && l.queued()) {
                    status = WorkerState.Status.QUEUED;
                } else {
                    status = WorkerState.Status.STARTING;
                }
                states.add(new WorkerState(l == null ? null : l.host(), l == null ? null : l.job(), status));
            }
        }
        return states;
    }

    /** The workers connected now. Under lock. */
    private java.util.List<Worker> workers() {
        java.util.List<Worker> all = new ArrayList<>();
        for (Slot s : slots) {
            if (s.worker != null) {
                all.add(s.worker);
            }
        }
        return all;
    }

    private void sampleMemory() {
        java.util.List<Worker> all;
        synchronized (lock) {
            all = workers();
        }
        for (Worker w : all) {
            long rss = w.residentBytes();
            if (rss > settings.memoryLimit && w.alive()) {
                w.kill("memory limit of " + (settings.memoryLimit >> 20) + " MiB passed");
            }
        }
    }

    /** A worker has finished a task (called on its reader thread). */
    void finished(Worker w, Task task) {
        if (task.kind == Wire.RESET && task.future.isCompletedExceptionally()) {
            // Its kernel did not come back as the pool set it up: a new worker takes its place.
            w.kill("the reset failed: " + task.future.handle((v, e) -> String.valueOf(e.getMessage())).join());
            return;
        }
        if (!task.pooled) {
            return;
        }
        if (task.resetAfter) {
            w.run(resetTask());
            return;
        }
        release(w);
    }

    private Task resetTask() {
        return task(Wire.RESET, null, false, true);
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
                idle.add(w);
                lock.notifyAll();
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
            if (!w.run(next)) {
                dispatch(next, true);
            }
        } else if (!sessionRequest.complete(w)) {
            release(w);
        }
    }

    /** A worker ended: its task has failed; a new worker takes its place. */
    void lost(Worker w, WorkerLostException e) {
        Slot slot = slots[w.slot];
        boolean replace;
        synchronized (lock) {
            if (slot.worker == w) {
                slot.worker = null;
                slot.launched = null;
            }
            idle.remove(w);
            // A worker that never became ready is not replaced here: its start failed.
            replace = !closed && w.ready;
            if (replace) {
                starting++;
            }
        }
        if (heartbeats != null) {
            heartbeats.remove(w);
        }
        Session s = w.session;
        if (s != null) {
            s.lost(e);
        }
        if (!replace) {
            return;
        }
        LOG.log(Level.WARNING, "worker " + w.name() + " lost: " + e.getMessage());
        if (settings.launcher.remote()) {
            launchAndWait(slot);
            synchronized (lock) {
                starting--;
                lock.notifyAll();
            }
            return;
        }
        CompletableFuture.supplyAsync(() -> startLocal(slot), starters).whenComplete((fresh, failure) -> {
            if (fresh != null) {
                LOG.log(Level.INFO, "worker " + fresh.name() + " replaced worker " + w.name());
                admit(fresh);
            } else {
                LOG.log(Level.ERROR, "worker " + w.name() + " could not be replaced: " + failure);
            }
            synchronized (lock) {
                starting--;
                lock.notifyAll();
            }
        });
    }

    // ---- requests ----

    /** A new task of that kind; its frame holds the header, and the caller adds the payload. */
    private Task task(byte kind, Duration limit, boolean resetAfter, boolean pooled) {
        return new Task(ids.incrementAndGet(), kind, limit, resetAfter, pooled);
    }

    /** A statement's task: a pooled one resets its worker after it (as settings say) and frees it. */
    Task evalTask(String statement, Duration limit, boolean pooled) {
        if (statement == null) {
            throw new VexelException("Statement is NULL");
        }
        Task t = task(Wire.EVAL, limit, pooled && settings.resetEveryTask, pooled);
        t.frame.string(statement);
        return t;
    }

    Task callTask(String procedure, Object[] args, Duration limit, boolean pooled) {
        if (procedure == null) {
            throw new VexelException("Procedure name is NULL");
        }
        Task t = task(Wire.CALL, limit, pooled && settings.resetEveryTask, pooled);
        t.frame.string(procedure).value(Arrays.asList(args == null ? new Object[0] : args));
        return t;
    }

    /** A session's request for help text. */
    Task helpTask(String topic, int section, int width) {
        if (topic == null) {
            throw new VexelException("Topic is NULL");
        }
        Task t = task(Wire.HELP, null, false, false);
        t.frame.string(topic).number(section).number(width);
        return t;
    }

    /**
     * Evaluates statements on a free worker, with the pool's default time
     * limit. The future completes with the {@link Result}, or exceptionally
     * with a {@link VexelException}: the kernel's error, "time limit of ...
     * passed", or a {@link WorkerLostException}.
     *
     * <p>A worker held by an open {@link #session()} takes no task: while
     * every worker is held, the task waits in line until a session is
     * closed (so a pool of one worker with an open session never runs it).
     * The pool logs a warning the first time this happens.
     *
     * @param statement one or more statements
     * @return the future of the task's {@link Result}
     */
    public CompletableFuture<Result> submit(String statement) {
        return submit(statement, settings.timeLimit);
    }

    /**
     * As {@link #submit(String)}, with this time limit.
     *
     * @param statement one or more statements
     * @param timeLimit the time limit, or null for none
     * @return the future of the task's {@link Result}
     */
    public CompletableFuture<Result> submit(String statement, Duration timeLimit) {
        Task t = evalTask(statement, timeLimit, true);
        dispatch(t, false);
        // A statement's task completes with a Result; the task's own future is returned, since a thread
        // waiting on it reads the answer itself (a dependent future would be completed by another thread).
        @SuppressWarnings("unchecked")
        CompletableFuture<Result> f = (CompletableFuture<Result>) (CompletableFuture<?>) t.future;
        return f;
    }

    /**
     * Calls the kernel procedure of that name on a free worker; the
     * arguments are converted as {@code Engine.toKernel} does, and the
     * result as {@code Algebraic.toJava()} does (null where it has no Java
     * form). Failures as for {@link #submit(String)}.
     *
     * @param procedure the procedure's name
     * @param args      the arguments
     * @return the future of the result in Java, or of null
     *
     * @throws VexelException at once for an argument that cannot be sent
     */
    public CompletableFuture<Object> call(String procedure, Object... args) {
        Task t = callTask(procedure, args, settings.timeLimit, true);
        dispatch(t, false);
        return t.future;
    }

    /**
     * Runs the task on a free worker, or puts it in line: first in line for
     * a task that met a worker as it ended.
     */
    private void dispatch(Task t, boolean first) {
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
                return;
            }
        }
        if (!w.run(t)) {
            dispatch(t, true);
        }
    }

    /**
     * A task that waits while every worker is held by an open session waits
     * until one of them closes: said once per pool, since it is the likely
     * reason for a program that seems to hang. Under lock.
     */
    private void warnIfHeldBySessions() {
        java.util.List<Worker> workers = workers();
        if (warnedAboutSessions || starting > 0 || workers.isEmpty()) {
            return;
        }
        for (Worker w : workers) {
            if (w.session == null) {
                return;
            }
        }
        warnedAboutSessions = true;
        LOG.log(Level.WARNING, "a task waits in line while every worker (" + workers.size()
                + ") is held by an open session; it runs only when a session is closed");
    }

    /**
     * Takes a worker for a session of statements that share definitions;
     * waits for one to be free. The worker serves only this session until
     * it is closed: {@link #submit} and {@link #call} wait while every
     * worker is held by a session, so leave at least one worker free for
     * them, or close the session first.
     *
     * @return the session, which holds its worker until closed
     *
     * @throws VexelException when the pool is closed
     */
    public Session session() {
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
        Session s = new Session(this, w);
        w.session = s;
        return s;
    }

    /** A session ends: its worker is reset, then free again. */
    void endSession(Worker w) {
        w.session = null;
        if (w.alive()) {
            w.run(resetTask());
        }
    }

    /** What failed a future, as the pool's callers get it: a runtime exception as it is, else wrapped. */
    static RuntimeException unwrap(Throwable cause, String prefix) {
        return cause instanceof RuntimeException r ? r : new VexelException(prefix + cause);
    }

    private static WorkerLostException closedError() {
        return new WorkerLostException("pool closed", java.util.List.of());
    }

    /**
     * The process ids of the workers alive now, on this machine; workers of
     * another launcher (a cluster's jobs) have none here: see
     * {@link #workerStates()}.
     *
     * @return the ids
     */
    public java.util.List<Long> workerPids() {
        synchronized (lock) {
            return workers().stream().map(Worker::pid).filter(pid -> pid > 0).toList();
        }
    }

    /**
     * Fails the tasks still running or queued with "pool closed", and ends
     * every worker: its input is closed, and after the grace time it is
     * killed. Returns once no worker is left. A second close does nothing.
     */
    @Override
    public void close() {
        java.util.List<Worker> all;
        java.util.List<Object> queued;
        java.util.List<Launcher.Launched> pending = new ArrayList<>();
        synchronized (lock) {
            if (closed) {
                return;
            }
            closed = true;
            all = workers();
            // Launches with no worker yet (queued or starting): their jobs are cancelled too.
            for (Slot slot : slots) {
                if (slot.launched != null && slot.worker == null) {
                    pending.add(slot.launched);
                }
            }
            queued = new ArrayList<>(waiting);
            waiting.clear();
            idle.clear();
        }
        failAll(queued, closedError());
        if (heartbeats != null) {
            heartbeats.close();
        }
        transport.close();
        for (Launcher.Launched l : pending) {
            l.cancel();
        }
        java.util.List<Thread> stopping = new ArrayList<>();
        for (Launcher.Launched l : pending) {
            Thread t = new Thread(() -> endLaunch(l), "ambrix-pool-close");
            t.start();
            stopping.add(t);
        }
        for (Worker w : all) {
            Thread t = new Thread(() -> w.stop("pool closed", settings.graceTime), "ambrix-pool-close");
            t.start();
            stopping.add(t);
        }
        for (Thread t : stopping) {
            try {
                t.join();
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
        }
        // Replacements that were starting end as soon as they are ready.
        synchronized (lock) {
            while (starting > 0) {
                try {
                    lock.wait();
                } catch (InterruptedException e) {
                    Thread.currentThread().interrupt();
                    break;
                }
            }
        }
        timer.shutdownNow();
        starters.shutdownNow();
        if (socketFolder != null) {
            SocketFolders.remove(socketFolder);
        }
    }

    /** Waits for a cancelled launch to end, the grace time at most; then kills it. */
    private void endLaunch(Launcher.Launched l) {
        if (!Worker.endWithin(l, settings.graceTime.toNanos()) && !Thread.currentThread().isInterrupted()) {
            LOG.log(Level.WARNING, "a worker did not end after it was killed");
        }
    }
}
