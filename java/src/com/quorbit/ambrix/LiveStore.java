package com.quorbit.ambrix;

import java.lang.ref.WeakReference;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.LongBuffer;
import java.util.Arrays;
import java.util.Iterator;
import java.util.WeakHashMap;

/**
 * The Java side of the live store, the weak set of wrappers whose values the
 * kernel must keep, and of the kernel collector's passes over it. Every
 * method runs under the store's monitor, which is also the kernel lock.
 *
 * <p>Three rules keep a handle in Java from outliving its value:
 * <ul>
 * <li>The mark pass allocates nothing of its own: the room for the handles
 *     is made ahead, as wrappers are registered, outside any collection.
 *     If the pass fails all the same, the native side abandons the
 *     collection with a kernel error, so nothing is swept.
 * <li>A wrapper withdrawn from the store loses its handle in the next mark
 *     pass, the last moment its value is known to be alive; a disposed
 *     wrapper (handle 0) cannot be registered again.
 * <li>A disposed entry in the store is skipped and dropped by the pass.
 * </ul>
 *
 * <p>The pass walks a dense list of the registered wrappers kept beside the
 * map, not the map: a WeakHashMap's table never shrinks, so a walk of it
 * costs what the store once held (a loop over a million values leaves a
 * table of two million buckets, walked at every collection after), where
 * the list costs what it holds. When the map holds a key the list lacks
 * (one put there by other means), or still counts keys Java has cleared,
 * the pass walks the map as well.
 */
final class LiveStore {
    /** The engine's store, and the address of the engine's record it serves. */
    private static volatile WeakHashMap<Object, Object> store;
    private static volatile long engineID;

    /**
     * The registered wrappers, each once, in the first {@code count} places:
     * each entry is also the value the map keeps for its wrapper. Guarded by
     * the store's monitor.
     */
    private static Entry[] entries = new Entry[64];
    private static int count;

    /** A registered wrapper, weakly, and its place in the list. */
    private static final class Entry extends WeakReference<Algebraic> {
        int index;

        Entry(Algebraic wrapper, int index) {
            super(wrapper);
            this.index = index;
        }
    }

    /**
     * Wrappers withdrawn since the last mark pass, and the most it held since
     * it was made: once emptied after many, it is made anew, since its table
     * would not shrink either. Guarded by the store's monitor.
     */
    private static WeakHashMap<Object, Object> withdrawn = new WeakHashMap<>();
    private static int withdrawnPeak;

    /**
     * The pass's room for handles, sized ahead for every registered wrapper:
     * memory outside the Java heap that the native side reads in place, so
     * that the handles are written once and read once. Guarded by the
     * store's monitor.
     */
    private static LongBuffer room = newRoom(64);

    /** What {@link #register} answers. */
    static final int REGISTERED = 0, DISPOSED = 1, NOT_RUNNING = 2;

    private LiveStore() {}

    /** Called by the native library once the engine has started. */
    static void attach(WeakHashMap<Object, Object> liveStore, long kernelID) {
        engineID = kernelID;
        store = liveStore;
    }

    /**
     * Registers a new wrapper of the running engine in its store, without a
     * native round trip. The room the mark pass needs for it is made here,
     * so that a lack of memory fails the wrapper's creation, not a collection.
     *
     * @return false when the wrapper is not of the running engine: the native
     *         library decides what that means
     */
    static boolean add(Algebraic wrapper) {
        WeakHashMap<Object, Object> s = storeOf(wrapper);
        if (s == null) {
            return false;
        }
        // A new wrapper has a handle and was never withdrawn.
        synchronized (s) {
            put(s, wrapper);
        }
        return true;
    }

    /**
     * {@link Algebraic#addToLiveAlgebStore()}: one of the three answers
     * above. A disposed wrapper is refused under the monitor, so that no
     * pass can dispose it between the check and the registration.
     */
    static int register(Algebraic wrapper) {
        WeakHashMap<Object, Object> s = storeOf(wrapper);
        if (s == null) {
            return NOT_RUNNING;
        }
        synchronized (s) {
            if (wrapper.dag == 0) {
                return DISPOSED;
            }
            withdrawn.remove(wrapper);
            if (!(s.get(wrapper) instanceof Entry)) {
                put(s, wrapper);
            }
        }
        return REGISTERED;
    }

    /** The store of the running engine when the wrapper is of it, else null. */
    private static WeakHashMap<Object, Object> storeOf(Algebraic wrapper) {
        WeakHashMap<Object, Object> s = store;
        return s != null && wrapper.kernelID == engineID ? s : null;
    }

