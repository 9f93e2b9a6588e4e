package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTimeoutPreemptively;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.function.UnaryOperator;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Slurm's commands misbehaving, on the real single-node cluster that
 * tests/pool/slurm/run.sh starts: its standin.sh, first on PATH, makes
 * sbatch, squeue or scancel hang, fail, answer late or leave its input
 * unread, and runs the real command otherwise. The pool must stay bounded
 * in time and in log lines, report Slurm's own words, and judge each job
 * only on what squeue could have seen.
 */
@Timeout(value = 120, unit = TimeUnit.SECONDS)
class SlurmFaultScenario {
    static final PoolTest.LogRecords LOG = new PoolTest.LogRecords();
    static final String[] COMMANDS = {"sbatch", "squeue", "scontrol", "scancel"};

    @BeforeAll
    static void listen() {
        SlurmScenario.POOL_LOG.addHandler(LOG);
    }

    @AfterAll
    static void stopListening() {
        SlurmScenario.POOL_LOG.removeHandler(LOG);
    }

    static Path standins() {
        String dir = System.getenv("AMBRIX_SLURM_STANDIN");
        assertTrue(dir != null, "no stand-ins: run through tests/pool/slurm/run.sh");
        return Path.of(dir);
    }

    /** Makes a Slurm command misbehave for the pool (see standin.sh) until the test ends. */
    static void misbehave(String command, String mode) throws IOException {
        Files.writeString(standins().resolve(command), mode + "\n");
    }

    /** Every command behaves again; whatever a hanging one started is ended. */
    @AfterEach
    void behave() throws IOException {
        for (String c : COMMANDS) {
            Files.deleteIfExists(standins().resolve(c));
            for (long pid : hungPids(c)) ProcessHandle.of(pid).ifPresent(ProcessHandle::destroyForcibly);
            Files.deleteIfExists(standins().resolve(c + ".pids"));
        }
    }

    /** The process ids a hanging stand-in left: its own and its child's. */
    static List<Long> hungPids(String command) throws IOException {
        Path f = standins().resolve(command + ".pids");
        return Files.exists(f) ? Stream.of(Files.readString(f).strip().split(" ")).map(Long::valueOf).toList()
                : List.of();
    }

    static List<String> logSince(int before) {
        return List.copyOf(LOG.messages.subList(before, LOG.messages.size()));
    }

    /**
     * A build that cannot get a job from sbatch: what it throws, and how
     * many lines the pool logs before. A refusal that no retry mends, or an
     * sbatch that never answers, fails at the first job with one line;
     * another error is retried, 3 launches for the slot.
     */
    record BadSubmission(String what, String standin, UnaryOperator<SlurmLauncher.Builder> settings, int workers,
            List<String> javaOptions, String message, int lines) {
        @Override
        public String toString() {
            return what;
        }
    }

    static final String DENIED_QOS = "sbatch: error: Batch job submission failed: Invalid qos specification";

    static Stream<BadSubmission> badSubmissions() {
        // A script larger than a pipe holds, so that an sbatch that does not read it cannot go unnoticed.
        List<String> bigScript = List.of("-Dambrix.test.pad=" + "x".repeat(200_000));
        return Stream.of(
                new BadSubmission("a partition Slurm does not know", null, b -> b.partition("nosuchpartition"), 2,
                        List.of(), "sbatch: error: invalid partition specified: nosuchpartition", 1),
                new BadSubmission("an option sbatch does not know", null, b -> b.sbatchOptions("--no-such-option"), 2,
                        List.of(), "sbatch: unrecognized option '--no-such-option'", 1),
                new BadSubmission("an option value sbatch refuses", null, b -> b.sbatchOptions("--time=soon"), 2,
                        List.of(), "sbatch: error: Invalid --time specification", 1),
                new BadSubmission("an account Slurm refuses", "fail sbatch: error: Batch job submission failed: "
                        + "Invalid account or account/partition combination specified", b -> b, 2, List.of(),
                        "sbatch: error: Batch job submission failed: Invalid account or account/partition "
                        + "combination specified", 1),
                new BadSubmission("a QOS refused before sbatch reads its script", "deaf " + DENIED_QOS, b -> b, 2,
                        bigScript, DENIED_QOS, 1),
                new BadSubmission("an sbatch that never answers", "hang", b -> b.commandTimeout(Duration.ofSeconds(2)),
                        2, List.of(), "sbatch did not answer within 2 s", 1),
                new BadSubmission("an error a retry may mend", "fail sbatch: error: Batch job submission failed: "
                        + "Socket timed out on send/recv operation", b -> b, 1, List.of(),
                        "sbatch: error: Batch job submission failed: Socket timed out on send/recv operation", 3));
    }

