package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.nio.file.Path;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.UnaryOperator;
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

    /**
     * A launcher that changes each launch before another one starts it, as
     * a site's wrapper or a node's network might: the worker is given
     * another address, or another secret.
     */
    static final class Altering implements Launcher {
        final Launcher to;
        final UnaryOperator<Launch> change;
        final List<Launch> launches = new CopyOnWriteArrayList<>();
        final List<Launched> launched = new CopyOnWriteArrayList<>();

        Altering(Launcher to, UnaryOperator<Launch> change) {
            this.to = to;
            this.change = change;
        }

        @Override
        public boolean remote() {
            return to.remote();
        }

        @Override
        public Launched launch(Launch launch) throws IOException {
            Launch changed = change.apply(launch);
            launches.add(changed);
            Launched l = to.launch(changed);
            launched.add(l);
            return l;
        }

        /** The launch with the pool's address (the socket's path, or tcp://host:port) replaced. */
        static Launch address(Launch l, String address) {
            return new Launch(l.command().stream().map(a -> isAddress(a) ? address : a).toList(), l.environment(),
                    l.memoryLimit(), l.name());
        }

        private static boolean isAddress(String argument) {
            return argument.startsWith("tcp://") || argument.endsWith(".sock");
        }

        /** The address the first launch's worker was given, as the worker names it: no "tcp://". */
        String address() {
            return launches.get(0).command().stream().filter(Altering::isAddress).findFirst().orElseThrow()
                    .replaceFirst("^tcp://", "");
        }
    }

    /**
     * A local worker that cannot reach its pool fails the build, and the
     * failure names the address it was given and its own error.
     */
    @Test
    void aWorkerThatCannotConnectFailsTheBuildNamingTheAddressAndItsError() {
        Path gone = SocketFolders.make();
        SocketFolders.remove(gone);
        Altering launcher = new Altering(Launcher.local(), l -> Altering.address(l, gone.resolve("w.sock").toString()));
        VexelException e = assertThrows(VexelException.class,
                () -> EnginePool.builder().workers(1).launcher(launcher).build());
        assertTrue(e.getMessage().contains("ambrix worker: could not connect to " + launcher.address()
                + ": No such file or directory"),
                e.getMessage());
    }

    /**
     * A pool for remote workers says once, at its build, where it listens
     * and the address its workers are given: by default this host's name.
     */
    @Test
    void theListenAddressAndTheNameGivenToWorkersAreLoggedAtTheBuild() throws Exception {
        java.util.logging.Logger log = java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool");
        PoolTest.LogRecords records = new PoolTest.LogRecords();
        log.addHandler(records);
        try {
            Launcher refusing = launch -> {
                throw new Launcher.RefusedException("no scheduler here");
            };
            assertThrows(VexelException.class, () -> EnginePool.builder().workers(2).launcher(refusing).build());
            List<String> said = records.messages.stream().filter(m -> m.contains("listens for workers")).toList();
            String host = java.net.InetAddress.getLocalHost().getHostName();
            assertEquals(1, said.size(), records.messages.toString());
            assertTrue(said.get(0).matches("INFO the pool listens for workers on every address of this host, port "
                    + "(\\d+), and gives them this host's name: workers connect to tcp://\\Q" + host
                    + "\\E:\\1"), said.get(0));
        } finally {
            log.removeHandler(records);
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
