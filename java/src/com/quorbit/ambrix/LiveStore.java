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
        if (n != handles.length) {
            handles = Arrays.copyOf(handles, n);
        }
        return n >= SORTED_FROM ? sorted(handles) : handles;
    }

    /**
     * From this many wrappers on, the handles go to the kernel in ascending
     * order: where a kernel's handles are addresses (or grow with its cells),
     * the kernel then visits its cells in memory order instead of at random,
     * which outweighs the sort once they no longer fit the caches.
     */
    static final int SORTED_FROM = 1 << 18;

    /** The values sorted as unsigned numbers: a radix sort, a byte at a time, skipping bytes they all share. */
    static long[] sorted(long[] values) {
        long[] from = values;
        long[] to = new long[values.length];
        int[] counts = new int[256];
        for (int shift = 0; shift < 64; shift += 8) {
            Arrays.fill(counts, 0);
            for (long v : from) {
                counts[(int) (v >>> shift) & 0xFF]++;
            }
            if (counts[(int) (from[0] >>> shift) & 0xFF] == from.length) {
                continue;
            }
            for (int i = 0, sum = 0; i < 256; i++) {
                int c = counts[i];
                counts[i] = sum;
                sum += c;
            }
            for (long v : from) {
                to[counts[(int) (v >>> shift) & 0xFF]++] = v;
            }
            long[] swap = from;
            from = to;
            to = swap;
        }
        return from;
    }

    /** Disposes every wrapper in the store and empties it: the kernel has discarded their values. */
    static void dispose(WeakHashMap<Object, Object> store) {
        for (Object wrapper : store.keySet()) {
            ((Algebraic) wrapper).dag = 0;
        }
        store.clear();
    }
}
