package com.quorbit.ambrix.bench;

import com.quorbit.ambrix.pool.EnginePool;
import com.quorbit.ambrix.pool.Result;
import com.quorbit.ambrix.pool.SlurmLauncher;
import com.quorbit.ambrix.pool.WorkerState;
import java.nio.charset.StandardCharsets;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.function.Supplier;

/**
 * The pool's size and its retries: a burst on an idle pool of {@code workers(0, n)}
 * against the same on n ready workers, a task run again after its worker
 * was killed against its run on a ready one, and, on Slurm, the time an
 * idle pool takes to give back its jobs after its idle timeout against a
 * cancelled job's time to leave the queue.
 */
final class SizingBench {
    private SizingBench() {
    }

    /** From a burst of tasks to the first answer, in ms. */
    static double firstAnswer(EnginePool pool, int tasks) {
        long start = System.nanoTime();
        List<CompletableFuture<Result>> all = new ArrayList<>();
        for (int i = 0; i < tasks; i++) all.add(pool.submit(i + ":"));
        CompletableFuture.anyOf(all.toArray(new CompletableFuture<?>[0])).join();
        double ms = (System.nanoTime() - start) / 1e6;
        CompletableFuture.allOf(all.toArray(new CompletableFuture<?>[0])).join();
        return ms;
    }

    /** The median over rounds of a burst's first answer on a fresh pool, its workers ready or not. */
    static double burst(Supplier<EnginePool.Builder> builder, int n, boolean ready, int rounds) {
        long[] ms = new long[rounds];
        for (int r = 0; r < rounds; r++) {
            try (EnginePool pool = builder.get().build()) {
                if (ready && !pool.awaitWorkers(n, Duration.ofSeconds(120))) throw new IllegalStateException("no workers");
                ms[r] = Math.round(firstAnswer(pool, 2 * n) * 1000);
            }
        }
        return PoolBench.median(ms) / 1000.0;
    }

    static void run(boolean smoke, int cores) throws Exception {
        Bench.section("pool size and retries: adaptive bursts, and a task run again after its worker is lost");
        int rounds = smoke ? 1 : 5;
        double ready = burst(() -> EnginePool.builder().workers(cores), cores, true, rounds);
        double adaptive = burst(() -> EnginePool.builder().workers(0, cores), cores, false, rounds);
        Bench.floorRow("burst of " + 2 * cores + " tasks to a first answer, " + cores + " ready local workers", ready,
                "ms");
        Bench.row("the same on an idle workers(0, " + cores + ") pool", adaptive, "ms", ready, Bench.Target.NONE);
        long[] plain = new long[rounds];
        long[] retried = new long[rounds];
        String slow = "for i to 10^6 do end do: 1;";
        // No resets: the one busy worker is the one that runs the task.
        try (EnginePool pool = EnginePool.builder().workers(2).resetEveryTask(false).build()) {
            for (int r = 0; r < rounds; r++) {
                long t0 = System.nanoTime();
                pool.submit(slow).join();
                plain[r] = System.nanoTime() - t0;
                // A worker killed under its task: the task's answer comes from the other worker.
                CompletableFuture<Result> f = pool.submit(slow);
                while (pool.workerStates().stream().noneMatch(s -> s.status() == WorkerState.Status.BUSY)) {
                    Thread.sleep(1);
                }
                long t1 = System.nanoTime();
                new ProcessBuilder("kill", "-KILL", Long.toString(busyPid(pool))).start().waitFor();
                Result result = f.join();
                retried[r] = System.nanoTime() - t1;
                if (result.attempts() != 2) throw new IllegalStateException("ran " + result.attempts() + " times");
                if (!pool.awaitWorkers(2, Duration.ofSeconds(60))) throw new IllegalStateException("no replacement");
            }
        }
        double run = PoolBench.median(plain) / 1e6;
        Bench.floorRow("a task's run on a ready local worker", run, "ms");
        Bench.row("its worker killed: to the answer of its next run", PoolBench.median(retried) / 1e6, "ms", run,
                Bench.Target.NONE);
        Bench.row("  of which: from the kill to that run's start", PoolBench.median(retried) / 1e6 - run, "ms",
                Double.NaN, Bench.Target.valueAtMost(2000));
        if (System.getenv("SLURM_CONF") == null) {
            return;
        }
        Supplier<EnginePool.Builder> slurm = () -> EnginePool.builder().launcher(SlurmLauncher.builder().build())
                .listenAddress("127.0.0.1");
        int n = Math.min(cores, 2);
        double slurmReady = burst(() -> slurm.get().workers(n), n, true, rounds);
        double slurmAdaptive = burst(() -> slurm.get().workers(0, n), n, false, rounds);
        Bench.floorRow("burst of " + 2 * n + " tasks to a first answer, " + n + " ready Slurm workers", slurmReady,
                "ms");
        Bench.row("the same on an idle workers(0, " + n + ") pool on Slurm", slurmAdaptive, "ms", slurmReady,
                Bench.Target.NONE);
        long[] cancel = new long[rounds];
        long[] giveBack = new long[rounds];
        Duration idle = Duration.ofSeconds(2);
        for (int r = 0; r < rounds; r++) {
            try (EnginePool pool = slurm.get().workers(0, n).idleTimeout(idle).build()) {
                firstAnswer(pool, 2 * n);
                long idleFrom = System.nanoTime();
                while (!jobs().isEmpty()) Thread.sleep(20);
                giveBack[r] = System.nanoTime() - idleFrom - idle.toNanos();
            }
            try (EnginePool pool = slurm.get().workers(1).build()) {
                if (!pool.awaitWorkers(1, Duration.ofSeconds(120))) throw new IllegalStateException("no worker");
                String job = pool.workerStates().get(0).job();
                long t0 = System.nanoTime();
                new ProcessBuilder("scancel", job).start().waitFor();
                while (jobs().contains(job)) Thread.sleep(20);
                cancel[r] = System.nanoTime() - t0;
            }
        }
        Bench.floorRow("scancel of a worker's job until squeue lists it no more", PoolBench.median(cancel) / 1e6, "ms");
        Bench.row("idle pool: past its idle timeout to no job listed", PoolBench.median(giveBack) / 1e6, "ms",
                PoolBench.median(cancel) / 1e6, Bench.Target.NONE);
    }

    /** The pid of the busy worker of a local pool whose workers are all alive (states and pids in slot order). */
    private static long busyPid(EnginePool pool) {
        List<WorkerState> states = pool.workerStates();
        List<Long> pids = pool.workerPids();
        for (int i = 0; i < states.size() && i < pids.size(); i++) {
            if (states.get(i).status() == WorkerState.Status.BUSY) return pids.get(i);
        }
        return pids.get(0);
    }

    /** The ids of the cluster's ambrix-worker jobs that are not over. */
    static List<String> jobs() throws Exception {
        Process p = new ProcessBuilder("squeue", "-h", "-o", "%i", "-n", "ambrix-worker").redirectErrorStream(true)
                .start();
        String out = new String(p.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        p.waitFor();
        return out.lines().map(String::strip).filter(s -> !s.isEmpty()).toList();
    }
}
