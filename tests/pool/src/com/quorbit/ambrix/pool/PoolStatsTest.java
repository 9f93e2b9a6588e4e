package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.lang.management.ManagementFactory;
import java.time.Duration;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import java.util.function.BooleanSupplier;
import java.util.function.Function;
import java.util.stream.Collectors;
import java.util.stream.Stream;
import javax.management.JMX;
import javax.management.MBeanAttributeInfo;
import javax.management.MBeanServer;
import javax.management.ObjectName;
import org.junit.jupiter.api.AfterAll;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;
import org.junit.jupiter.params.provider.NullSource;
import org.junit.jupiter.params.provider.ValueSource;

/**
 * A pool watched from outside: its {@link PoolStats} and its JMX bean, by
 * name, from build to close. One pool is brought into a state where every
 * figure differs from the others (a worker lost, tasks answered and
 * failed, every worker held by a session, tasks in line), so that a figure
 * read from the wrong place shows.
 */
@Timeout(value = 90, unit = TimeUnit.SECONDS)
class PoolStatsTest {
    static final MBeanServer SERVER = ManagementFactory.getPlatformMBeanServer();
    /** The figures of the held pool: workers, ready, busy, queued, completed, failed, retried, lost. */
    static final PoolStats HELD = new PoolStats(3, 0, 3, 2, 5, 6, 0, 1);

    static EnginePool pool;
    static final List<Session> sessions = new ArrayList<>();
    static final List<CompletableFuture<Result>> queued = new ArrayList<>();

    @BeforeAll
    static void holdAPool() throws Exception {
        pool = EnginePool.builder().name("stats-held").workers(3).graceTime(Duration.ofMillis(200)).build();
        long victim = pool.workerPids().get(0);
        ProcessHandle.of(victim).orElseThrow().destroyForcibly();
        await(() -> pool.stats().lostWorkers() == 1 && pool.awaitWorkers(3, Duration.ZERO), "the worker's loss");
        for (String s : List.of("1 + 1;", "error \"boom\";", "2 + 2;")) {
            pool.submit(s).handle((r, e) -> r).get(30, TimeUnit.SECONDS);
        }
        for (int i = 0; i < 3; i++) {
            Session s = pool.session();
            sessions.add(s);
            for (int j = 0; j < i; j++) {
                s.evaluate("x := " + j + ":");
            }
            // "error" fails the statement alone: the session goes on.
            for (int j = 0; j < (i == 0 ? 3 : 1); j++) {
                assertThrows(VexelException.class, () -> s.evaluate("error \"no\";"));
            }
        }
        queued.add(pool.submit("3;"));
        queued.add(pool.submit("4;"));
    }

    @AfterAll
    static void release() throws Exception {
        sessions.forEach(Session::close);
        for (CompletableFuture<Result> f : queued) {
            f.get(30, TimeUnit.SECONDS);
        }
        pool.close();
    }

    /** Polls until the condition holds, 30 s at most. */
    static void await(BooleanSupplier condition, String what) throws InterruptedException {
        long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(30);
        while (!condition.getAsBoolean()) {
            if (System.nanoTime() > end) {
                throw new AssertionError(what + " did not happen within 30 s");
            }
            Thread.sleep(20);
        }
    }

    static ObjectName beanOf(String name) throws Exception {
        return new ObjectName("com.quorbit.ambrix:type=EnginePool,name=" + name);
    }

    /**
     * Answered and failed statements count, of tasks and sessions alike; the
     * kernel starts and restarts do not; a killed worker counts as lost once,
     * and its replacement holds its slot; sessions make workers busy, and
     * tasks wait in line.
     */
    @Test
    void theFiguresCountTasksAndWorkers() {
        assertEquals(HELD, pool.stats());
    }

    static Stream<Arguments> attributes() {
        return Stream.of(
                Arguments.of("Workers", (Function<PoolStats, Object>) PoolStats::workers),
                Arguments.of("ReadyWorkers", (Function<PoolStats, Object>) PoolStats::readyWorkers),
                Arguments.of("BusyWorkers", (Function<PoolStats, Object>) PoolStats::busyWorkers),
                Arguments.of("QueuedTasks", (Function<PoolStats, Object>) PoolStats::queuedTasks),
                Arguments.of("CompletedTasks", (Function<PoolStats, Object>) PoolStats::completedTasks),
                Arguments.of("FailedTasks", (Function<PoolStats, Object>) PoolStats::failedTasks),
                Arguments.of("RetriedTasks", (Function<PoolStats, Object>) PoolStats::retriedTasks),
                Arguments.of("LostWorkers", (Function<PoolStats, Object>) PoolStats::lostWorkers));
    }

    /** Each attribute of the bean, read as a JMX client reads it, is the snapshot's value, of its type. */
    @ParameterizedTest(name = "{0}")
    @MethodSource("attributes")
    void theBeanShowsTheSnapshot(String attribute, Function<PoolStats, Object> value) throws Exception {
        Object read = SERVER.getAttribute(beanOf("stats-held"), attribute);
        assertEquals(value.apply(HELD), read, attribute);
        MBeanAttributeInfo info = Arrays.stream(SERVER.getMBeanInfo(beanOf("stats-held")).getAttributes())
                .filter(a -> a.getName().equals(attribute)).findFirst().orElseThrow();
        assertTrue(info.isReadable() && !info.isWritable(), attribute + " is not read-only");
    }