    @ParameterizedTest
    @MethodSource("badSubmissions")
    void aBadSubmissionFailsTheBuildWithSbatchsOwnWords(BadSubmission bad) throws Exception {
        if (bad.standin() != null) misbehave("sbatch", bad.standin());
        int before = LOG.messages.size();
        VexelException e = assertTimeoutPreemptively(Duration.ofSeconds(30), () -> assertThrows(VexelException.class,
                () -> EnginePool.builder().workers(bad.workers())
                        .launcher(bad.settings().apply(SlurmLauncher.builder()).build())
                        .javaOptions(bad.javaOptions().toArray(new String[0])).listenAddress("127.0.0.1").build()));
        // sbatch's first line is its own message (an unknown option is followed by advice to read --help).
        assertEquals("no worker could be started: " + bad.message(), e.getMessage().lines().findFirst().orElseThrow());
        // (A watcher of an earlier test's jobs may still speak of squeue; the build says where the pool listens.)
        List<String> log = logSince(before).stream()
                .filter(m -> !m.contains("squeue") && !m.startsWith("INFO the pool listens for workers")).toList();
        assertEquals(bad.lines(), log.size(), log.toString());
        assertTrue(log.get(log.size() - 1).contains(bad.message()), log.toString());
        // A hanging sbatch was killed, and what it started with it.
        for (long pid : hungPids("sbatch")) {
            assertTrue(ProcessHandle.of(pid).map(h -> h.onExit().orTimeout(5, TimeUnit.SECONDS).join())
                    .map(h -> !h.isAlive()).orElse(true), "process " + pid + " of the hung sbatch still runs");
        }
    }

    /**
     * A worker that cannot reach the pool: the change of its launch that
     * makes it so, and what the worker then says, given the address it got.
     */
    record Unreached(String what, UnaryOperator<Launcher.Launch> change, UnaryOperator<String> says) {
        @Override
        public String toString() {
            return what;
        }
    }

    static Stream<Unreached> unreached() throws IOException {
        int nobody;
        try (java.net.ServerSocket s = new java.net.ServerSocket(0, 1, java.net.InetAddress.getLoopbackAddress())) {
            nobody = s.getLocalPort();
        }
        return Stream.of(
                new Unreached("an address where nobody listens",
                        l -> LocalWorkersTest.Altering.address(l, "tcp://127.0.0.1:" + nobody),
                        address -> "could not connect to " + address
                                + ": Connection refused; set listenAddress to an address the nodes reach"),
                new Unreached("a secret that is not the pool's",
                        l -> new Launcher.Launch(l.command(), java.util.Map.of(Handshake.SECRET_VARIABLE,
                                "00".repeat(Handshake.SECRET_BYTES)), l.memoryLimit(), l.name()),
                        address -> "could not prove the pool's secret to " + address + ": the pool refused it "
                                + "(it closed the connection on the worker's proof); check that the job gets "
                                + Handshake.SECRET_VARIABLE + " from the pool's environment, unchanged"));
    }

    /**
     * A worker that cannot connect, or cannot prove the secret, leaves why
     * on its job, with the job's output going nowhere: each failed launch's
     * log line, the slot's giving up and the failure of what waited name the
     * node, the address the worker was given, and its error.
     */
    @ParameterizedTest
    @MethodSource("unreached")
    void aWorkerThatCannotReachThePoolSaysWhyThroughItsJob(Unreached u) throws Exception {
        LocalWorkersTest.Altering launcher = new LocalWorkersTest.Altering(SlurmLauncher.builder().build(), u.change());
        int before = LOG.messages.size();
        try (EnginePool pool = EnginePool.builder().workers(1).launcher(launcher).listenAddress("127.0.0.1").build()) {
            java.util.concurrent.CompletableFuture<Result> waiting = pool.submit("1;");
            Throwable e = assertThrows(java.util.concurrent.ExecutionException.class,
                    () -> waiting.get(90, TimeUnit.SECONDS)).getCause();
            String said = "the worker on " + SlurmScenario.run("sinfo", "-h", "-o", "%N").strip() + " "
                    + u.says().apply(launcher.address());
            assertTrue(e.getMessage().matches("no worker could be started: Slurm job \\d+ ended \\(FAILED\\): \\Q"
                    + said + "\\E"), e.getMessage());
            List<String> log = logSince(before).stream().filter(m -> m.contains(said)).toList();
            assertEquals(Slot.FAILED_LAUNCHES, log.size(), logSince(before).toString());
            assertTrue(log.get(log.size() - 1).startsWith("SEVERE worker slot 0 gave up"), log.toString());
            String job = launcher.launched.get(0).job();
            assertTrue(SlurmScenario.run("scontrol", "show", "job", job).contains("StdOut=/dev/null"),
                    "the job's output goes somewhere");
        }
    }

