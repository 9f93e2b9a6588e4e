package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.ambrix.ConversionTest;
import com.quorbit.ambrix.Kernel;
import com.quorbit.ambrix.KernelErrorException;
import com.quorbit.externalcall.VexelException;
import java.time.Duration;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Kernels in worker processes: crashes, limits, isolation, parallel work,
 * values, and the pool's close. Timing bounds are generous: they tell a
 * kill from a hang, not a fast machine from a slow one.
 */
@Timeout(value = 60, unit = TimeUnit.SECONDS)
class PoolTest {
    static EnginePool pool;

    @BeforeAll
    static void start() {
        pool = EnginePool.builder().workers(2).kernelArguments("-q", "--test-hooks")
                .initialize("area := proc(w, h) w * h end proc:", "same := x -> x:")
                .graceTime(Duration.ofMillis(500)).build();
    }

    @AfterAll
    static void stop() {
        pool.close();
        pool.close();
    }

    /**
     * After each test every worker of the shared pool is ready again. A
     * worker still busy (with a task that a fault left running) fails the
     * test, and the pool is replaced, so that the tests after it do not wait
     * behind that task.
     */
    @AfterEach
    void everyWorkerIsReadyAgain() throws InterruptedException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
        while (!pool.workerStates().stream().allMatch(s -> s.status() == WorkerState.Status.READY)) {
            if (System.nanoTime() > end) {
                java.util.List<WorkerState> states = pool.workerStates();
                pool.close();
                start();
                throw new AssertionError("the workers were not all ready 10 s after the test: " + states);
            }
            Thread.sleep(20);
        }
    }

    /**
     * How long a test waits for a task to end, where it would end in a
     * second or two: a task that the pool never ends fails its test in
     * seconds, saying what did not happen, rather than hanging the suite.
     */
    static final long WAIT_SECONDS = 15;

    /** What a future gives, waited for at most WAIT_SECONDS; `what` did not happen otherwise. */
    static <T> T within(CompletableFuture<T> f, String what) throws ExecutionException {
        try {
            return f.get(WAIT_SECONDS, TimeUnit.SECONDS);
        } catch (TimeoutException e) {
            throw new AssertionError(what + " did not happen within " + WAIT_SECONDS + " s");
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            throw new AssertionError("interrupted while waiting for " + what, e);
        }
    }

    /** The answer of a future, waited for with a bound. */
    static <T> T answer(CompletableFuture<T> f, String what) {
        try {
            return within(f, what);
        } catch (ExecutionException e) {
            throw new AssertionError(what + " did not happen: the task failed with " + e.getCause(), e.getCause());
        }
    }

    /** A statement's answer, waited for with a bound. */
    static Result answer(EnginePool p, String statement) {
        return answer(p.submit(statement), "the answer to " + statement);
    }

    /** The failure of a future, unwrapped, waited for with a bound. */
    static Throwable failure(CompletableFuture<?> f, String what) {
        Object answer;
        try {
            answer = within(f, what);
        } catch (ExecutionException e) {
            return e.getCause();
        }
        throw new AssertionError(what + " did not happen: the task answered " + answer);
    }

    static WorkerLostException lost(CompletableFuture<?> f, String what) {
        return assertInstanceOf(WorkerLostException.class, failure(f, what));
    }

    static void awaitWorkers(EnginePool p, int n, java.util.List<Long> gone) throws InterruptedException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
        while (System.nanoTime() < end) {
            java.util.List<Long> pids = p.workerPids();
            if (pids.size() == n && pids.stream().noneMatch(gone::contains)) return;
            Thread.sleep(20);
        }
        throw new AssertionError("the pool did not get back to " + n + " workers: " + p.workerPids());
    }

    static boolean alive(long pid) {
        return ProcessHandle.of(pid).map(ProcessHandle::isAlive).orElse(false);
    }

    @Test
    void aCrashFailsOnlyItsOwnTaskAndTheWorkerIsReplaced() throws Exception {
        java.util.List<Long> before = pool.workerPids();
        CompletableFuture<Result> other = pool.submit("for i to 200000 do end do; 7;");
        long start = System.nanoTime();
        WorkerLostException e = lost(pool.submit("crashkernel();"), "the failure of the crashed worker's task");
        long ms = TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - start);
        assertEquals("signal 11 (SIGSEGV)", e.reason());
        assertTrue(e.getMessage().startsWith("kernel process ended: signal 11 (SIGSEGV)"), e.getMessage());
        assertTrue(ms < 3000, "the crash was reported after " + ms + " ms");
        assertEquals("7", answer(other, "the other worker's answer").text());
        java.util.List<Long> crashed = new java.util.ArrayList<>(before);
        crashed.removeAll(pool.workerPids());
        awaitWorkers(pool, 2, crashed);
        assertEquals("12", answer(pool, "area(3, 4);").text());
    }

    @Test
    void aTaskThatIgnoresInterruptsIsKilledAfterItsGrace() throws Exception {
        long start = System.nanoTime();
        WorkerLostException e = lost(pool.submit("spin();", Duration.ofMillis(200)),
                "the kill of a task past its time limit and grace");
        long ms = TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - start);
        assertEquals("killed after the time limit of 0.2 s passed and a grace of 0.5 s", e.reason());
        assertTrue(ms >= 700 && ms < 3000, "killed after " + ms + " ms");
        awaitWorkers(pool, 2, java.util.List.of());
    }

    /** A zero limit's interrupt follows the task's frame at once, often before its kernel call begins. */
    @ParameterizedTest
    @ValueSource(ints = {200, 0})
    void aLoopUnderATimeLimitIsInterruptedAndItsWorkerSurvives(int ms) {
        java.util.List<Long> before = pool.workerPids();
        Throwable e = failure(pool.submit("for i to 10^9 do end do;", Duration.ofMillis(ms)),
                "the interrupt of a loop past its time limit");
        assertInstanceOf(VexelException.class, e);
        assertFalse(e instanceof WorkerLostException, e::getMessage);
        assertEquals("time limit of " + (ms == 0 ? "0" : "0.2") + " s passed", e.getMessage());
        assertEquals("computation interrupted", e.getCause().getMessage());
        assertEquals(before, pool.workerPids());
    }

    /** A caller's interrupt status is its own: it never closes a worker's channel. */
    @Test
    void anInterruptedCallerLosesNoWorker() throws Exception {
        java.util.List<Long> before = pool.workerPids();
        Thread.currentThread().interrupt();
        try {
            assertEquals("2", pool.submit("1+1;").join().text());
            assertTrue(Thread.currentThread().isInterrupted(), "join keeps the interrupt status");
            CompletableFuture<Result> f = pool.submit("for i to 300000 do end do: 3;");
            assertThrows(InterruptedException.class, f::get);
            assertEquals("3", f.join().text());
        } finally {
            Thread.interrupted();
        }
        assertEquals(before, pool.workerPids());
    }

    /** A caller that stops waiting leaves the answer to the pool, which completes what depends on it. */
    @Test
    void anAnswerNoCallerWaitsForStillCompletesItsFuture() throws Exception {
        CompletableFuture<Result> f = pool.submit("for i to 300000 do end do: 7;");
        assertThrows(java.util.concurrent.TimeoutException.class, () -> f.get(1, TimeUnit.MILLISECONDS));
        assertEquals("7", f.thenApply(Result::text).get(30, TimeUnit.SECONDS));
        // Tasks that no caller waits for directly, after ones that callers did.
        for (int i = 0; i < 3; i++) {
            pool.submit("1;").join();
            CompletableFuture<Result> a = pool.submit("2;");
            CompletableFuture<Result> b = pool.submit("3;");
            CompletableFuture.allOf(a, b).get(30, TimeUnit.SECONDS);
            assertEquals("2 3", a.getNow(null).text() + " " + b.getNow(null).text());
        }
    }

    /** A future the caller completes or cancels leaves its task's time limit in force on the worker. */
    @Test
    void aCancelledTaskStillMeetsItsTimeLimit() {
        try (EnginePool one = EnginePool.builder().workers(1).resetEveryTask(false).build()) {
            CompletableFuture<Result> f = one.submit("for i to 10^9 do end do;", Duration.ofMillis(300));
            assertTrue(f.cancel(false));
            assertThrows(java.util.concurrent.CancellationException.class, f::join);
            assertEquals("2", answer(one.submit("2;"), "the answer after the cancelled task's time limit").text());
        }
    }

    /**
     * Callers that wait in every way at once, on two workers: each read of an
     * answer is handed between waiting callers and the pool's reader threads,
     * and none may be lost.
     */
    @Test
    void everyWayOfWaitingGetsItsAnswerUnderContention() throws Exception {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(3);
        java.util.List<Throwable> failures = java.util.Collections.synchronizedList(new java.util.ArrayList<>());
        Thread[] callers = new Thread[4];
        for (int k = 0; k < callers.length; k++) {
            callers[k] = new Thread(() -> {
                java.util.Random r = new java.util.Random();
                try {
                    while (System.nanoTime() < end) {
                        switch (r.nextInt(6)) {
                            case 0 -> assertEquals("2", pool.submit("1+1;").join().text());
                            case 1 -> assertEquals("3", pool.submit("3;").thenApply(Result::text)
                                    .get(30, TimeUnit.SECONDS));
                            case 2 -> {
                                CompletableFuture<Object> c = pool.call("same", 4L);
                                CompletableFuture.allOf(pool.submit("1;"), c).get(30, TimeUnit.SECONDS);
                                assertEquals(4L, c.getNow(null));
                            }
                            case 3 -> {
                                CompletableFuture<Result> f = pool.submit("for i to 20000 do end do: 5;");
                                try {
                                    f.get(1, TimeUnit.MILLISECONDS);
                                } catch (java.util.concurrent.TimeoutException e) {
                                    // waits again below
                                }
                                assertEquals("5", f.get(30, TimeUnit.SECONDS).text());
                            }
                            case 4 -> pool.submit("for i to 20000 do end do;").cancel(false);
                            default -> {
                                try (Session s = pool.session()) {
                                    s.evaluate("y := 6:");
                                    assertEquals("6", s.evaluate("y;").text());
                                }
                            }
                        }
                    }
                } catch (Throwable e) {
                    failures.add(e);
                }
            });
            callers[k].start();
        }
        for (Thread t : callers) {
            t.join();
        }
        assertEquals(java.util.List.of(), failures);
        assertEquals("7", pool.submit("7;").get(30, TimeUnit.SECONDS).text());
    }

    @Test
    void aResultTooLargeForTheWorkersHeapFailsOnlyItsTask() {
        java.util.List<Long> before = pool.workerPids();
        // 80 MB of doubles, in a worker whose heap is 64 MB.
        Throwable e = failure(pool.submit("Array(1..10^7, datatype = float[8]):"), "the failure of a large result");
        assertFalse(e instanceof WorkerLostException);
        assertTrue(e.getMessage().startsWith("the worker's Java heap cannot hold the result"), e.getMessage());
        assertEquals(before, pool.workerPids());
        assertEquals(2L, answer(pool, "1+1;").value());
    }

    @Test
    void eachTaskRunsInACleanKernelWithItsInitialization() {
        for (int i = 0; i < 3; i++) {
            assertEquals("", answer(pool, "leak := 42:").text());
            assertEquals("leak", answer(pool, "leak;").text());
            assertEquals(13.5, answer(pool.call("area", 3, 4.5), "the call of area"));
        }
    }

    @Test
    void aSessionKeepsItsNamesUntilClosed() {
        try (Session s = pool.session()) {
            s.evaluate("g := x -> x^2:");
            assertEquals(9L, s.evaluate("g(3);").value());
            assertEquals(25L, s.call("g", 5));
            Result printed = s.evaluate("print(\"a\"); WARNING(\"w\"); g(2);");
            assertEquals(java.util.List.of("\"a\"", "Warning, w"), printed.output());
            assertEquals("4", printed.text());
            // An error comes after what its statement printed, and a syntax error says where it is.
            KernelErrorException error = assertThrows(KernelErrorException.class,
                    () -> s.evaluate("print(\"a\"); error \"no %1\", 5;"));
            assertEquals("no 5", error.getMessage());
            assertEquals(java.util.List.of("\"a\""), error.output());
            assertEquals(-1, error.offset());
            KernelErrorException syntax = assertThrows(KernelErrorException.class, () -> s.evaluate("x := (1 + ;"));
            assertEquals(10, syntax.offset());
            assertEquals(java.util.List.of(), syntax.output());
            assertEquals("1", s.evaluate("1;").text());
        }
        assertEquals("g", answer(pool, "g;").text());
    }

    @Test
    void aSessionWhoseWorkerIsLostThrowsOnEveryCall() throws Exception {
        Session s = pool.session();
        s.evaluate("h := 1:");
        // On a thread of its own: a session's call waits as long as its task does.
        WorkerLostException first = lost(CompletableFuture.supplyAsync(() -> s.evaluate("crashkernel();")),
                "the failure of a session's call whose worker crashed");
        assertEquals("signal 11 (SIGSEGV)", first.reason());
        assertThrows(WorkerLostException.class, () -> s.evaluate("h;"));
        assertThrows(WorkerLostException.class, () -> s.call("area", 1, 2));
        s.close();
        awaitWorkers(pool, 2, java.util.List.of());
    }

    /** A process's CPU time so far, in clock ticks, from /proc. */
    static long cpuTicks(long pid) throws java.io.IOException {
        String stat = java.nio.file.Files.readString(java.nio.file.Path.of("/proc/" + pid + "/stat"));
        String[] fields = stat.substring(stat.lastIndexOf(')') + 2).split(" ");
        return Long.parseLong(fields[11]) + Long.parseLong(fields[12]);  // utime, stime
    }

    /**
     * Two loops run at once when both workers gain CPU time in the same
     * window while both tasks are unanswered: on a busy machine each may gain
     * less, but a pool that ran them one after the other never passes.
     */
    @Test
    void twoWorkersRunTwoLoopsAtOnce() throws Exception {
        awaitWorkers(pool, 2, java.util.List.of());
        java.util.List<Long> pids = pool.workerPids();
        String loop = "for i to 10^9 do end do;";
        CompletableFuture<Result> a = pool.submit(loop, Duration.ofSeconds(4));
        CompletableFuture<Result> b = pool.submit(loop, Duration.ofSeconds(4));
        long[] before = new long[2];
        long[] gained = new long[2];
        boolean overlapped = false;
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(WAIT_SECONDS);
        while (!overlapped && !a.isDone() && !b.isDone() && System.nanoTime() < end) {
            for (int i = 0; i < 2; i++) before[i] = cpuTicks(pids.get(i));
            Thread.sleep(200);
            for (int i = 0; i < 2; i++) gained[i] = cpuTicks(pids.get(i)) - before[i];
            overlapped = gained[0] >= 5 && gained[1] >= 5 && !a.isDone() && !b.isDone();
        }
        for (CompletableFuture<Result> f : java.util.List.of(a, b)) {
            String message = failure(f, "the interrupt of a loop past its time limit").getMessage();
            assertTrue(message.contains("time limit of 4 s passed"), message);
        }
        assertTrue(overlapped, "the workers did not both run in one window: " + gained[0] + " and " + gained[1]
                + " ticks");
        awaitWorkers(pool, 2, java.util.List.of());
    }

    /** The conversions' round trips (but null, which no procedure takes as one argument), and a large array. */
    static java.util.stream.Stream<Object> values() {
        return java.util.stream.Stream.concat(ConversionTest.roundTrips().filter(java.util.Objects::nonNull),
                java.util.stream.Stream.of((Object) new double[1_000_000]));
    }

    /** A value printed by a worker's kernel comes back as the in-process conversion gives it. */
    @ParameterizedTest
    @MethodSource("com.quorbit.ambrix.ConversionTest#kernelRoundTrips")
    void resultValuesAreTheConversionsValues(String statement) {
        Object here = Kernel.eval(statement + ";").toJava();
        Object there = answer(pool, statement + ";").value();
        assertTrue(ConversionTest.same(here, there), () -> statement + " gave " + ConversionTest.show(there));
    }

    @ParameterizedTest
    @MethodSource("values")
    void valuesRoundTripThroughAWorker(Object java) {
        Object back = answer(pool.call("same", java), "the value's return");
        assertTrue(ConversionTest.same(java, back), () -> ConversionTest.show(java) + " came back as "
                + ConversionTest.show(back));
    }

    @Test
    void resultsCarryTheirValuesAndText() {
        Result r = answer(pool, "print(1); 2^100;");
        assertEquals("1267650600228229401496703205376", r.text());
        assertEquals(java.math.BigInteger.TWO.pow(100), r.value());
        assertEquals(java.util.List.of("1"), r.output());
        assertEquals(null, answer(pool, "x + 1;").value());
        assertEquals("x+1", answer(pool, "x + 1;").text());
        double[] d = (double[]) answer(pool, "Array(1..3, [1.5, 2.5, 3.5], datatype = float[8]);").value();
        assertEquals(3.5, d[2]);
        assertThrows(VexelException.class, () -> pool.call("area", new Object()));
        Result plotted = answer(pool, "plot(x, x = 0..1); plot([x, x^2], x = 0..1); 7;");
        assertEquals("7", plotted.text());
        assertEquals(2, plotted.plots().size());
        assertTrue(plotted.plots().get(1).startsWith("<svg") && plotted.plots().get(1).contains("class=\"legend\""));
        assertEquals(java.util.List.of(), answer(pool, "1;").plots());
    }

    @Test
    void aWorkerPastItsMemoryLimitIsKilled() {
        try (EnginePool p = EnginePool.builder().workers(1).kernelArguments("-q", "--test-hooks")
                .memoryLimit(256L << 20).build()) {
            assertEquals("memory limit of 256 MiB passed",
                    lost(p.submit("hogmemory();"), "the kill of a worker past its memory limit").reason());
            assertEquals("3", answer(p, "1 + 2;").text());
        }
    }

    @Test
    void closingFailsRunningAndQueuedTasksAndEndsEveryWorker() {
        EnginePool p = EnginePool.builder().workers(1).kernelArguments("-q", "--test-hooks")
                .graceTime(Duration.ofMillis(200)).build();
        java.util.List<Long> pids = p.workerPids();
        CompletableFuture<Result> running = p.submit("spin();");
        CompletableFuture<Result> queued = p.submit("1;");
        CompletableFuture<Object> call = p.call("area", 1, 2);
        p.close();
        for (CompletableFuture<?> f : java.util.List.of(running, queued, call)) {
            assertEquals("pool closed", lost(f, "the failure of a task at the pool's close").reason());
        }
        assertEquals("pool closed", lost(p.submit("1;"), "the refusal of a task after close").reason());
        assertThrows(WorkerLostException.class, p::session);
        for (long pid : pids) assertFalse(alive(pid), "worker " + pid + " is alive");
        assertTrue(p.workerPids().isEmpty());
        p.close();
    }

    /**
     * The main of a JVM that opens a pool, prints its workers' pids, and
     * waits to be killed; with "exit", it returns without closing the pool.
     */
    public static final class Opener {
        public static void main(String[] args) throws Exception {
            EnginePool p = EnginePool.builder().workers(2).build();
            System.out.println("pids " + p.workerPids());
            System.out.flush();
            if (args.length == 0) Thread.sleep(60_000);
        }
    }

    static Process opener(String... args) throws Exception {
        return javaMain(Opener.class, args);
    }

    /** A JVM running a test's main, its output and error joined. */
    static Process javaMain(Class<?> main, String... args) throws Exception {
        return new ProcessBuilder(javaCommand(main, args)).redirectErrorStream(true).start();
    }

    /** The command of a JVM like this one that runs a test's main, with the pool's classes and the tests'. */
    static java.util.List<String> javaCommand(Class<?> main, String... args) throws Exception {
        String launcher = ProcessHandle.current().info().command().orElse("java");
        String classPath = where(EnginePool.class) + java.io.File.pathSeparator + where(PoolTest.class);
        java.util.List<String> command = new java.util.ArrayList<>(
                java.util.List.of(launcher, "-cp", classPath, main.getName()));
        command.addAll(java.util.List.of(args));
        return command;
    }

    /** The socket folders in the temporary folder of the process with this id. */
    static java.util.List<java.nio.file.Path> socketFolders(long pid) throws java.io.IOException {
        try (java.util.stream.Stream<java.nio.file.Path> all = java.nio.file.Files.list(
                java.nio.file.Path.of(System.getProperty("java.io.tmpdir")))) {
            return all.filter(f -> f.getFileName().toString().startsWith("ambrix-pool-" + pid + "-")).toList();
        }
    }

    static String where(Class<?> c) throws java.net.URISyntaxException {
        return new java.io.File(c.getProtectionDomain().getCodeSource().getLocation().toURI()).getPath();
    }

    @Test
    void workersEndWhenTheirPoolsJvmIsKilled() throws Exception {
        Process opener = opener();
        java.io.BufferedReader out = new java.io.BufferedReader(new java.io.InputStreamReader(opener.getInputStream()));
        String line;
        do {
            line = out.readLine();
        } while (line != null && !line.startsWith("pids "));
        assertTrue(line != null, "the opener printed no pids");
        java.util.List<Long> pids = java.util.Arrays.stream(line.substring(6, line.length() - 1).split(", "))
                .map(Long::valueOf).toList();
        assertEquals(2, pids.size());
        opener.destroyForcibly().waitFor();
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(2);
        while (System.nanoTime() < end && pids.stream().anyMatch(PoolTest::alive)) Thread.sleep(20);
        for (long pid : pids) assertFalse(alive(pid), "worker " + pid + " outlived its pool");
        // The killed JVM's socket folder is left behind until the next pool of this user removes it.
        assertEquals(1, socketFolders(opener.pid()).size());
        EnginePool.builder().workers(1).build().close();
        assertEquals(java.util.List.of(), socketFolders(opener.pid()));
    }

    @Test
    void aPoolsSocketFolderIsNamedForItsProcessAndGoesWhenItsJvmExits() throws Exception {
        assertEquals(1, socketFolders(ProcessHandle.current().pid()).size());
        // The folder of a process that is alive stays; one whose process is gone goes.
        java.nio.file.Path living = java.nio.file.Files.createDirectory(
                java.nio.file.Path.of(System.getProperty("java.io.tmpdir"), "ambrix-pool-1-77"));
        try {
            Process exits = opener("exit");
            assertEquals(0, exits.waitFor());
            assertEquals(java.util.List.of(), socketFolders(exits.pid()), "a pool that was never closed");
            EnginePool.builder().workers(1).build().close();
            assertTrue(java.nio.file.Files.isDirectory(living), "the folder of a living process was removed");
        } finally {
            java.nio.file.Files.deleteIfExists(living);
        }
    }

    /** Records the pool's log. */
    static final class LogRecords extends java.util.logging.Handler {
        final java.util.List<String> messages = new java.util.concurrent.CopyOnWriteArrayList<>();

        @Override
        public void publish(java.util.logging.LogRecord r) {
            messages.add(r.getLevel() + " " + r.getMessage());
        }

        @Override
        public void flush() {}

        @Override
        public void close() {}
    }

    @Test
    void aTaskWaitingWhileSessionsHoldEveryWorkerIsLoggedOnce() throws Exception {
        java.util.logging.Logger log = java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool");
        LogRecords records = new LogRecords();
        log.addHandler(records);
        try (EnginePool p = EnginePool.builder().workers(1).build()) {
            CompletableFuture<Result> first;
            CompletableFuture<Result> second;
            try (Session s = p.session()) {
                first = p.submit("1;");
                second = p.submit("2;");
                assertEquals("3", s.evaluate("3;").text());
                assertFalse(first.isDone());
            }
            assertEquals("1", answer(first, "the answer of a task that waited for the session").text());
            assertEquals("2", answer(second, "the answer of a task that waited for the session").text());
        } finally {
            log.removeHandler(records);
        }
        java.util.List<String> warnings = records.messages.stream().filter(m -> m.contains("open session")).toList();
        assertEquals(1, warnings.size(), records.messages.toString());
        assertTrue(warnings.get(0).startsWith("WARNING a task waits in line while every worker (1) is held"),
                warnings.get(0));
    }

    /** Local worker processes that connect over TCP as remote ones do: with the pool's secret, and heartbeats. */
    static final Launcher TCP = launch -> Launcher.local().launch(launch);

    /**
     * Workers over TCP whose heartbeats come are kept past twice their
     * timeout, one idle and one running a task of 6 s (its time limit): the
     * same processes all along, never taken for lost, and both answer
     * afterwards.
     */
    @Test
    void workersWhoseHeartbeatsComeOutliveTheirTimeout() throws Exception {
        java.util.logging.Logger log = java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool");
        LogRecords records = new LogRecords();
        log.addHandler(records);
        try (EnginePool p = EnginePool.builder().workers(2).launcher(TCP).listenAddress("127.0.0.1")
                .heartbeatTimeout(Duration.ofSeconds(3)).build()) {
            assertTrue(p.awaitWorkers(2, Duration.ofSeconds(WAIT_SECONDS)), p.workerStates().toString());
            java.util.List<Long> pids = p.workerPids();
            CompletableFuture<Result> task = p.submit("for i to 10^9 do end do;", Duration.ofSeconds(6));
            long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(7);
            while (System.nanoTime() < end) {
                assertEquals(pids, p.workerPids(), () -> "a worker was lost or replaced: " + records.messages);
                Thread.sleep(100);
            }
            Throwable e = failure(task, "the end of the 6 s task by its time limit");
            assertFalse(e instanceof WorkerLostException, e::getMessage);
            assertEquals("time limit of 6 s passed", e.getMessage());
            try (Session a = p.session(); Session b = p.session()) {
                assertEquals("3", a.evaluate("1 + 2;").text());
                assertEquals("4", b.evaluate("2 + 2;").text());
            }
            assertEquals(pids, p.workerPids());
        } finally {
            log.removeHandler(records);
        }
        assertFalse(records.messages.stream().anyMatch(m -> m.contains("heartbeat")), records.messages::toString);
    }

    @Test
    void aLocalPoolReportsItsWorkersAndWaitsForThem() throws Exception {
        awaitWorkers(pool, 2, java.util.List.of());
        assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(10)));
        assertFalse(pool.awaitWorkers(3, Duration.ofMillis(100)), "a pool of two has no third worker");
        for (com.quorbit.ambrix.pool.WorkerState s : pool.workerStates()) {
            assertEquals(new com.quorbit.ambrix.pool.WorkerState("localhost", null,
                    com.quorbit.ambrix.pool.WorkerState.Status.READY), s);
        }
        try (Session s = pool.session()) {
            assertEquals(java.util.List.of(com.quorbit.ambrix.pool.WorkerState.Status.READY,
                    com.quorbit.ambrix.pool.WorkerState.Status.BUSY), pool.workerStates().stream()
                    .map(com.quorbit.ambrix.pool.WorkerState::status).sorted().toList());
            assertEquals("1", s.evaluate("1;").text());
        }
    }

    @Test
    void aBadBuilderSettingIsRefused() {
        assertThrows(IllegalArgumentException.class, () -> EnginePool.builder().workers(0));
        assertThrows(IllegalArgumentException.class, () -> EnginePool.builder().timeLimit(Duration.ZERO));
        assertThrows(IllegalArgumentException.class, () -> EnginePool.builder().memoryLimit(0));
        assertThrows(IllegalArgumentException.class, () -> EnginePool.builder().launcher(null));
        assertThrows(IllegalArgumentException.class, () -> EnginePool.builder().heartbeatTimeout(Duration.ZERO));
        assertThrows(IllegalArgumentException.class,
                () -> com.quorbit.ambrix.pool.SlurmLauncher.builder().cpusPerWorker(0));
        assertThrows(IllegalArgumentException.class,
                () -> com.quorbit.ambrix.pool.SlurmLauncher.builder().jobTime(Duration.ofSeconds(30)));
        VexelException e = assertThrows(VexelException.class,
                () -> EnginePool.builder().workers(1).kernelArguments("-bogus").build());
        assertTrue(e.getMessage().contains("unknown option -bogus"), e.getMessage());
        assertNotEquals(0, pool.workerPids().size());
    }
}
