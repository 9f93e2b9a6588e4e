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
 * memory passes the memory limit is killed. A task whose worker is lost
 * through no fault of the task's own runs again on another worker, up to
 * {@link Builder#retries} times; otherwise, and once the retries are spent,
 * it fails with a {@link WorkerLostException}. A lost worker is replaced
 * where the pool's size asks for it ({@link Builder#workers(int, int)});
 * the other workers are untouched.
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
        dispatch = new Dispatch(timers, tasks, settings.maxWorkers(), settings.maxTasksPerWorker(), counters);
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
        if (settings.maxWorkers() > settings.minWorkers()) {
            // Idle workers are looked for four times per idle timeout, once a second at least.
            Duration look = settings.idleTimeout().dividedBy(4);
            pool.timers.every(look.compareTo(Duration.ofSeconds(1)) > 0 ? Duration.ofSeconds(1)
                    : look.compareTo(Duration.ofMillis(10)) < 0 ? Duration.ofMillis(10) : look,
                    pool.supervisor::endIdle);
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
        private int minWorkers = Runtime.getRuntime().availableProcessors();
        private int maxWorkers = minWorkers;
        private Duration idleTimeout = Duration.ofSeconds(60);
        private int maxTasksPerWorker;
        private int retries = 2;
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
         * The build logs both once. A worker that cannot connect there, or
         * whose secret the pool refuses, says why: the log line of its
         * launch, and the failure of what waits when no worker can start,
         * name its host, the address it was given and its error ("the
         * worker on c1 could not connect to head:40123: No route to host;
         * set listenAddress to an address the nodes reach").
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
         * The number of worker processes, fixed: {@code workers(n, n)}.
         *
         * @param n at least 1
         * @return this builder
         */
        public Builder workers(int n) {
            if (n < 1) {
                throw new IllegalArgumentException("workers must be at least 1, not " + n);
            }
            return workers(n, n);
        }

        /**
         * A pool whose size follows its load. It starts {@code min} workers.
         * A task or a session that waits for a worker launches another, at
         * most one per waiting request, while fewer than {@code max} exist;
         * a worker that has had no task for the {@link #idleTimeout} is
         * ended (its job cancelled) while more than {@code min} exist. With
         * {@code workers(0, n)} on a cluster, an idle pool holds no job.
         *
         * @param min zero or more
         * @param max at least 1, and at least min
         * @return this builder
         */
        public Builder workers(int min, int max) {
            if (min < 0 || max < 1 || min > max) {
                throw new IllegalArgumentException("workers(min, max) needs 0 <= min <= max and max >= 1, not ("
                        + min + ", " + max + ")");
            }
            minWorkers = min;
            maxWorkers = max;
            return this;
        }

        /**
         * How long a worker beyond the pool's minimum may go without a task
         * or a session before it is ended (default 60 s); see
         * {@link #workers(int, int)}.
         *
         * @param timeout a positive duration
         * @return this builder
         */
        public Builder idleTimeout(Duration timeout) {
            idleTimeout = positive(timeout, "idleTimeout");
            return this;
        }

        /**
         * Ends each worker after that many tasks (a session counts as one),
         * between two of them, never during one; another takes its place
         * where the pool's size asks for one. It guards a long-running pool
         * against a kernel's slow growth. Default 0: no limit.
         *
         * @param n zero or more
         * @return this builder
         */
        public Builder maxTasksPerWorker(int n) {
            if (n < 0) {
                throw new IllegalArgumentException("maxTasksPerWorker must be zero or more, not " + n);
            }
            maxTasksPerWorker = n;
            return this;
        }

        /**
         * How many more times a task of {@link EnginePool#submit} or
         * {@link EnginePool#call} runs, each on another worker, when its
         * worker is lost while it runs through no fault of its own (default
         * 2): the connection or the heartbeats were lost, or its host died;
         * the scheduler ended, preempted or cancelled the job; someone
         * outside the pool killed the worker; or the cause is not known. A
         * task is not run again when the pool ended its worker for the
         * task's time or memory limit, or when the kernel crashed while
         * running it (SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT): another run
         * would only repeat that. A session's statements never run again.
         * {@link Result#attempts()} tells how many runs a result took; when
         * the retries are spent, the {@link WorkerLostException} names each
         * run's host and reason.
         *
         * <p>Each run starts in a fresh kernel, so a retry is safe for the
         * kernel's state; what a lost run did outside its kernel (a file it
         * wrote) stays done. With
         * {@link #resetEveryTask(boolean) resetEveryTask(false)}, a retry
         * runs on a worker whose kernel holds what earlier tasks on that
         * worker left, not what the lost worker held: a task that depends on
         * earlier ones may see other state on its retry.
         *
         * @param n zero or more; 0 turns retries off
         * @return this builder
         */
        public Builder retries(int n) {
            if (n < 0) {
                throw new IllegalArgumentException("retries must be zero or more, not " + n);
            }
            retries = n;
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
            return EnginePool.start(new PoolSettings(minWorkers, maxWorkers, idleTimeout, maxTasksPerWorker, retries,
                    kernelArguments, initialize, timeLimit, graceTime,
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
     * may wait in their scheduler's queue first. A pool of
     * {@code workers(min, max)} launches what is missing for n first, up to
     * max; those beyond min end again after the idle timeout.
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
     * A snapshot of every worker slot in use: where its worker runs, its
     * job, and what it does. A pool of {@code workers(min, max)} uses a
     * slot while it holds a worker or one starting (and a slot that gave up
     * stays {@code LOST}); its other slots are not listed.
     *
     * @return one state per slot in use, in slot order
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
