package com.quorbit.ambrix.pool;

/**
 * A pool's figures at one moment, as {@link EnginePool#stats()} took them;
 * its JMX bean shows the same values ({@link EnginePoolMXBean}). The
 * gauges are each read at that moment; a busy pool may change between two
 * of them.
 *
 * <p>The tasks counted are the statements and calls of
 * {@link EnginePool#submit}, {@link EnginePool#call} and of every
 * {@link Session}; the pool's own restarts of kernels and a session's help
 * requests are not tasks. A task counts once, when its future completes:
 * as completed with its answer, as failed with an exception of any kind (the
 * kernel's error, a time limit, a lost worker, the pool's close, a cancel).
 *
 * @param workers        the worker slots that hold a worker, starting (or
 *                       waiting in its scheduler's queue) or alive
 * @param readyWorkers   the workers free for a task
 *                       ({@link WorkerState.Status#READY})
 * @param busyWorkers    the workers that run a task, restart their kernel,
 *                       or serve a session ({@link WorkerState.Status#BUSY})
 * @param queuedTasks    the tasks waiting in line for a worker
 * @param completedTasks the tasks whose future completed with an answer,
 *                       since the build
 * @param failedTasks    the tasks whose future completed exceptionally,
 *                       since the build
 * @param retriedTasks   the runs of a task again on another worker, after
 *                       its worker was lost
 * @param lostWorkers    the workers that had started and ended while the
 *                       pool was open, for any reason but its close: a
 *                       crash, a kill from outside or for a limit, a lost
 *                       connection
 */
public record PoolStats(int workers, int readyWorkers, int busyWorkers, int queuedTasks, long completedTasks,
        long failedTasks, long retriedTasks, long lostWorkers) {
}
