package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CompletionException;
import java.util.concurrent.TimeUnit;
import java.util.stream.Collectors;
import org.junit.jupiter.api.BeforeAll;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;

/**
 * Pools whose workers are Slurm jobs on three hosts: this machine, the head,
 * and the compute nodes c1 and c2, each a network namespace with an address,
 * a hostname and a hosts file of its own on a private bridge, each running
 * its own slurmd. tests/pool/slurm/run.sh starts that cluster with hosts.sh
 * (SLURM_CONF names it; AMBRIX_CLUSTER_SCRIPT and AMBRIX_CLUSTER_DIR let a
 * scenario kill a node, cut its link, or make it resolve the head's name to
 * an address no one holds). The pools keep their default listen address:
 * the head's name, which each node resolves from its own hosts file.
 */
@Timeout(value = 240, unit = TimeUnit.SECONDS)
class SlurmHostsScenario {
    static final List<String> NODES = List.of("c1", "c2");
    /** A task that keeps its worker busy for some seconds. */
    static final String LONG_TASK = "for i to 3*10^6 do end do: 42;";
    /**
     * A task that runs long enough to still run when its node fails: a
     * worker that has answered and resets counts as busy too, so a task
     * that could end before the fault would pass for one it hit.
     */
    static final String FAULT_TASK = "for i to 10^7 do end do: 42;";

    static final PoolTest.LogRecords LOG = new PoolTest.LogRecords();
    /** Held, so that the logger keeps its handler. */
    static final java.util.logging.Logger POOL_LOG = java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool");

    @BeforeAll
    static void cluster() throws Exception {
        POOL_LOG.addHandler(LOG);
        assertNotNull(System.getenv("AMBRIX_CLUSTER_DIR"), "no test cluster: run through tests/pool/slurm/run.sh BUILD hosts");
        for (String node : NODES) assertEquals("idle", nodeState(node));
    }

    /** Runs hosts.sh with an action on the test's cluster, and fails the test if it fails. */
    static void hosts(String action, String... args) throws IOException, InterruptedException {
        List<String> c = new ArrayList<>(List.of(System.getenv("AMBRIX_CLUSTER_SCRIPT"), action,
                System.getenv("AMBRIX_CLUSTER_DIR")));
        c.addAll(List.of(args));
        Process p = SlurmScenario.command(c.toArray(new String[0])).start();
        String out = new String(p.getInputStream().readAllBytes(), java.nio.charset.StandardCharsets.UTF_8);
        assertEquals(0, p.waitFor(), String.join(" ", c) + ": " + out);
    }

    /** Every process of the node killed, its slurmd included: Slurm declares it down some 10 s later. */
    static void killNode(String node) throws IOException, InterruptedException {
        hosts("kill-node", node);
    }

    /** The node started afresh, back in service. */
    static void startNode(String node) throws Exception {
        hosts("start-node", node);
        awaitNodeState(node, "idle", 120);
    }

    /** The node's link on the bridge taken down (a partition: nothing answers, nothing is reset) or up. */
    static void link(String node, boolean up) throws IOException, InterruptedException {
        hosts("link", node, up ? "up" : "down");
    }

    /** The node resolves the head's name to an address that no one holds (or, reachable, to the head's). */
    static void headReachableFrom(String node, boolean reachable) throws IOException, InterruptedException {
        hosts(reachable ? "reachable-head" : "unreachable-head", node);
    }

    /** The node's state as sinfo gives it: idle, mixed, allocated, down*... */
    static String nodeState(String node) throws IOException, InterruptedException {
        return SlurmScenario.run("sinfo", "-h", "-n", node, "-o", "%T").strip();
    }

    static void awaitNodeState(String node, String state, int seconds) throws Exception {
        try {
            SlurmScenario.awaitTrue(node + " " + state, () -> {
                try {
                    return nodeState(node).equals(state);
                } catch (IOException | InterruptedException e) {
                    return false;
                }
            }, seconds);
        } catch (AssertionError e) {
            throw new AssertionError(e.getMessage() + " (it is " + nodeState(node) + ")", e);
        }
    }

