package com.quorbit.ambrix.pool;

import java.lang.System.Logger.Level;
import java.util.concurrent.TimeUnit;

/**
 * The log of a listener's refused connections, at a bounded rate: the first
 * refusal of an interval is logged as it comes, the others are counted and
 * said in one line when the next interval begins. Peers that connect and
 * close a thousand times a second write a line every interval, not a
 * thousand.
 */
final class Refusals {
    static final long INTERVAL_NANOS = TimeUnit.SECONDS.toNanos(10);

    private long intervalStart = System.nanoTime() - INTERVAL_NANOS;
    /** Refusals in this interval that were not logged one by one. */
    private long unsaid;
    private String last;

    /** A connection that did not prove itself, or found no slot. */
    void refused(String from, String why) {
        log("refused a connection from " + from + ": " + why);
    }

    /** The listener itself failed for a moment. */
    void failed(String what) {
        log(what);
    }

    private void log(String line) {
        String summary = null;
        boolean say;
        synchronized (this) {
            long now = System.nanoTime();
            if (now - intervalStart >= INTERVAL_NANOS) {
                if (unsaid > 0) {
                    summary = "and " + unsaid + " more like it in " + TimeUnit.NANOSECONDS.toSeconds(now - intervalStart)
                            + " s, the last: " + last;
                }
                intervalStart = now;
                unsaid = 0;
                say = true;
            } else {
                unsaid++;
                last = line;
                say = false;
            }
        }
        if (summary != null) {
            EnginePool.LOG.log(Level.WARNING, summary);
        }
        if (say) {
            EnginePool.LOG.log(Level.WARNING, line);
        }
    }
}
