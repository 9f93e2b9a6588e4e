package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.function.BooleanSupplier;
import java.util.function.UnaryOperator;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;

/**
 * Local pools that run a task again when its worker is lost through no
 * fault of its own, follow their load between their least and most
 * workers, and end a worker that has served its share of tasks.
 */
@Timeout(value = 120, unit = TimeUnit.SECONDS)
class SizingTest {
    /** A statement that runs for a few seconds, then answers 42. */
    static final String SLOW = "for i to 3*10^6 do end do: 42;";

    static EnginePool.Builder one() {
        return EnginePool.builder().workers(1).kernelArguments("-q", "--test-hooks")
                .graceTime(Duration.ofMillis(200));
    }

    static void await(String what, BooleanSupplier condition, int seconds) throws InterruptedException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(seconds);
        while (!condition.getAsBoolean()) {
            if (System.nanoTime() > end) {
                throw new AssertionError(what + " did not happen within " + seconds + " s");
            }
            Thread.sleep(20);
        }
    }

    /** The pid of the pool's one worker once it runs a task. */
    static long busyWorker(EnginePool p) throws InterruptedException {
        await("a worker running the task", () -> p.workerStates().stream()
                .anyMatch(s -> s.status() == WorkerState.Status.BUSY), 30);
        return p.workerPids().get(0);
    }

    record Loss(String name, UnaryOperator<EnginePool.Builder> settings, String statement, boolean killFromOutside,
            int runs, String reason) {}

    /**
     * A worker killed from outside is no fault of its task's: the task runs
     * again on another worker and answers, saying that it took two runs.
     * A crash of the kernel, or a kill for the task's own time or memory
     * limit, would only repeat: the task fails after one run; so does any
     * loss with retries turned off.
     */
    @Test
    void aTaskRunsAgainOnlyWhenItsWorkerWasLostThroughNoFaultOfItsOwn() throws Exception {
        List<Loss> losses = List.of(
                new Loss("killed from outside", b -> b, SLOW, true, 2, null),
                new Loss("killed from outside, retries off", b -> b.retries(0), SLOW, true, 1, "signal 9 (SIGKILL)"),
                new Loss("a crash of the kernel", b -> b, "crashkernel();", false, 1, "(SIGSEGV)"),
                new Loss("its time limit", b -> b.timeLimit(Duration.ofMillis(300)), "spin();", false, 1,
                        "killed after the time limit"),
                new Loss("its memory limit", b -> b.memoryLimit(400L << 20), "hogmemory();", false, 1,
                        "memory limit of 400 MiB passed"));
        for (Loss loss : losses) {
            try (EnginePool p = loss.settings().apply(one()).build()) {
                CompletableFuture<Result> f = p.submit(loss.statement());
                if (loss.killFromOutside()) {
                    PeerTest.signal("KILL", busyWorker(p));
                }
                if (loss.reason() == null) {
                    Result r = PoolTest.answer(f, loss.name() + ": the answer of the task run again");
                    assertEquals("42", r.text(), loss.name());
                    assertEquals(loss.runs(), r.attempts(), loss.name());
                } else {
                    WorkerLostException e = PoolTest.lost(f, loss.name() + ": the task's failure");
                    assertTrue(e.reason().contains(loss.reason()), loss.name() + ": " + e.getMessage());
                    assertEquals(loss.runs(), e.runs().size(), loss.name() + ": " + e.getMessage());
                }
                assertEquals(1, PoolTest.answer(p, "1;").attempts(), loss.name() + ": a task after it");
            }
        }
    }

    /** When the retries are spent, the failure names each run's worker and why it was lost. */
    @Test
    void spentRetriesNameEachRun() throws Exception {
        try (EnginePool p = one().retries(1).build()) {
            CompletableFuture<Result> f = p.submit("spin();");
            List<Long> killed = new ArrayList<>();
            for (int run = 0; run < 2; run++) {
                await("the task's run on a new worker", () -> {
                    List<Long> pids = p.workerPids();
                    return !pids.isEmpty() && !killed.contains(pids.get(0));
                }, 30);
                long pid = busyWorker(p);
                killed.add(pid);
                PeerTest.signal("KILL", pid);
            }
            WorkerLostException e = PoolTest.lost(f, "the failure of a task whose every run was lost");
            assertEquals(List.of("(pid " + killed.get(0) + "): signal 9 (SIGKILL)",
                    "(pid " + killed.get(1) + "): signal 9 (SIGKILL)"), e.runs());
            assertTrue(e.getMessage().contains("the task ran 2 times, and each worker was lost: run 1 (pid "
                    + killed.get(0) + "): signal 9 (SIGKILL); run 2 (pid " + killed.get(1) + ")"), e.getMessage());
        }
    }

    /**
     * A pool of 0 to 2 workers holds none while idle, launches one per
     * waiting task up to its most, and gives them back after the idle
     * timeout; awaitWorkers launches what it waits for.
     */
    @Test
    void anAdaptivePoolFollowsItsLoad() throws Exception {
        try (EnginePool p = EnginePool.builder().workers(0, 2).idleTimeout(Duration.ofSeconds(1)).build()) {
            assertEquals(List.of(), p.workerStates(), "an idle pool of at least 0 workers");
            assertEquals("1", PoolTest.answer(p, "1;").text());
            assertTrue(p.workerStates().size() <= 1, "one task launched more than one worker: " + p.workerStates());
            List<CompletableFuture<Result>> burst = new ArrayList<>();
            for (int i = 0; i < 4; i++) {
                burst.add(p.submit("for i to 10^6 do end do: " + i + ";"));
            }
            int most = 0;
            while (!burst.stream().allMatch(CompletableFuture::isDone)) {
                List<WorkerState> states = p.workerStates();
                assertTrue(states.size() <= 2, "past the most: " + states);
                most = Math.max(most, states.size());
                Thread.sleep(10);
            }
            for (int i = 0; i < 4; i++) {
                assertEquals(Integer.toString(i), PoolTest.answer(burst.get(i), "a task of the burst").text());
            }
            assertEquals(2, most, "the burst did not launch a second worker");
            await("the idle pool giving back its workers", () -> p.workerStates().isEmpty(), 20);
            assertTrue(p.awaitWorkers(2, Duration.ofSeconds(60)), "awaitWorkers launched none");
            assertFalse(p.awaitWorkers(3, Duration.ofSeconds(60)), "awaitWorkers past the most");
        }
    }

    /**
     * A worker ends after its share of tasks (a session counts as one),
     * between two of them, and another takes its place: five of them on a
     * pool of one worker with a share of two end two workers, and no task.
     */
    @Test
    void aWorkerEndsAfterItsShareOfTasks() throws Exception {
        java.util.logging.Logger log = java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool");
        PoolTest.LogRecords records = new PoolTest.LogRecords();
        log.addHandler(records);
        try (EnginePool p = EnginePool.builder().workers(1).maxTasksPerWorker(2).build()) {
            for (int i = 0; i < 5; i++) {
                if (i == 2) {
                    try (Session s = p.session()) {
                        assertEquals("7", s.evaluate("7;").text());
                    }
                } else {
                    assertEquals(Integer.toString(i), PoolTest.answer(p, i + ";").text());
                }
            }
            await("the second worker's end", () -> records.messages.stream()
                    .filter(m -> m.contains("ended: it served its 2 tasks")).count() == 2, 30);
        } finally {
            log.removeHandler(records);
        }
        assertEquals(2, records.messages.stream().filter(m -> m.contains("served its")).count(),
                records.messages.toString());
        assertTrue(records.messages.stream().noneMatch(m -> m.contains(" lost")), records.messages.toString());
    }
}
