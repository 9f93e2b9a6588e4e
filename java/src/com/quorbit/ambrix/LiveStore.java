package com.quorbit.ambrix;

import java.util.Arrays;
import java.util.WeakHashMap;

/**
 * The Java side of the kernel collector's passes over the live store, the
 * weak set of wrappers whose values the kernel must keep. Called by the
 * native library while it holds the kernel lock, which is the store's
 * monitor: one call per pass, instead of one native round trip per wrapper.
 */
final class LiveStore {
    /** The engine's store, and the address of the engine's record it serves. */
    private static volatile WeakHashMap<Object, Object> store;
    private static volatile long engineID;

    private LiveStore() {}

    /** Called by the native library once the engine has started. */
    static void attach(WeakHashMap<Object, Object> liveStore, long kernelID) {
        engineID = kernelID;
        store = liveStore;
    }

    /**
     * Registers a new wrapper of the running engine in its store, under the
     * kernel lock, without a native round trip.
     *
     * @return false when the wrapper is not of the running engine: the native
     *         library decides what that means
     */
    static boolean add(Algebraic wrapper) {
        WeakHashMap<Object, Object> s = store;
        if (s == null || wrapper.kernelID != engineID) {
            return false;
        }
        synchronized (s) {
            s.put(wrapper, null);
        }
        return true;
    }

    /**
     * The handles of the wrappers in the store, one per wrapper Java can
     * still reach (a disposed wrapper gives 0).
     */
    static long[] handles(WeakHashMap<Object, Object> store) {
        long[] handles = new long[store.size()];
        int n = 0;
        for (Object wrapper : store.keySet()) {
            if (n == handles.length) {
                handles = Arrays.copyOf(handles, 2 * n + 16);
            }
            handles[n++] = ((Algebraic) wrapper).dag;
        }
        return n == handles.length ? handles : Arrays.copyOf(handles, n);
    }

    /** Disposes every wrapper in the store and empties it: the kernel has discarded their values. */
    static void dispose(WeakHashMap<Object, Object> store) {
        for (Object wrapper : store.keySet()) {
            ((Algebraic) wrapper).dag = 0;
        }
        store.clear();
    }
}
