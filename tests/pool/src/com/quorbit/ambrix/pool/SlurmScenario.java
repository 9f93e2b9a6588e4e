package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.InputStream;
import java.net.Socket;
import java.net.URI;
import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CompletionException;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Pools whose workers are Slurm jobs, on the single-node cluster that
 * tests/pool/slurm/run.sh starts on this machine (SLURM_CONF names it): tasks,
 * calls and sessions, a job cancelled under a task, limits through Slurm,
 * refused connections, heartbeats, and no job left behind, even by a pool
 * that is killed. Each waits with a bound; none is skipped. Slurm's
 * commands that fail or hang are SlurmFaultScenario's.
 */
@Timeout(value = 180, unit = TimeUnit.SECONDS)
class SlurmScenario {
    static EnginePool pool;
    static final PoolTest.LogRecords LOG = new PoolTest.LogRecords();
    /** Held, so that the logger keeps its handlers until the pool's classes take it up. */
    static final java.util.logging.Logger POOL_LOG = java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool");

    /** A launcher that submits through Slurm and keeps what each launch was given. */
    static final class Recording implements Launcher {
        final Launcher slurm;
        final List<Launch> launches = new CopyOnWriteArrayList<>();

        Recording(Launcher slurm) {
            this.slurm = slurm;
        }

        @Override
        public Launched launch(Launch launch) throws IOException {
            launches.add(launch);
            return slurm.launch(launch);
        }
    }

    static final Recording LAUNCHER = new Recording(SlurmLauncher.builder().jobTime(Duration.ofMinutes(30)).build());

