package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/**
 * Workers as jobs of a Slurm cluster: one job per worker, named
 * {@code ambrix-worker}, submitted with {@code sbatch}. The job runs the
 * worker's JVM, which connects back to the pool over TCP and proves that it
 * holds the pool's secret, which it gets through its job's environment.
 *
 * <pre>{@code
 * EnginePool.builder().workers(64)
 *     .launcher(SlurmLauncher.builder().partition("compute").jobTime(Duration.ofHours(4)).build())
 *     .listenAddress("10.1.0.5")
 *     .build();
 * }</pre>
 *
 * <p>Each setting maps to an sbatch option: {@code partition} to
 * {@code --partition}, {@code account} to {@code --account}, {@code jobTime}
 * to {@code --time}, {@code cpusPerWorker} to {@code --cpus-per-task}, the
 * pool's memory limit to {@code --mem} (without one, {@code --mem=}{@value
 * #DEFAULT_MEMORY_MIB}{@code M}, unless {@code sbatchOptions} state the
 * memory); {@code sbatchOptions} are passed as they are. The job's output
 * goes to {@code output} ({@code /dev/null} unless set; {@code %j} stands for
 * the job's id).
 *
 * <p>The launcher watches its jobs with {@code squeue}, and tells a job's
 * end by the state {@code scontrol} gives it ("Slurm job 1234 ended
 * (CANCELLED)"). A worker that cannot connect to the pool, or whose secret
 * the pool refuses, leaves why in its job's comment, which needs no output
 * file and no file system shared with the nodes, and its job's end says it:
 * "Slurm job 1234 ended (FAILED): the worker on c1 could not connect to
 * head:40123: No route to host; set listenAddress to an address the nodes
 * reach". It ends jobs with {@code scancel}. Each of these commands
 * may take {@code commandTimeout} (60 s unless set), and is killed after it.
 * While the launcher has jobs that are not over, a shell of its own, outside
 * this JVM, cancels them if this JVM ends first, however it ends: a job
 * still waiting in the queue then waits for nothing.
 * An sbatch error that no retry can mend (a partition, account or QOS that
 * Slurm does not know, an option sbatch refuses), or an sbatch that does not
 * answer before any job of the launcher was submitted, is a
 * {@link Launcher.RefusedException}.
 */
public final class SlurmLauncher implements Launcher {
    /**
     * A job's memory in MiB when the pool has no memory limit and the sbatch
     * options name none. A worker's JVM takes at most about 250 MiB (a 64 MiB
     * heap, 64 MiB of metaspace, 16 MiB of code cache, its threads' stacks,
     * the JVM's own structures and libraries); the rest is the kernel's.
     */
    public static final int DEFAULT_MEMORY_MIB = 1024;

    /** sbatch's errors that no retry can mend, in lower case. */
    private static final List<String> REFUSALS = List.of("invalid", "unrecognized option", "unknown option",
            "requires an argument", "not allowed", "not permitted", "permission denied",
            "requested node configuration is not available", "more processors requested than permitted",
            "mutually exclusive");

    private final Builder settings;
    private final SlurmJobs jobs;
    /** Whether sbatch ever gave a job id. */
    private volatile boolean submitted;

    private SlurmLauncher(Builder settings) {
        this.settings = settings;
        jobs = new SlurmJobs(settings.output, settings.commandTimeout);
    }

    /**
     * A builder with no settings: Slurm's defaults for everything.
     *
     * @return the builder
     */
    public static Builder builder() {
        return new Builder();
    }

    /** The settings of the jobs. */
    public static final class Builder {
        private String partition;
        private String account;
        private Duration jobTime;
        private int cpusPerWorker;
        private List<String> sbatchOptions = List.of();
        private String java;
        private String jar;
        private String output = "/dev/null";
        private Duration commandTimeout = Duration.ofSeconds(60);

        private Builder() {
        }