    /** The bean has the attributes of the table, and no others. */
    @Test
    void theBeanHasNoOtherAttributes() throws Exception {
        assertEquals(attributes().map(a -> a.get()[0]).collect(Collectors.toSet()),
                Arrays.stream(SERVER.getMBeanInfo(beanOf("stats-held")).getAttributes())
                        .map(MBeanAttributeInfo::getName).collect(Collectors.toSet()));
    }

    /**
     * The bean lives from the build to the close, and the pool's own close of
     * its workers loses none. The name is free again after the close.
     */
    @Test
    void closeUnregistersTheBean() throws Exception {
        EnginePool p = EnginePool.builder().name("stats-closed").workers(2).build();
        EnginePoolMXBean bean = JMX.newMXBeanProxy(SERVER, beanOf("stats-closed"), EnginePoolMXBean.class);
        assertEquals(2, bean.getWorkers());
        assertEquals("2", p.submit("1 + 1;").join().text());
        await(() -> bean.getReadyWorkers() == 2, "the reset after the task");
        assertEquals(new PoolStats(2, 2, 0, 0, 1, 0, 0, 0), p.stats());
        p.close();
        assertFalse(SERVER.isRegistered(beanOf("stats-closed")));
        assertEquals(0, p.stats().lostWorkers(), "the close's own ends counted as lost");
        assertEquals(1, p.stats().completedTasks());
        try (EnginePool again = EnginePool.builder().name("stats-closed").workers(1).build()) {
            assertTrue(SERVER.isRegistered(beanOf("stats-closed")));
            assertEquals(0, again.stats().completedTasks());
        }
    }

    /**
     * Pools given no name are pool-1, pool-2, ..., each registered under its
     * own; one that finds its number taken by a pool named so takes the next.
     */
    @Test
    void defaultNamesAreDistinct() throws Exception {
        try (EnginePool a = EnginePool.builder().workers(1).build();
                EnginePool b = EnginePool.builder().workers(1).build()) {
            assertTrue(a.name().matches("pool-[1-9][0-9]*"), a.name());
            int n = Integer.parseInt(b.name().substring("pool-".length()));
            assertEquals("pool-" + (n - 1), a.name());
            try (EnginePool taken = EnginePool.builder().name("pool-" + (n + 1)).workers(1).build();
                    EnginePool c = EnginePool.builder().workers(1).build()) {
                assertEquals("pool-" + (n + 2), c.name());
                for (EnginePool p : List.of(a, b, taken, c)) {
                    assertTrue(SERVER.isRegistered(beanOf(p.name())), p.name());
                }
            }
        }
    }

    /** A second open pool of the same name fails its build, and leaves the first one's bean in place. */
    @Test
    void aNameTakenFailsTheBuild() throws Exception {
        try (EnginePool first = EnginePool.builder().name("stats-twice").workers(1).build()) {
            IllegalStateException e = assertThrows(IllegalStateException.class,
                    () -> EnginePool.builder().name("stats-twice").workers(1).build());
            assertTrue(e.getMessage().contains("a pool named stats-twice is open already"), e.getMessage());
            assertTrue(SERVER.isRegistered(beanOf("stats-twice")), "the first pool's bean went with the second");
            assertEquals(1, JMX.newMXBeanProxy(SERVER, beanOf("stats-twice"), EnginePoolMXBean.class).getWorkers());
            assertEquals("3", first.submit("1 + 2;").join().text());
        }
    }

    /** A build whose workers do not start leaves no bean behind, and its name free. */
    @Test
    void aFailedBuildLeavesNoBean() throws Exception {
        assertThrows(VexelException.class, () -> EnginePool.builder().name("stats-broken").workers(1)
                .javaOptions("-XX:+NoSuchAmbrixOption").build());
        assertFalse(SERVER.isRegistered(beanOf("stats-broken")));
        EnginePool.builder().name("stats-broken").workers(1).build().close();
    }

    /** A name that a JMX object name cannot hold unquoted, or none, is refused at once. */
    @ParameterizedTest
    @NullSource
    @ValueSource(strings = {"", " ", "a,b", "a=b", "a:b", "a\"b", "a*", "a?", "a\nb", "x,kind=other"})
    void aNameTheObjectNameCannotHoldIsRefused(String name) {
        IllegalArgumentException e = assertThrows(IllegalArgumentException.class,
                () -> EnginePool.builder().name(name));
        assertTrue(e.getMessage().startsWith("name must"), e.getMessage());
    }

    /** Any other name goes into the object name as it is. */
    @Test
    void aNameWithSpacesAndLettersOfAnyScriptIsTaken() throws Exception {
        try (EnginePool p = EnginePool.builder().name("Größe 2.0_x").workers(1).build()) {
            assertNotEquals(null, SERVER.getObjectInstance(beanOf("Größe 2.0_x")));
            assertEquals("Größe 2.0_x", p.name());
        }
    }
}