    /** How many of the pool's workers each node holds. */
    static Map<String, Long> workersPerHost(EnginePool pool) {
        return pool.workerStates().stream().filter(s -> s.host() != null)
                .collect(Collectors.groupingBy(WorkerState::host, Collectors.counting()));
    }

    static EnginePool.Builder onHosts(int workers) {
        return EnginePool.builder().workers(workers).launcher(SlurmLauncher.builder().build())
                .graceTime(Duration.ofMillis(500));
    }

    @Test
    void workersSpreadOverBothNodesAndReachTheHeadByItsName() throws Exception {
        List<String> jobs;
        try (EnginePool pool = onHosts(2).build()) {
            assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(90)), pool.workerStates().toString());
            assertEquals(Set.copyOf(NODES), workersPerHost(pool).keySet(), pool.workerStates().toString());
            List<CompletableFuture<Result>> tasks = new ArrayList<>();
            for (int i = 0; i < 6; i++) tasks.add(pool.submit(i + " * 3;"));
            for (int i = 0; i < 6; i++) assertEquals(Integer.toString(3 * i), tasks.get(i).join().text());
            jobs = pool.workerStates().stream().map(WorkerState::job).toList();
        }
        SlurmScenario.awaitJobsEnded(jobs, 15);
        // With no job left, nothing that watched them runs on (the reaper of queued jobs included).
        SlurmScenario.awaitTrue("no child process of this JVM", () -> ProcessHandle.current().children()
                .noneMatch(ProcessHandle::isAlive), 10);
    }

    /**
     * A pool killed while its jobs wait in the queue (for a minute, to
     * begin): no job of it may wait on for its pool that is gone.
     */
    @Test
    void noPendingJobOutlivesAPoolWhoseJvmIsKilled() throws Exception {
        List<String> jobs = SlurmScenario.killedOpenersJobs("pending", "60", "default");
        SlurmScenario.awaitJobsEnded(jobs, 15);
    }

    /**
     * Eight tasks, four on each node; every process on c1 dies under them:
     * their connections reset, and the four tasks of c1 run again on c2.
     */
    @Test
    void everyTaskCompletesWhenItsNodeDies() throws Exception {
        try (EnginePool pool = onHosts(8).build()) {
            assertTrue(pool.awaitWorkers(8, Duration.ofSeconds(120)), pool.workerStates().toString());
            assertEquals(Map.of("c1", 4L, "c2", 4L), workersPerHost(pool));
            List<CompletableFuture<Result>> tasks = new ArrayList<>();
            for (int i = 0; i < 8; i++) tasks.add(pool.submit(FAULT_TASK));
            SlurmScenario.awaitTrue("8 busy workers", () -> pool.workerStates().stream()
                    .filter(s -> s.status() == WorkerState.Status.BUSY).count() == 8, 30);
            LOG.messages.clear();
            killNode("c1");
            List<Integer> attempts = new ArrayList<>();
            for (CompletableFuture<Result> t : tasks) {
                Result r = t.join();
                assertEquals("42", r.text());
                attempts.add(r.attempts());
            }
            assertEquals(4, attempts.stream().filter(a -> a == 2).count(), attempts.toString());
            assertEquals(4, pool.stats().retriedTasks());
            assertEquals(4, pool.stats().lostWorkers());
            String lost = LOG.messages.stream().filter(m -> m.contains(" lost with worker ")).findFirst()
                    .orElseThrow(() -> new AssertionError("no word of a lost run: " + LOG.messages));
            assertTrue(lost.contains("(the connection to the worker on c1 was lost"), lost);
        } finally {
            startNode("c1");
        }
    }

    /**
     * A task on each node; c2's link goes down, so nothing is reset: after
     * the heartbeat timeout, c2's task runs again on c1.
     */
    @Test
    void tasksOfAPartitionedNodeCompleteOnTheOther() throws Exception {
        try (EnginePool pool = onHosts(2).heartbeatTimeout(Duration.ofSeconds(3)).build()) {
            assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(90)), pool.workerStates().toString());
            assertEquals(Set.copyOf(NODES), workersPerHost(pool).keySet());
            List<CompletableFuture<Result>> tasks = List.of(pool.submit(FAULT_TASK), pool.submit(FAULT_TASK));
            SlurmScenario.awaitTrue("2 busy workers", () -> pool.workerStates().stream()
                    .allMatch(s -> s.status() == WorkerState.Status.BUSY), 30);
            link("c2", false);
            List<Integer> attempts = new ArrayList<>();
            for (CompletableFuture<Result> t : tasks) {
                Result r = t.join();
                assertEquals("42", r.text());
                attempts.add(r.attempts());
            }
            assertEquals(List.of(1, 2), attempts.stream().sorted().toList());
            assertEquals(1, pool.stats().retriedTasks());
        } finally {
            link("c2", true);
            // Back on the link, its slurmd started afresh: Slurm may hold the killed job, or have
            // declared the node down, until it registers again.
            startNode("c2");
        }
    }

    /** Workers on c1, which resolves the head's name to an address no one holds. */
    @Test
    void aNodeThatCannotReachTheHeadIsNamedWithItsError() throws Exception {
        headReachableFrom("c1", false);
        Throwable failure;
        // The build, or else the task that waits for a worker, fails.
        try (EnginePool pool = EnginePool.builder().workers(1)
                .launcher(SlurmLauncher.builder().sbatchOptions("--nodelist=c1").build()).build()) {
            failure = assertThrows(CompletionException.class, () -> pool.submit("1;").join()).getCause();
        } catch (VexelException e) {
            failure = e;
        } finally {
            headReachableFrom("c1", true);
        }
        assertTrue(failure.getMessage().contains("No route to host"), failure.toString());
    }

    /**
     * A pool of 0 to 4 workers: no job while idle, up to 4 under a burst of
     * 8 tasks, and none again after the idle timeout; its JMX bean agrees
     * with squeue all along.
     */
    @Test
    void anAdaptivePoolHoldsJobsOnlyWhileItHasWork() throws Exception {
        javax.management.MBeanServer server = java.lang.management.ManagementFactory.getPlatformMBeanServer();
        javax.management.ObjectName bean = new javax.management.ObjectName(
                "com.quorbit.ambrix:type=EnginePool,name=adaptive-on-hosts");
        java.util.function.IntSupplier workers = () -> {
            try {
                return (Integer) server.getAttribute(bean, "Workers");
            } catch (javax.management.JMException e) {
                throw new AssertionError(e);
            }
        };
        try (EnginePool pool = EnginePool.builder().workers(0, 4).idleTimeout(Duration.ofSeconds(3))
                .name("adaptive-on-hosts").launcher(SlurmLauncher.builder().build()).build()) {
            Thread.sleep(1000);
            assertEquals(List.of(), SlurmScenario.queued());
            assertEquals(0, workers.getAsInt());
            List<CompletableFuture<Result>> burst = new ArrayList<>();
            for (int i = 0; i < 8; i++) burst.add(pool.submit(LONG_TASK));
            int most = 0;
            boolean agreed = false;
            while (!burst.stream().allMatch(CompletableFuture::isDone)) {
                int jobs = SlurmScenario.queued().size();
                int held = workers.getAsInt();
                assertTrue(jobs <= 4 && held <= 4, jobs + " jobs, " + held + " workers: past the most");
                most = Math.max(most, jobs);
                agreed |= jobs == 4 && held == 4;
                Thread.sleep(100);
            }
            for (CompletableFuture<Result> t : burst) assertEquals("42", t.join().text());
            assertEquals(4, most, "the burst did not take 4 jobs");
            assertTrue(agreed, "the bean never counted the 4 workers that squeue listed");
            SlurmScenario.awaitTrue("no job and no worker after the idle timeout",
                    () -> {
                        try {
                            return SlurmScenario.queued().isEmpty() && workers.getAsInt() == 0;
                        } catch (IOException | InterruptedException e) {
                            return false;
                        }
                    }, 40);
            assertEquals(8, pool.stats().completedTasks());
            assertEquals(0, pool.stats().lostWorkers());
        }
    }
}
