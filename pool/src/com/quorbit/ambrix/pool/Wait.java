package com.quorbit.ambrix.pool;

/**
 * One caller's wait for a task's answer: its deadline, and what an
 * interrupt does to it. An interrupt ends an interruptible wait (as
 * {@code get} does); any other wait takes the thread's interrupt status,
 * so that parking and selecting are not cut short by it, and gives it back
 * at its {@link #end()} (as {@code join} does).
 */
final class Wait {
    private final long deadline;        // System.nanoTime()
    private final boolean timed;
    private final boolean interruptible;
    /** An interrupt status taken and not yet given back. */
    private boolean interrupted;

    private Wait(long deadline, boolean timed, boolean interruptible) {
        this.deadline = deadline;
        this.timed = timed;
        this.interruptible = interruptible;
    }

    static Wait untimed(boolean interruptible) {
        return new Wait(0, false, interruptible);
    }

    /** An interruptible wait until the deadline, a System.nanoTime() value. */
    static Wait until(long deadline) {
        return new Wait(deadline, true, true);
    }

    /** Nanoseconds to wait next, at most cap; 0 once the deadline has passed. */
    long next(long cap) {
        return timed ? Math.max(0, Math.min(cap, deadline - System.nanoTime())) : cap;
    }

    /** Takes the thread's interrupt status: true when an interrupt ends this wait. */
    boolean interrupted() {
        return Thread.interrupted() && interruptEnds();
    }

    /** An interrupt came and its status is taken already: true when it ends this wait. */
    boolean interruptEnds() {
        if (interruptible) {
            return true;
        }
        interrupted = true;
        return false;
    }

    /** Gives back the interrupt status this wait took. */
    void end() {
        if (interrupted) {
            interrupted = false;
            Thread.currentThread().interrupt();
        }
    }
}