    @BeforeAll
    static void start() {
        assertNotNull(System.getenv("SLURM_CONF"), "no test cluster: run through tests/pool/slurm/run.sh");
        POOL_LOG.addHandler(LOG);
        pool = EnginePool.builder().workers(2).launcher(LAUNCHER).listenAddress("127.0.0.1")
                .kernelArguments("-q", "--test-hooks").initialize("area := proc(w, h) w * h end proc:")
                .graceTime(Duration.ofMillis(500)).memoryLimit(512L << 20).build();
        assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(90)), "the workers did not start: " + pool.workerStates());
    }

    @AfterAll
    static void stop() throws Exception {
        List<String> jobs = pool.workerStates().stream().map(WorkerState::job).toList();
        pool.close();
        POOL_LOG.removeHandler(LOG);
        for (String job : jobs) assertFalse(queued().contains(job), "job " + job + " outlived close()");
    }

    /** The ids of the cluster's ambrix-worker jobs that are not over. */
    static List<String> queued() throws IOException, InterruptedException {
        Process p = command("squeue", "-h", "-o", "%i", "-n", "ambrix-worker").start();
        String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, p.waitFor(), out);
        return out.lines().map(String::strip).filter(s -> !s.isEmpty()).toList();
    }

    /** A command of the test's own: Slurm's real ones, even while a stand-in misbehaves for the pool. */
    static ProcessBuilder command(String... command) {
        ProcessBuilder b = new ProcessBuilder(command).redirectErrorStream(true);
        b.environment().put("AMBRIX_STANDIN_OFF", "1");
        return b;
    }

    static String run(String... command) throws IOException, InterruptedException {
        Process p = command(command).start();
        String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        p.waitFor();
        return out;
    }

    /** The process ids of a job, on this node. */
    static List<Long> pidsOf(String job) throws IOException, InterruptedException {
        List<Long> pids = new ArrayList<>();
        for (String line : run("scontrol", "listpids", job).split("\n")) {
            String[] f = line.strip().split("\\s+");
            if (f.length > 0 && f[0].matches("\\d+")) pids.add(Long.valueOf(f[0]));
        }
        return pids;
    }

    static void awaitTrue(String what, java.util.function.BooleanSupplier condition, int seconds)
            throws InterruptedException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
        while (!condition.getAsBoolean()) {
            if (System.nanoTime() > end) throw new AssertionError(what + " within " + seconds + " s");
            Thread.sleep(100);
        }
    }

    /** Waits until squeue lists none of the jobs. */
    static void awaitJobsEnded(List<String> jobs, int seconds) throws InterruptedException {
        awaitTrue("jobs " + jobs + " ended", () -> {
            try {
                return queued().stream().noneMatch(jobs::contains);
            } catch (IOException | InterruptedException x) {
                return false;
            }
        }, seconds);
    }

    /** A task and the job that runs it. */
    record Running(CompletableFuture<Result> task, String job) {
    }

    /**
     * Submits a task once every worker is idle (a worker also counts as busy
     * while it resets after a task), so that the one busy worker is the
     * task's.
     */
    static Running submitAlone(String statement, Duration limit) throws InterruptedException {
        assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(60)), pool.workerStates().toString());
        awaitTrue("every worker idle", () -> pool.workerStates().stream()
                .allMatch(s -> s.status() == WorkerState.Status.READY), 30);
        CompletableFuture<Result> task = pool.submit(statement, limit);
        awaitTrue("a busy worker", () -> pool.workerStates().stream()
                .anyMatch(s -> s.status() == WorkerState.Status.BUSY), 10);
        return new Running(task, pool.workerStates().stream().filter(s -> s.status() == WorkerState.Status.BUSY)
                .map(WorkerState::job).findFirst().orElseThrow());
    }

    @Test
    void tasksCallsAndSessionsRunThroughSlurmWorkers() throws Exception {
        List<WorkerState> states = pool.workerStates();
        assertEquals(2, states.size());
        for (WorkerState s : states) {
            assertTrue(s.job().matches("\\d+"), s.toString());
            assertNotNull(s.host(), s.toString());
        }
        assertTrue(queued().containsAll(states.stream().map(WorkerState::job).toList()));
        // Each job got the pool's memory limit as --mem.
        assertTrue(run("scontrol", "show", "job", states.get(0).job()).contains("MinMemoryNode=512M"));
        Result r = pool.submit("print(\"hi\"); 2^100;").join();
        assertEquals("1267650600228229401496703205376", r.text());
        assertEquals(List.of("\"hi\""), r.output());
        assertEquals(13.5, pool.call("area", 3, 4.5).join());
        assertEquals("x", pool.submit("x;").join().text());  // a clean kernel per task
        try (Session s = pool.session()) {
            s.evaluate("g := x -> x^2:");
            assertEquals(25L, s.call("g", 5));
            assertEquals("9", s.evaluate("g(3);").text());
        }
        List<CompletableFuture<Result>> many = new ArrayList<>();
        for (int i = 0; i < 20; i++) many.add(pool.submit(i + " * 2;"));
        for (int i = 0; i < 20; i++) assertEquals(Integer.toString(2 * i), many.get(i).join().text());
        // The secret went through the job's environment, never its command line.
        Launcher.Launch launch = LAUNCHER.launches.get(0);
        String secret = launch.environment().get("AMBRIX_POOL_SECRET");
        assertEquals(64, secret.length());
        assertFalse(String.join(" ", launch.command()).contains(secret));
    }

    /** A job cancelled under its task: the task runs again on another worker, and a new job takes its place. */
    @Test
    void aCancelledJobsTaskRunsAgainAndTheJobIsReplaced() throws Exception {
        Running r = submitAlone("for i to 3*10^6 do end do: 42;", null);
        CompletableFuture<Result> running = r.task();
        String job = r.job();
        run("scancel", job);
        Result result = running.join();
        assertEquals("42", result.text());
        assertEquals(2, result.attempts());
        // Its connection ended as the job was cancelled; Slurm's word comes within a second, or the job is named.
        String lost = LOG.messages.stream().filter(m -> m.contains(" lost with worker job " + job + " ")).findFirst()
                .orElseThrow(() -> new AssertionError("no word of the lost run: " + LOG.messages));
        assertTrue(lost.contains("(the connection to the worker on "), lost);
        assertTrue(lost.contains("was lost: Slurm job " + job + " ended (CANCELLED)); running it again, run 2 of 3")
                || lost.contains("was lost (job " + job + ")); running it again, run 2 of 3"), lost);
        assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(60)), pool.workerStates().toString());
        assertFalse(pool.workerStates().stream().anyMatch(s -> job.equals(s.job())));
        assertEquals("12", pool.submit("area(3, 4);").join().text());
    }

    /**
     * A kernel that crashes under its task says so through its job's
     * comment: the task is not run again once that word is in, since another
     * run would crash as well.
     */
    @Test
    void aCrashedKernelsJobSaysSoAndItsTaskIsNotRunAgain() throws Exception {
        WorkerLostException e = assertInstanceOf(WorkerLostException.class,
                assertThrows(CompletionException.class, () -> pool.submit("crashkernel();").join()).getCause());
        assertTrue(e.reason().contains("crashed (SIGSEGV) in its kernel"), e.getMessage());
        assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(60)), pool.workerStates().toString());
    }

    @Test
    void aTaskPastItsTimeLimitIsKilledThroughSlurm() throws Exception {
        Running r = submitAlone("spin();", Duration.ofSeconds(1));
        CompletableFuture<Result> spinning = r.task();
        String job = r.job();
        WorkerLostException e = assertInstanceOf(WorkerLostException.class,
                assertThrows(CompletionException.class, spinning::join).getCause());
        assertEquals("killed after the time limit of 1 s passed and a grace of 0.5 s", e.reason());
        awaitJobsEnded(List.of(job), 15);
        assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(60)));
        assertEquals("2", pool.submit("1 + 1;").join().text());
    }

    @Test
    void aWorkerPastItsMemoryLimitIsKilledByItsHeartbeats() {
        // Slurm here does not enforce --mem: the worker's own reports do.
        CompletableFuture<Result> hog = pool.submit("hogmemory();");
        WorkerLostException e = assertInstanceOf(WorkerLostException.class,
                assertThrows(CompletionException.class, hog::join).getCause());
        assertEquals("memory limit of 512 MiB passed", e.reason());
        assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(60)));
    }

    @Test
    void aStoppedWorkerIsFoundByItsHeartbeatsAndItsJobCancelled() throws Exception {
        try (EnginePool p = EnginePool.builder().workers(1).launcher(SlurmLauncher.builder().build())
                .listenAddress("127.0.0.1").heartbeatTimeout(Duration.ofSeconds(3)).retries(0).build()) {
            assertTrue(p.awaitWorkers(1, Duration.ofSeconds(60)));
            String job = p.workerStates().get(0).job();
            CompletableFuture<Result> task = p.submit("for i to 10^9 do end do;");
            for (long pid : pidsOf(job)) run("kill", "-STOP", Long.toString(pid));
            long start = System.nanoTime();
            WorkerLostException e = assertInstanceOf(WorkerLostException.class,
                    assertThrows(CompletionException.class, task::join).getCause());
            long seconds = TimeUnit.NANOSECONDS.toSeconds(System.nanoTime() - start);
            assertEquals("no heartbeat for 3 s", e.reason());
            assertTrue(seconds < 15, "found after " + seconds + " s");
            awaitJobsEnded(List.of(job), 20);
            assertTrue(p.awaitWorkers(1, Duration.ofSeconds(60)));
            assertEquals("3", p.submit("1 + 2;").join().text());
        }
    }

    /** Where the pool listens, from the arguments its workers were given. */
    static URI poolAddress() {
        List<String> c = LAUNCHER.launches.get(0).command();
        return URI.create(c.stream().filter(a -> a.startsWith("tcp://")).findFirst().orElseThrow());
    }

    @Test
    void aWorkerWithAWrongSecretIsRefusedLoggedAndGivenNoTask() throws Exception {
        Launcher.Launch launch = LAUNCHER.launches.get(0);
        List<String> command = new ArrayList<>(launch.command());
        command.removeIf(a -> a.startsWith("--heartbeat"));
        int before = LOG.messages.size();
        ProcessBuilder b = new ProcessBuilder(command).redirectErrorStream(true);
        b.environment().put("AMBRIX_POOL_SECRET", "00".repeat(32));
        Process impostor = b.start();
        String out = new String(impostor.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(impostor.waitFor(30, TimeUnit.SECONDS));
        assertEquals(3, impostor.exitValue(), out);
        assertTrue(out.contains(": could not prove the pool's secret to " + poolAddress().getAuthority()
                + ": the pool refused it"), out);
        awaitTrue("the refusal logged", () -> LOG.messages.subList(before, LOG.messages.size()).stream()
                .anyMatch(m -> m.contains("refused a connection") && m.contains("does not hold the pool's secret")), 20);
        // The pool's own workers go on.
        assertEquals("4", pool.submit("2 + 2;").join().text());
    }

    @Test
    void aClientWithoutTheHandshakeGetsNothing() throws Exception {
        URI address = poolAddress();
        int before = LOG.messages.size();
        try (Socket s = new Socket(address.getHost(), address.getPort())) {
            s.setSoTimeout(15000);
            // A task frame, as a worker's pool would send it: length, kind EVAL, task 1, a statement.
            byte[] frame = {0, 0, 0, 20, 2, 0, 0, 0, 0, 0, 0, 0, 1, 6, 0, 0, 0, 6, 'x', ':', '=', '1', ';', ' '};
            s.getOutputStream().write(frame);
            s.getOutputStream().flush();
            InputStream in = s.getInputStream();
            byte[] got = in.readAllBytes();
            // Only the pool's greeting: its magic and nonce, then the connection closes.
            assertEquals(40, got.length);
            assertEquals("AMBRIX01", new String(got, 0, 8, StandardCharsets.US_ASCII));
        }
        awaitTrue("the refusal logged", () -> LOG.messages.subList(before, LOG.messages.size()).stream()
                .anyMatch(m -> m.contains("refused a connection")), 10);
        assertEquals("x", pool.submit("x;").join().text());
    }

    /**
     * The main of a JVM that opens a Slurm pool, prints its jobs, and waits
     * to be killed: once its workers are ready ("ready"), or while its jobs
     * still wait to begin ("pending"), for 5 s or the seconds of the second
     * argument. The pool listens on 127.0.0.1, or on the address of the
     * third argument ("default" for the pool's default).
     */
    public static final class Opener {
        public static void main(String[] args) throws Exception {
            boolean pending = args[0].equals("pending");
            SlurmLauncher.Builder slurm = SlurmLauncher.builder();
            if (pending) slurm.sbatchOptions("--begin=now+" + (args.length > 1 ? args[1] : "5"));
            String listen = args.length > 2 ? args[2] : "127.0.0.1";
            EnginePool p = EnginePool.builder().workers(2).launcher(slurm.build())
                    .listenAddress(listen.equals("default") ? null : listen).build();
            if (!pending && !p.awaitWorkers(2, Duration.ofSeconds(60))) throw new IllegalStateException("no workers");
            System.out.println("jobs " + String.join(",", p.workerStates().stream().map(WorkerState::job).toList()));
            System.out.flush();
            Thread.sleep(120_000);
        }
    }

    /** Starts a JVM that runs Opener with these arguments, SIGKILLs it once it printed its jobs, and returns them. */
    static List<String> killedOpenersJobs(String... args) throws Exception {
        List<String> command = new ArrayList<>(List.of(ProcessHandle.current().info().command().orElse("java"), "-cp",
                PoolTest.where(EnginePool.class) + java.io.File.pathSeparator + PoolTest.where(SlurmScenario.class),
                Opener.class.getName()));
        command.addAll(List.of(args));
        Process opener = new ProcessBuilder(command).redirectErrorStream(true).start();
        java.io.BufferedReader out = new java.io.BufferedReader(
                new java.io.InputStreamReader(opener.getInputStream(), StandardCharsets.UTF_8));
        String line;
        do {
            line = out.readLine();
        } while (line != null && !line.startsWith("jobs "));
        assertNotNull(line, "the opener printed no jobs");
        List<String> jobs = List.of(line.substring(5).split(","));
        assertEquals(2, jobs.size());
        assertTrue(queued().containsAll(jobs));
        opener.destroyForcibly().waitFor();
        return jobs;
    }

    /** A pool killed with its workers ready, or with its jobs yet to start, which then find no pool. */
    @ParameterizedTest
    @ValueSource(strings = {"ready", "pending"})
    void noJobOutlivesAPoolWhoseJvmIsKilled(String when) throws Exception {
        awaitJobsEnded(killedOpenersJobs(when), 15);
    }

    @Test
    void awaitWorkersAnswersFalseWhenTheTimePasses() {
        assertFalse(pool.awaitWorkers(3, Duration.ofMillis(200)));
        assertTrue(pool.awaitWorkers(1, Duration.ofSeconds(60)));
        assertNotEquals(0, pool.workerStates().size());
    }
}
