package com.quorbit.ambrix.pool;

import java.lang.System.Logger.Level;

/**
 * The pool's log, the {@link System.Logger} named
 * {@code com.quorbit.ambrix.pool}. A logger that fails (a process out of
 * descriptors cannot even load the time zones its formatter wants, and the
 * class stays broken after) takes nothing with it: the pool's threads serve
 * on, the line unsaid.
 */
final class PoolLog {
    private PoolLog() {
    }

    static void log(Level level, String line) {
        try {
            EnginePool.LOG.log(level, line);
        } catch (RuntimeException | Error e) {
            // not said
        }
    }
}
