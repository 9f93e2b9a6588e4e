package com.quorbit.ambrix.examples;

import com.quorbit.ambrix.pool.EnginePool;
import com.quorbit.ambrix.pool.Result;
import com.quorbit.ambrix.pool.SlurmLauncher;
import com.quorbit.ambrix.pool.WorkerState;
import java.time.Duration;
import java.util.concurrent.CompletableFuture;

/**
 * A pool whose workers are Slurm jobs. It runs on any cluster whose
 * {@code sbatch} this machine can call (with {@code SLURM_CONF} naming the
 * cluster's configuration), a single-node one on this machine included.
 * A real cluster would name its partition, account and the address its
 * nodes reach this machine at: the lines in comments.
 *
 * <pre>
 * java -cp build/java/examples.jar com.quorbit.ambrix.examples.SlurmPool
 * </pre>
 */
public final class SlurmPool {
    private SlurmPool() {
    }

    /**
     * Starts two workers as Slurm jobs, waits for them, prints whether they
     * came and their states, then runs two tasks.
     *
     * @param args none
     */
    public static void main(String[] args) {
        try (EnginePool pool = EnginePool.builder()
                .workers(2)
                .launcher(SlurmLauncher.builder()
                        // .partition("compute")                 // each setting maps to an sbatch option
                        // .account("algebra")
                        .jobTime(Duration.ofHours(1))            // --time
                        .cpusPerWorker(1)                        // --cpus-per-task
                        // .sbatchOptions("--qos=normal")        // anything else, passed as is
                        .build())
                // .listenAddress("10.1.0.5")                    // where workers connect; default: this host's name
                .memoryLimit(512L << 20)                         // also given to Slurm as --mem
                .timeLimit(Duration.ofMinutes(5))
                .build()) {                                      // returns once the jobs are submitted
            boolean ready = pool.awaitWorkers(2, Duration.ofMinutes(2));   // jobs may wait in Slurm's queue
            System.out.println("two workers ready: " + ready);
            for (WorkerState w : pool.workerStates()) {                 // host, Slurm job id, status
                System.out.println(w.host() + " " + w.job() + " " + w.status());
            }
            CompletableFuture<Result> power = pool.submit("2^100;");
            CompletableFuture<Result> pi = pool.submit("evalf(Pi);");
            System.out.println(power.join().text() + " " + pi.join().text());
        }
    }
}