        /**
         * The partition the jobs run in ({@code --partition}).
         *
         * @param name the partition
         * @return this builder
         */
        public Builder partition(String name) {
            partition = name;
            return this;
        }

        /**
         * The account the jobs are charged to ({@code --account}).
         *
         * @param name the account
         * @return this builder
         */
        public Builder account(String name) {
            account = name;
            return this;
        }

        /**
         * Each job's time limit ({@code --time}), after which Slurm ends it
         * and the pool submits a replacement.
         *
         * @param time at least a minute
         * @return this builder
         */
        public Builder jobTime(Duration time) {
            if (time == null || time.compareTo(Duration.ofMinutes(1)) < 0) {
                throw new IllegalArgumentException("jobTime must be at least a minute");
            }
            jobTime = time;
            return this;
        }

        /**
         * The CPUs of each job ({@code --cpus-per-task}).
         *
         * @param cpus at least 1
         * @return this builder
         */
        public Builder cpusPerWorker(int cpus) {
            if (cpus < 1) {
                throw new IllegalArgumentException("cpusPerWorker must be at least 1, not " + cpus);
            }
            cpusPerWorker = cpus;
            return this;
        }

        /**
         * Further sbatch options, passed as they are, after the others.
         *
         * @param options such as "--qos=normal"
         * @return this builder
         */
        public Builder sbatchOptions(String... options) {
            sbatchOptions = List.of(options);
            return this;
        }

        /**
         * The {@code java} executable on the nodes (default: the pool's own).
         *
         * @param path the executable's path, as the nodes see it
         * @return this builder
         */
        public Builder java(String path) {
            java = path;
            return this;
        }

        /**
         * The {@code ambrix.jar} on the nodes (default: the pool's own).
         *
         * @param path the jar's path, as the nodes see it
         * @return this builder
         */
        public Builder jar(String path) {
            jar = path;
            return this;
        }

        /**
         * Where each job writes its output ({@code --output}; default
         * {@code /dev/null}). Where the pool can read it, its last lines
         * follow the message of a lost worker.
         *
         * @param path a file, {@code %j} standing for the job's id
         * @return this builder
         */
        public Builder output(String path) {
            output = path;
            return this;
        }

        /**
         * How long each Slurm command ({@code sbatch}, {@code squeue},
         * {@code scontrol}, {@code scancel}) may take before it is killed
         * and taken for failed ("sbatch did not answer within 60 s").
         *
         * @param timeout more than zero; 60 s unless set
         * @return this builder
         */
        public Builder commandTimeout(Duration timeout) {
            if (timeout == null || timeout.isNegative() || timeout.isZero()) {
                throw new IllegalArgumentException("commandTimeout must be more than zero");
            }
            commandTimeout = timeout;
            return this;
        }

        /**
         * The launcher.
         *
         * @return the launcher, for {@link EnginePool.Builder#launcher}
         */
        public SlurmLauncher build() {
            return new SlurmLauncher(this);
        }
    }

    /** The sbatch command line for a launch; the script comes on its input. */
    List<String> sbatchCommand(Launch launch) {
        List<String> c = new ArrayList<>(List.of("sbatch", "--parsable", "--job-name=" + launch.name(),
                "--output=" + settings.output, "--export=ALL"));
        if (settings.sbatchOptions.stream().noneMatch(o -> o.equals("--requeue"))) {
            // A job whose node failed is not put back in the queue: its worker is lost, its task runs
            // again elsewhere, and the pool launches another worker where its size asks for one.
            c.add("--no-requeue");
        }
        if (settings.partition != null) {
            c.add("--partition=" + settings.partition);
        }
        if (settings.account != null) {
            c.add("--account=" + settings.account);
        }
        if (settings.jobTime != null) {
            c.add("--time=" + Math.max(1, settings.jobTime.toMinutes()));
        }
        if (settings.cpusPerWorker > 0) {
            c.add("--cpus-per-task=" + settings.cpusPerWorker);
        }
        if (launch.memoryLimit() > 0) {
            c.add("--mem=" + Math.max(1, launch.memoryLimit() >> 20) + "M");
        } else if (settings.sbatchOptions.stream().noneMatch(o -> o.startsWith("--mem"))) {
            // Without it, a cluster with no default memory per CPU gives each job its node's whole memory.
            c.add("--mem=" + DEFAULT_MEMORY_MIB + "M");
        }
        c.addAll(settings.sbatchOptions);
        return c;
    }

