package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.time.Duration;
import java.util.concurrent.CompletableFuture;

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
 * <p>{@link #stats()} tells how many workers the pool holds, how many are
 * free or busy, how many tasks wait, and how many completed, failed or were
 * lost with their worker; the pool's JMX bean
 * ({@code com.quorbit.ambrix:type=EnginePool,name=}{@link Builder#name NAME}
 * in the platform MBean server, see {@link EnginePoolMXBean}) shows the
 * same to {@code jconsole} and other JMX clients while the pool is open.
 *
 * <p>A thread that waits for a task's future with {@code join} or
 * {@code get} reads the worker's answer itself, so the answer wakes it
 * directly. A caller's interrupt status never harms a worker: {@code join}
 * keeps it, and {@code get} throws {@link InterruptedException} while the
 * task goes on.
 */
public final class EnginePool implements AutoCloseable {
    static final System.Logger LOG = System.getLogger("com.quorbit.ambrix.pool");

    private final PoolSettings settings;
    private final Timers timers;
    private final Tasks tasks;
    private final Dispatch dispatch;
    private final Supervisor supervisor;
    private final PoolCounters counters = new PoolCounters();
    /** The pool's JMX bean, registered while the build starts the workers; null until the build begins. */
    private volatile CompletableFuture<PoolBean> bean;
    private final java.util.concurrent.atomic.AtomicBoolean closed = new java.util.concurrent.atomic.AtomicBoolean();

    private EnginePool(PoolSettings settings) {
        this.settings = settings;
        timers = new Timers(settings.graceTime());
        tasks = new Tasks(settings, counters);
        dispatch = new Dispatch(timers, tasks, settings.workers());
        try {
            supervisor = new Supervisor(settings, dispatch, tasks, counters);
        } catch (RuntimeException e) {
            timers.close();
            throw e;
        }
    }

    /**
     * A pool with these settings, its bean registered under that name (null
     * for the next default one), its workers started (local ones) or
     * submitted (remote ones).
     */
    private static EnginePool start(PoolSettings settings, String name) {
        EnginePool pool = new EnginePool(settings);
        // The platform MBean server starts on its first use, which takes a few hundred ms: the workers start
        // meanwhile. A name another open pool holds fails the build once they have started.
        pool.bean = CompletableFuture.supplyAsync(() -> PoolBean.register(name, pool::stats), r -> {
            Thread t = new Thread(r, "ambrix-pool-bean");
            t.setDaemon(true);
            t.start();
        });
        try {
            pool.supervisor.startAll();
            pool.bean.join();
        } catch (RuntimeException e) {
            try {
                pool.close();
            } catch (RuntimeException ignored) {
                // the build's own failure is what the caller sees
            }
            throw e instanceof java.util.concurrent.CompletionException && e.getCause() instanceof RuntimeException r
                    ? r : e;
        }
        if (settings.memoryLimit() > 0) {
            pool.timers.every(Duration.ofMillis(50), pool.supervisor::sampleMemory);
        }
        return pool;
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
        private String name;

        private Builder() {
        }

        /**
         * The pool's name, under which its JMX bean is registered:
         * {@code com.quorbit.ambrix:type=EnginePool,name=NAME}. By default
         * {@code pool-N}, N counting the pools of this JVM built without a
         * name, from 1 (a name that an open pool holds is skipped). The name
         * goes into the object name as it is, never quoted, so it must do
         * without {@code , = : " * ?} and line breaks. Two open pools of one
         * JVM cannot share a name: the second one's {@link #build()} fails.
         *
         * @param name not blank, and usable unquoted in a JMX object name
         * @return this builder
         */
        public Builder name(String name) {
            PoolBean.objectName(name);
            this.name = name;
            return this;
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
         * pool's heartbeat before it ends itself (default 10 s). It also
         * bounds a write to any worker, local ones included: a worker that
         * reads nothing of a task or an interrupt for that long (a stopped
         * process, a full link) is taken for lost.
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
         * @throws IllegalStateException when an open pool of this JVM has
         *         the {@link #name(String) name} already
         */
        public EnginePool build() {
            return EnginePool.start(new PoolSettings(workers, kernelArguments, initialize, timeLimit, graceTime,
                    memoryLimit, javaOptions, resetEveryTask, launcher, listenAddress, heartbeatTimeout), name);
        }

        private static Duration positive(Duration d, String what) {
            if (d == null || d.isNegative() || d.isZero()) {
                throw new IllegalArgumentException(what + " must be positive");
            }
            return d;
        }
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
     * <p>A task's statement, encoded, may take an eighth of a worker's heap
     * (1 MiB per 8 MiB of {@code -Xmx}: 8 MiB with the default 64 MiB); a
     * larger one is refused at once with a {@link VexelException} that names
     * the limit. Give workers a larger heap with
     * {@link Builder#javaOptions} for larger statements or arguments.
     *
     * @param statement one or more statements
     * @return the future of the task's {@link Result}
     */
    public CompletableFuture<Result> submit(String statement) {
        return submit(statement, settings.timeLimit());
    }

    /**
     * As {@link #submit(String)}, with this time limit.
     *
     * @param statement one or more statements
     * @param timeLimit the time limit, or null for none
     * @return the future of the task's {@link Result}
     */
    public CompletableFuture<Result> submit(String statement, Duration timeLimit) {
        Task t = tasks.eval(statement, timeLimit, true);
        dispatch.dispatch(t, false);
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
        Task t = tasks.call(procedure, args, settings.timeLimit(), true);
        dispatch.dispatch(t, false);
        return t.future;
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
        Worker w = dispatch.takeForSession();
        Session s = new Session(dispatch, tasks, settings.timeLimit(), w);
        w.session = s;
        return s;
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
        return supervisor.awaitWorkers(n, timeout);
    }

    /**
     * A snapshot of every worker slot: where its worker runs, its job, and
     * what it does.
     *
     * @return one state per slot, in slot order
     */
    public java.util.List<WorkerState> workerStates() {
        return supervisor.workerStates();
    }

    /**
     * The pool's figures now: its workers, its line of tasks, and what it
     * has done since its build. Its JMX bean ({@link EnginePoolMXBean})
     * shows the same.
     *
     * @return a snapshot
     */
    public PoolStats stats() {
        return counters.stats(supervisor.heldSlots(), dispatch.queuedTasks());
    }

    /**
     * The pool's name, as its JMX bean's object name holds it:
     * {@code com.quorbit.ambrix:type=EnginePool,name=NAME}.
     *
     * @return the name given to its builder, or the default one
     */
    public String name() {
        return bean.join().name();
    }

    /**
     * The process ids of the workers alive now, on this machine; workers of
     * another launcher (a cluster's jobs) have none here: see
     * {@link #workerStates()}.
     *
     * @return the ids
     */
    public java.util.List<Long> workerPids() {
        return supervisor.workers().stream().map(Worker::pid).filter(pid -> pid > 0).toList();
    }

    /**
     * Fails the tasks still running or queued with "pool closed", and ends
     * every worker: its input is closed, and after the grace time it is
     * killed. Returns once no worker is left, its JMX bean unregistered and
     * its name free again. A second close does nothing.
     */
    @Override
    public void close() {
        if (!closed.compareAndSet(false, true)) {
            return;
        }
        try {
            dispatch.close();
            supervisor.close();
            timers.close();
        } finally {
            // A registration still under way (a build that failed) is waited for.
            PoolBean b = bean == null ? null : bean.handle((registered, failure) -> registered).join();
            if (b != null) {
                b.unregister();
            }
        }
    }
}
