package com.quorbit.ambrix.pool;

/**
 * A pool as JMX shows it: each open {@link EnginePool} is registered in the
 * platform MBean server under
 * {@code com.quorbit.ambrix:type=EnginePool,name=NAME}, from its build to
 * its close. Every attribute is read-only and means what the
 * {@link PoolStats} component of the same name means.
 */
public interface EnginePoolMXBean {
    /**
     * The worker slots that hold a worker, starting or alive.
     *
     * @return {@link PoolStats#workers()}
     */
    int getWorkers();

    /**
     * The workers free for a task.
     *
     * @return {@link PoolStats#readyWorkers()}
     */
    int getReadyWorkers();

    /**
     * The workers that run a task or serve a session.
     *
     * @return {@link PoolStats#busyWorkers()}
     */
    int getBusyWorkers();

    /**
     * The tasks waiting in line for a worker.
     *
     * @return {@link PoolStats#queuedTasks()}
     */
    int getQueuedTasks();

    /**
     * The tasks that completed with an answer.
     *
     * @return {@link PoolStats#completedTasks()}
     */
    long getCompletedTasks();

    /**
     * The tasks that completed exceptionally.
     *
     * @return {@link PoolStats#failedTasks()}
     */
    long getFailedTasks();

    /**
     * The runs of tasks again, after their worker was lost.
     *
     * @return {@link PoolStats#retriedTasks()}
     */
    long getRetriedTasks();

    /**
     * The workers that ended while the pool was open, other than by its close.
     *
     * @return {@link PoolStats#lostWorkers()}
     */
    long getLostWorkers();
}
