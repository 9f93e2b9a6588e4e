package com.quorbit.ambrix.examples;

import com.quorbit.ambrix.pool.*;
import java.time.Duration;
import java.util.concurrent.CompletableFuture;

/** Two workers as Slurm jobs; a real cluster names the settings in comments. */
public class SlurmPool {
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
            for (WorkerState w : pool.workerStates())            // host, Slurm job id, status
                System.out.println(w.host() + " " + w.job() + " " + w.status());
            CompletableFuture<Result> power = pool.submit("2^100;");
            CompletableFuture<Result> pi = pool.submit("evalf(Pi);");
            System.out.println(power.join().text() + " " + pi.join().text());
        }
    }
}
