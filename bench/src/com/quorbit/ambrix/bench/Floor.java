package com.quorbit.ambrix.bench;

import com.quorbit.ambrix.EngineCallBacks;

/**
 * The floors of the benchmark: native calls into a small library of their
 * own (libambrixfloor.so) that do what the JVM's native interface costs by
 * itself, with no kernel behind them.
 */
final class Floor {
    static {
        System.loadLibrary("ambrixfloor");
        init(new Object());
    }

    /** Read by {@link #fieldsInMonitor()}, as a value native reads its receiver's. */
    @SuppressWarnings("unused")
    private final long dag;
    @SuppressWarnings("unused")
    private final long kernelID;

    Floor(long dag, long kernelID) {
        this.dag = dag;
        this.kernelID = kernelID;
    }

    /** Caches the field IDs and a global reference to the monitor. */
    private static native void init(Object monitor);

    /** Does nothing. */
    static native void empty();

    /** Reads the two long fields and enters and leaves the monitor; returns their sum. */
    native long fieldsInMonitor();

    /** Calls {@code callbacks.textCallBack(null, 3, "12345")} n times, each with a new string. */
    static native void upcalls(EngineCallBacks callbacks, int n);
}
