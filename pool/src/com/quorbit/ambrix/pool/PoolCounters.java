package com.quorbit.ambrix.pool;

import java.util.List;
import java.util.concurrent.atomic.AtomicLong;

/**
 * What a pool has done since its build, counted for {@link PoolStats} and
 * the pool's JMX bean. Each part of the pool reports here with one call:
 * <ul>
 * <li>a task's future reports its outcome once, when it completes
 * ({@link TaskFuture}); the tasks counted are the statements and calls of
 * {@link EnginePool#submit}, {@link EnginePool#call} and of sessions, not
 * the pool's own resets and kernel starts, nor help requests;</li>
 * <li>a task put back in line to run again reports {@link #retried()};</li>
 * <li>the supervisor reports each worker lost ({@link #lostWorker()}).</li>
 * </ul>
 */
final class PoolCounters {
    private final AtomicLong completed = new AtomicLong();
    private final AtomicLong failed = new AtomicLong();
    private final AtomicLong retried = new AtomicLong();
    private final AtomicLong lostWorkers = new AtomicLong();

    /** A task's future completed with its answer. */
    void completed() {
        completed.incrementAndGet();
    }

    /**
     * A task's future completed exceptionally: a kernel error, a time limit,
     * a lost worker, the pool's close, or a caller's cancel.
     */
    void failed() {
        failed.incrementAndGet();
    }

    /** A task whose worker was lost runs again on another. */
    void retried() {
        retried.incrementAndGet();
    }

    /**
     * A worker that had started ended while the pool was open, whatever the
     * cause: a crash, a kill from outside or for a limit, a lost connection.
     * A worker the pool ends on purpose (its close) is not lost, nor is a
     * launch that ended before its worker was ready.
     */
    void lostWorker() {
        lostWorkers.incrementAndGet();
    }

    /**
     * The counts with the gauges read now.
     *
     * @param held   the status of each slot that holds a worker, starting or alive
     * @param queued the tasks waiting in line for a worker
     */
    PoolStats stats(List<WorkerState.Status> held, int queued) {
        int ready = 0;
        int busy = 0;
        for (WorkerState.Status s : held) {
            if (s == WorkerState.Status.READY) {
                ready++;
            } else if (s == WorkerState.Status.BUSY) {
                busy++;
            }
        }
        return new PoolStats(held.size(), ready, busy, queued, completed.get(), failed.get(), retried.get(),
                lostWorkers.get());
    }
}
