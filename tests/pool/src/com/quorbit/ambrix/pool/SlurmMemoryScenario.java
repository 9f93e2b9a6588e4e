package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.time.Duration;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;

/**
 * On a node of 2 CPUs whose cluster allocates memory (CR_Core_Memory) and
 * sets no default memory per CPU, as Slurm ships: a job that names no memory
 * would be given the node's whole memory, and the second worker would wait
 * for good. tests/pool/slurm/run.sh starts that cluster for it.
 */
@Timeout(value = 120, unit = TimeUnit.SECONDS)
class SlurmMemoryScenario {
    @Test
    void twoWorkersWithoutAMemoryLimitBothRunOnATwoCpuNode() throws Exception {
        assertTrue(SlurmScenario.run("scontrol", "show", "node").contains("CPUTot=2"), "not the 2-CPU cluster");
        try (EnginePool pool = EnginePool.builder().workers(2).launcher(SlurmLauncher.builder().build())
                .listenAddress("127.0.0.1").build()) {
            assertTrue(pool.awaitWorkers(2, Duration.ofSeconds(60)), pool.workerStates() + "\n"
                    + SlurmScenario.run("squeue", "-o", "%i %T %r %m"));
            for (WorkerState w : pool.workerStates()) {
                assertTrue(SlurmScenario.run("scontrol", "show", "job", w.job())
                        .contains("MinMemoryNode=" + SlurmLauncher.DEFAULT_MEMORY_MIB / 1024 + "G"), w.toString());
            }
            assertEquals("4", pool.submit("2 + 2;").join().text());
        }
    }
}
