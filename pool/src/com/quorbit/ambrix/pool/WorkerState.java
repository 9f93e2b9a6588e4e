package com.quorbit.ambrix.pool;

/**
 * One worker slot of a pool, as {@link EnginePool#workerStates()} saw it.
 *
 * @param host   the host the worker runs on; null while it is not known
 * @param job    the scheduler's job id (Slurm's), or null for a local worker
 * @param status what the slot does now
 */
public record WorkerState(String host, String job, Status status) {
    /** What a worker slot does. */
    public enum Status {
        /** Its worker waits in the scheduler's queue. */
        QUEUED,
        /** Its worker runs, and has not yet connected or started its kernel. */
        STARTING,
        /** Its worker is free for a task. */
        READY,
        /** Its worker runs a task, or serves a session. */
        BUSY,
        /** The slot gave up: its workers ended before they were ready, time after time. */
        LOST
    }
}