    /**
     * Puts the wrapper, not yet registered, in the store and the list, with
     * the room its pass needs made first. Under the monitor.
     */
    private static void put(WeakHashMap<Object, Object> s, Algebraic wrapper) {
        reserve(count + 1);
        Entry entry = new Entry(wrapper, count);
        s.put(wrapper, entry);
        entries[count++] = entry;
    }

    /** Takes the entry at this place out of the list. Under the monitor. */
    private static void drop(int index) {
        Entry last = entries[--count];
        entries[index] = last;
        last.index = index;
        entries[count] = null;
    }

    /** {@link Algebraic#removeFromLiveAlgebStore()}: false when the wrapper is not of the running engine. */
    static boolean withdraw(Algebraic wrapper) {
        WeakHashMap<Object, Object> s = storeOf(wrapper);
        if (s == null) {
            return false;
        }
        synchronized (s) {
            Object entry = s.remove(wrapper);
            if (entry == null) {
                return true;
            }
            if (entry instanceof Entry e && entries[e.index] == e) {
                drop(e.index);
            }
            if (withdrawn.isEmpty() && withdrawnPeak > 1024) {
                withdrawn = new WeakHashMap<>();
                withdrawnPeak = 0;
            }
            withdrawn.put(wrapper, Boolean.TRUE);
            withdrawnPeak = Math.max(withdrawnPeak, withdrawn.size());
        }
        return true;
    }

    /** Room in the list for this many wrappers, and for their handles and count. */
    private static void reserve(int wrappers) {
        if (entries.length < wrappers) {
            entries = Arrays.copyOf(entries, Math.max(wrappers, 2 * entries.length));
        }
        if (room.capacity() < wrappers + 1) {
            room = newRoom(Math.max(wrappers + 1, 2 * room.capacity()));
        }
    }

    private static LongBuffer newRoom(int handles) {
        return ByteBuffer.allocateDirect(handles * Long.BYTES).order(ByteOrder.nativeOrder()).asLongBuffer();
    }

    /**
     * The mark pass: disposes the wrappers withdrawn since the last pass,
     * drops disposed entries, and returns the room holding the count of the
     * others' handles, then the handles. Called by the native library, which
     * reads the room in place (and hands large stores to the kernel in
     * ascending order).
     */
    static LongBuffer mark(WeakHashMap<Object, Object> store) {
        if (!withdrawn.isEmpty()) {
            for (Object wrapper : withdrawn.keySet()) {
                ((Algebraic) wrapper).dag = 0;
            }
            withdrawn.clear();
        }
        LongBuffer handles = room;
        int n = 0;
        for (int i = 0; i < count;) {
            Algebraic wrapper = entries[i].get();
            long dag = wrapper == null ? 0 : wrapper.dag;
            if (dag == 0) {
                // Cleared by Java (the map drops it by itself), or disposed.
                if (wrapper != null) {
                    store.remove(wrapper);
                }
                drop(i);
                continue;
            }
            handles.put(1 + n++, dag);
            i++;
        }
        if (store.size() != n) {
            return markAll(store);
        }
        handles.put(0, n);
        return handles;
    }

    /** The pass over the map itself, which holds every registered wrapper. */
    private static LongBuffer markAll(WeakHashMap<Object, Object> store) {
        LongBuffer handles = room;
        int n = 0;
        for (Iterator<Object> it = store.keySet().iterator(); it.hasNext();) {
            long dag = ((Algebraic) it.next()).dag;
            if (dag == 0) {
                it.remove();
                continue;
            }
            if (n + 1 == handles.capacity()) {
                // Only a wrapper registered without add() or register() gets
                // here. The room stays reachable while the native side reads it.
                room = handles = newRoom(2 * n + 16).put(0, handles, 0, n + 1);
            }
            handles.put(1 + n++, dag);
        }
        handles.put(0, n);
        return handles;
    }

    /**
     * Disposes every wrapper in the store, and every one withdrawn since the
     * last pass, and empties both: the kernel has discarded their values.
     */
    static void dispose(WeakHashMap<Object, Object> store) {
        for (Object wrapper : store.keySet()) {
            ((Algebraic) wrapper).dag = 0;
        }
        store.clear();
        Arrays.fill(entries, 0, count, null);
        count = 0;
        for (Object wrapper : withdrawn.keySet()) {
            ((Algebraic) wrapper).dag = 0;
        }
        withdrawn.clear();
    }
}
