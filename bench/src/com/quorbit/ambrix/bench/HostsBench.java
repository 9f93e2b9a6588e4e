package com.quorbit.ambrix.bench;

import com.quorbit.ambrix.pool.EnginePool;
import com.quorbit.ambrix.pool.SlurmLauncher;
import com.quorbit.ambrix.pool.WorkerState;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;

/**
 * The pool on the tests' three-host cluster (bench/run.sh --hosts starts
 * it): how soon a task runs again on the other node after its own node
 * dies with its connections reset, and after its node's link goes down,
 * each beside a task's dispatch to an idle worker on the other node.
 */
final class HostsBench {
    private HostsBench() {
    }

    /** A task that keeps its worker busy while the bench waits for it to run again. */
    private static final String LONG = "for i to 10^8 do end do: 1;";

    /** Runs the cluster script with an action on a node. */
    private static void hosts(String... args) throws Exception {
        List<String> c = new ArrayList<>(List.of(System.getenv("AMBRIX_CLUSTER_SCRIPT"), args[0],
                System.getenv("AMBRIX_CLUSTER_DIR")));
        c.addAll(List.of(args).subList(1, args.length));
        Process p = new ProcessBuilder(c).redirectErrorStream(true).redirectOutput(ProcessBuilder.Redirect.DISCARD)
                .start();
        if (p.waitFor() != 0) throw new IllegalStateException(String.join(" ", c) + " failed");
    }

    /** The host of the worker in that state, or null. */
    private static String hostOf(EnginePool pool, WorkerState.Status status) {
        return pool.workerStates().stream().filter(s -> s.status() == status).map(WorkerState::host).findFirst()
                .orElse(null);
    }

    /** Nanoseconds until a worker on another host than the one given is busy. */
    private static long untilBusyElsewhere(EnginePool pool, String host, long from) throws InterruptedException {
        while (pool.workerStates().stream().noneMatch(s -> s.status() == WorkerState.Status.BUSY
                && s.host() != null && !s.host().equals(host))) {
            Thread.sleep(2);
        }
        return System.nanoTime() - from;
    }

    /**
     * One worker on each node, a long task on one of them; the fault is
     * done to that node. Returns the time from the fault to the task's run
     * on the other node, in ms, after the dispatch floor.
     */
    private static double faultToRetry(String fault, Duration heartbeat, double[] floor) throws Exception {
        try (EnginePool pool = EnginePool.builder().workers(2).launcher(SlurmLauncher.builder().build())
                .heartbeatTimeout(heartbeat).resetEveryTask(false).build()) {
            if (!pool.awaitWorkers(2, Duration.ofSeconds(120))) throw new IllegalStateException("no workers");
            // The floor: a task to an idle worker, from submit to busy.
            long t0 = System.nanoTime();
            CompletableFuture<?> first = pool.submit(LONG);
            while (hostOf(pool, WorkerState.Status.BUSY) == null) Thread.sleep(2);
            floor[0] = (System.nanoTime() - t0) / 1e6;
            String node = hostOf(pool, WorkerState.Status.BUSY);
            long t1 = System.nanoTime();
            if (fault.equals("kill")) {
                hosts("kill-node", node);
            } else {
                hosts("link", node, "down");
            }
            double ms = untilBusyElsewhere(pool, node, t1) / 1e6;
            first.cancel(true);
            return ms;
        } finally {
            restore(fault);
        }
    }

    /** Both nodes back in service. */
    private static void restore(String fault) throws Exception {
        for (String node : List.of("c1", "c2")) {
            if (fault.equals("kill")) {
                hosts("start-node", node);
            } else {
                hosts("link", node, "up");
            }
        }
        long end = System.nanoTime() + Duration.ofSeconds(90).toNanos();
        while (System.nanoTime() < end && !idle()) Thread.sleep(500);
    }

    private static boolean idle() throws Exception {
        Process p = new ProcessBuilder("sinfo", "-h", "-o", "%T").redirectErrorStream(true).start();
        String out = new String(p.getInputStream().readAllBytes());
        p.waitFor();
        return out.lines().allMatch(l -> l.strip().equals("idle"));
    }

    static void run() throws Exception {
        if (System.getenv("AMBRIX_CLUSTER_DIR") == null) {
            Bench.section("pool on three hosts: skipped (no cluster: run bench/run.sh BUILD --hosts as root)");
            return;
        }
        Bench.section("pool on three hosts: a task run again on node c2 after c1 fails, or the other way round");
        double[] floor = new double[1];
        double death = faultToRetry("kill", Duration.ofSeconds(10), floor);
        Bench.floorRow("a task to an idle worker on a node, to busy", floor[0], "ms");
        Bench.row("node's death (connections reset) to its task busy elsewhere", death, "ms", floor[0],
                Bench.Target.valueAtMost(2000));
        Duration heartbeat = Duration.ofSeconds(3);
        double partition = faultToRetry("link", heartbeat, floor);
        Bench.floorRow("a task to an idle worker on a node, to busy", floor[0], "ms");
        Bench.row("node's link down to its task busy elsewhere (heartbeat 3 s)", partition, "ms", floor[0],
                Bench.Target.valueAtMost(heartbeat.toMillis() + 1000));
    }
}
