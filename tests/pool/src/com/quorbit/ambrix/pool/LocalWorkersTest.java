package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * Local workers as the pool's launches see them: replacements that fail,
 * and the end of every launch when the pool closes. The launcher is the
 * local one, recording what it started, and failing a launch for real
 * (a JVM that refuses its options) when told to.
 */
@Timeout(value = 60, unit = TimeUnit.SECONDS)
class LocalWorkersTest {
    /**
     * The local launcher, recording each launch and when it began. Launches
     * from failFrom to failUntil end at once; the first takes slowFirst ms
     * before it starts its process, deaf to interrupts, as a launcher blocked
     * reading a slow scheduler's answer would.
     */
    static final class Recording implements Launcher {
        final List<Launched> launched = new CopyOnWriteArrayList<>();
        final List<Long> began = new CopyOnWriteArrayList<>();
        final AtomicInteger inFlight = new AtomicInteger();
        volatile int failFrom = Integer.MAX_VALUE;
        volatile int failUntil = Integer.MAX_VALUE;
        volatile long slowFirst;

        @Override
        public boolean remote() {
            return false;
        }

        @Override
        public Launched launch(Launch launch) throws IOException {
            inFlight.incrementAndGet();
            try {
                int n;
                synchronized (began) {
                    n = began.size();
                    began.add(System.nanoTime());
                }
                if (n == 0) {
                    slow(slowFirst);
                }
                List<String> c = new ArrayList<>(launch.command());
                if (n >= failFrom && n < failUntil) {
                    // The worker's JVM refuses the option and exits before it connects.
                    c.add(1, "-XX:+NoSuchAmbrixOption");
                }
                Launched l = Launcher.local().launch(new Launch(c, launch.environment(), launch.memoryLimit(),
                        launch.name()));
                launched.add(l);
                return l;
            } finally {
                inFlight.decrementAndGet();
            }
        }

        private static void slow(long millis) {
            long end = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(millis);
            boolean interrupted = false;
            for (long left = millis; left > 0; left = TimeUnit.NANOSECONDS.toMillis(end - System.nanoTime())) {
                try {
                    Thread.sleep(left);
                } catch (InterruptedException e) {
                    interrupted = true;
                }
            }
            if (interrupted) {
                Thread.currentThread().interrupt();
            }
        }

        /** The launches whose process is still alive. */
        List<Long> alive() {
            return launched.stream().map(Launched::pid).filter(PoolTest::alive).toList();
        }
    }

    static EnginePool.Builder pool(Recording launcher) {
        return EnginePool.builder().workers(1).kernelArguments("-q", "--test-hooks").launcher(launcher)
                .graceTime(Duration.ofMillis(200));
    }

    static List<WorkerState.Status> statuses(EnginePool p) {
        return p.workerStates().stream().map(WorkerState::status).toList();
    }

    /**
     * A lost worker whose replacements fail is launched again after a pause
     * that doubles: it comes back when a launch succeeds before the slot's
     * bound, and otherwise the slot shows LOST and what waited fails.
     */
    @ParameterizedTest
    @ValueSource(ints = {Slot.FAILED_LAUNCHES - 1, Slot.FAILED_LAUNCHES})
    void aFailedReplacementIsLaunchedAgainUntilItsSlotGivesUp(int failing) throws Exception {
        Recording launcher = new Recording();
        launcher.failFrom = 1;
        launcher.failUntil = 1 + failing;
        boolean recovers = failing < Slot.FAILED_LAUNCHES;
        try (EnginePool p = pool(launcher).build()) {
            PoolTest.lost(p.submit("crashkernel();"), "the crashed worker's task");
            CompletableFuture<Result> waiting = p.submit("1 + 1;");
            if (recovers) {
                assertEquals("2", waiting.get(30, TimeUnit.SECONDS).text());
                assertTrue(p.awaitWorkers(1, Duration.ofSeconds(10)), "no worker after " + statuses(p));
            } else {
                Throwable e = assertThrows(ExecutionException.class, () -> waiting.get(30, TimeUnit.SECONDS))
                        .getCause();
                assertTrue(e.getMessage().startsWith("no worker could be started: ")
                        && e.getMessage().contains("NoSuchAmbrixOption"), e.getMessage());
                assertEquals(List.of(WorkerState.Status.LOST), statuses(p));
                assertEquals(0, p.stats().workers(), "a slot that gave up holds a worker");
                assertFalse(p.awaitWorkers(1, Duration.ofSeconds(5)), "a slot that gave up has a worker");
            }
            assertEquals(1 + failing + (recovers ? 1 : 0), launcher.began.size());
            // The replacement goes at once; each launch after a failed one waits longer.
            for (int i = 2; i < launcher.began.size(); i++) {
                long gap = TimeUnit.NANOSECONDS.toMillis(launcher.began.get(i) - launcher.began.get(i - 1));
                long pause = Supervisor.RETRY_MILLIS << (i - 2);
                assertTrue(gap >= pause, "launch " + i + " came " + gap + " ms after the one before, not " + pause);
            }
        }
        assertEquals(List.of(), launcher.alive());
    }

    /**
     * A build that fails while another slot's launch is under way closes the
     * pool, which ends that launch before the build returns. Which slot fails
     * first is up to the threads, so a few rounds.
     */
    @Test
    void aFailedBuildEndsTheLaunchesUnderWay() throws Exception {
        for (int round = 0; round < 4; round++) {
            Recording launcher = new Recording();
            launcher.failFrom = 1;
            launcher.slowFirst = 1000;
            assertThrows(VexelException.class, () -> pool(launcher).workers(2).build());
            assertEquals(0, launcher.inFlight.get(), "a launch is still under way");
            assertEquals(List.of(), launcher.alive(), "alive after the build failed");
        }
    }
}
