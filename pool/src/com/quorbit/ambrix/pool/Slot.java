package com.quorbit.ambrix.pool;

/**
 * One worker slot of a pool: whether it is in use, its launch now, the
 * worker once connected, and how many launches in a row ended before they
 * were ready. Guarded by the
 * {@link Supervisor}'s lock.
 */
final class Slot {
    /** Launches in a row that may end before they are ready, before a slot gives up. */
    static final int FAILED_LAUNCHES = 3;

    final int index;
    /** Whether the slot is in use: it holds a worker, or one starting, or it gave up. */
    boolean inUse;
    Launcher.Launched launched;
    Worker worker;
    int failures;
    /** Set when the slot gave up after failed launches; the reason of the last. */
    String gaveUp;

    Slot(int index) {
        this.index = index;
    }

    /** What the slot does now, as {@link EnginePool#workerStates()} shows it. */
    WorkerState state() {
        WorkerState.Status status;
        if (gaveUp != null) {
            status = WorkerState.Status.LOST;
        } else if (worker != null && worker.serving()) {
            status = worker.busy() ? WorkerState.Status.BUSY : WorkerState.Status.READY;
        } else if (launched != null && launched.queued()) {
            status = WorkerState.Status.QUEUED;
        } else {
            status = WorkerState.Status.STARTING;
        }
        return new WorkerState(launched == null ? null : launched.host(), launched == null ? null : launched.job(),
                status);
    }
}