    /** The job's script: the worker's command, with the java and the jar the nodes see. */
    String script(Launch launch) {
        List<String> command = new ArrayList<>(launch.command());
        if (settings.java != null) {
            command.set(0, settings.java);
        }
        int cp = command.indexOf("-cp");
        if (settings.jar != null && cp >= 0 && cp + 1 < command.size()) {
            command.set(cp + 1, settings.jar);
        }
        StringBuilder s = new StringBuilder("#!/bin/sh\n").append(CRASH_WORD).append("exec");
        for (int i = 0; i < command.size(); i++) {
            s.append(" '").append(command.get(i).replace("'", "'\\''")).append('\'');
            if (i == 0) {
                // The JVM's report of a fatal error goes where the crash word finds it, and then says it.
                s.append(" \"-XX:ErrorFile=${TMPDIR:-/tmp}/ambrix-worker-$SLURM_JOB_ID.log\"")
                        .append(" '-XX:OnError=eval \"$AMBRIX_ON_CRASH\"'");
            }
        }
        return s.append('\n').toString();
    }

    /**
     * How a worker whose kernel crashed says so, when the JVM reports its
     * fatal error: the signal from the report, in its job's comment
     * ("ambrix worker on c1: crashed (SIGSEGV) in its kernel"), which the
     * job's end then carries, as a worker that cannot reach the pool does
     * ({@link Unreachable}). So the pool tells a crash, after which a task
     * does not run again, from a node that died. (The JVM splits its
     * OnError commands at semicolons: the command is in a variable.)
     */
    static final String CRASH_WORD = "AMBRIX_ON_CRASH='sig=$(grep -o -m1 \"SIG[A-Z]*\" \"${TMPDIR:-/tmp}/ambrix-worker-"
            + "$SLURM_JOB_ID.log\"); scontrol update JobId=$SLURM_JOB_ID Comment=\"" + Unreachable.MARK
            + " on $(hostname): crashed (${sig:-a fatal error}) in its kernel\"'\nexport AMBRIX_ON_CRASH\n";

    @Override
    public Launched launch(Launch launch) throws IOException {
        ProcessBuilder builder = new ProcessBuilder(sbatchCommand(launch)).redirectErrorStream(false);
        // The secret reaches the job through its environment (sbatch exports this one), never a command line.
        builder.environment().putAll(launch.environment());
        // The worker may leave why it could not reach the pool in its job's comment.
        builder.environment().put(Unreachable.TELL_JOB, "1");
        SlurmJobs.Answer result;
        try {
            result = SlurmJobs.run(builder, script(launch), settings.commandTimeout);
        } catch (IOException e) {
            // An sbatch that never answered yet is a cluster the pool cannot use: build() fails at once.
            throw submitted ? e : new RefusedException(e.getMessage());
        }
        if (result.status() != 0) {
            String why = result.failure("sbatch");
            throw refusal(why) ? new RefusedException(why) : new IOException(why);
        }
        String id = result.out().strip().split(";")[0];
        if (!id.matches("\\d+(_\\d+)?")) {
            throw new IOException("sbatch answered no job id: " + result.out().strip());
        }
        submitted = true;
        return jobs.watch(id);
    }

    /** Whether sbatch's error is one that no retry can mend. */
    static boolean refusal(String error) {
        String e = error.toLowerCase(Locale.ROOT);
        return REFUSALS.stream().anyMatch(e::contains);
    }
}