    @Test
    void aHangingScancelHoldsUpCloseOnlyForTheCommandTimeout() throws Exception {
        EnginePool pool = EnginePool.builder().workers(1)
                .launcher(SlurmLauncher.builder().commandTimeout(Duration.ofSeconds(2)).build())
                .listenAddress("127.0.0.1").graceTime(Duration.ofMillis(500)).build();
        assertTrue(pool.awaitWorkers(1, Duration.ofSeconds(60)), pool.workerStates().toString());
        String job = pool.workerStates().get(0).job();
        misbehave("scancel", "hang");
        int before = LOG.messages.size();
        assertTimeoutPreemptively(Duration.ofSeconds(20), pool::close);
        assertTrue(logSince(before).stream().anyMatch(m -> m.contains("scancel of Slurm job " + job + " failed")
                && m.contains("scancel did not answer within 2 s")), logSince(before).toString());
        // The worker ended with its input all the same, and so did its job.
        SlurmScenario.awaitJobsEnded(List.of(job), 15);
    }

    /**
     * While squeue fails or hangs, the pool says so in one line, judges no
     * job, and asks again: once squeue answers, the pool says so too.
     */
    @ParameterizedTest
    @ValueSource(strings = {"fail squeue: error: slurm_load_jobs error: Unable to contact slurm controller", "hang"})
    void aFailingSqueueIsLoggedOnceAndJudgesNoJob(String mode) throws Exception {
        misbehave("squeue", mode);
        int before = LOG.messages.size();
        try (EnginePool pool = EnginePool.builder().workers(1).listenAddress("127.0.0.1")
                .launcher(SlurmLauncher.builder().commandTimeout(Duration.ofSeconds(1)).sbatchOptions("--begin=now+4")
                        .build()).build()) {
            String job = pool.workerStates().get(0).job();
            Thread.sleep(4000);
            List<String> failed = logSince(before).stream().filter(m -> m.contains("squeue failed")).toList();
            assertEquals(1, failed.size(), logSince(before).toString());
            assertTrue(failed.get(0).startsWith("WARNING"), failed.toString());
            assertTrue(failed.get(0).contains(mode.equals("hang") ? "squeue did not answer within 1 s"
                    : "Unable to contact slurm controller"), failed.toString());
            assertEquals(job, pool.workerStates().get(0).job(), "the job was judged: " + logSince(before));
            assertNotEquals(WorkerState.Status.LOST, pool.workerStates().get(0).status());
            Files.delete(standins().resolve("squeue"));
            SlurmScenario.awaitTrue("squeue's answer logged", () -> logSince(before).stream()
                    .anyMatch(m -> m.startsWith("INFO squeue answers again")), 10);
            assertTrue(pool.awaitWorkers(1, Duration.ofSeconds(60)), pool.workerStates().toString());
            assertEquals(job, pool.workerStates().get(0).job());
            assertFalse(logSince(before).stream().anyMatch(m -> m.contains("ended before it was ready")),
                    logSince(before).toString());
        }
    }

    /**
     * With sbatch slow and squeue answering with what it saw 1.5 s before,
     * the second job is registered while a poll that began before its
     * submission is under way: that poll cannot list it, and must not end it.
     */
    @Test
    void aJobJustSubmittedIsNotTakenForEndedByAnOlderPoll() throws Exception {
        misbehave("sbatch", "delay 1");
        misbehave("squeue", "stale 1.5");
        int before = LOG.messages.size();
        SlurmScenario.Recording launcher = new SlurmScenario.Recording(SlurmLauncher.builder().build());
        try (EnginePool pool = EnginePool.builder().workers(2).launcher(launcher).listenAddress("127.0.0.1")
                .build()) {
            assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(60)), pool.workerStates().toString());
            assertEquals(2, launcher.launches.size(), logSince(before).toString());
            assertFalse(logSince(before).stream().anyMatch(m -> m.contains("ended before it was ready")),
                    logSince(before).toString());
        }
    }
}
