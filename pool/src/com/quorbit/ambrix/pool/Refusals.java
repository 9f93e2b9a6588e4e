package com.quorbit.ambrix.pool;

import java.lang.System.Logger.Level;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;

/**
 * The log of a listener's refused connections, at a bounded rate: the first
 * refusal of an interval is logged as it comes, the others are counted and
 * said in one line when the interval ends. Peers that connect and
 * close a thousand times a second write a line every interval, not a
 * thousand.
 */
final class Refusals {
    static final long INTERVAL_NANOS = TimeUnit.SECONDS.toNanos(10);

    private long intervalStart = System.nanoTime() - INTERVAL_NANOS;
    /** Refusals in this interval that were not logged one by one. */
    private long unsaid;
    private String last;
    /** Whether the count of this interval is to be said at its end. */
    private boolean summing;

    /** A connection that did not prove itself, or found no slot. */
    void refused(String from, String why) {
        log("refused a connection from " + from + ": " + why);
    }

    /** The listener itself failed for a moment. */
    void failed(String what) {
        log(what);
    }

    private void log(String line) {
        boolean say;
        synchronized (this) {
            long now = System.nanoTime();
            say = now - intervalStart >= INTERVAL_NANOS;
            if (say) {
                intervalStart = now;
            } else {
                unsaid++;
                last = line;
                if (!summing) {
                    // Said when the interval ends, on the common pool: no thread of its own.
                    summing = true;
                    CompletableFuture.delayedExecutor(intervalStart + INTERVAL_NANOS - now, TimeUnit.NANOSECONDS)
                            .execute(this::sum);
                }
            }
        }
        if (say) {
            warn(line);
        }
    }

    private static void warn(String line) {
        PoolLog.log(Level.WARNING, line);
    }

    /** The interval ended: its count is said in one line, and the next begins. */
    private void sum() {
        String summary;
        synchronized (this) {
            summing = false;
            summary = unsaid + " more like it in the last " + TimeUnit.NANOSECONDS.toSeconds(INTERVAL_NANOS)
                    + " s, the last: " + last;
            unsaid = 0;
            intervalStart = System.nanoTime();
        }
        warn(summary);
    }
}
