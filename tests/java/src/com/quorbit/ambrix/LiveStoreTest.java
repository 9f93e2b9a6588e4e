package com.quorbit.ambrix;

import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.collect;
import static com.quorbit.ambrix.Kernel.eval;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.lang.ref.WeakReference;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** A kernel value lives exactly as long as Java can reach a registered wrapper of it. */
class LiveStoreTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    static long liveValues() {
        return ((Numeric) eval("kernelopts(livevalues);")).longValue();
    }

    @Test
    void aRegisteredWrapperKeepsItsValueThroughCollections() {
        Algebraic kept = eval("[\"kept\", 2^70];");
        for (int i = 0; i < 3; i++) collect();
        assertEquals("[\"kept\", 1180591620717411303424]", kept.toString());
    }

    /**
     * A withdrawn wrapper keeps its handle until the next collection, which
     * may reclaim its value: that collection takes the handle, so no later
     * use or registration can hand the kernel a value that may be gone.
     */
    @Test
    void aWithdrawnWrapperLosesItsHandleAtTheNextCollection() {
        Algebraic gone = eval("[\"gone\"];");
        gone.removeFromLiveAlgebStore();
        gone.removeFromLiveAlgebStore();
        assertEquals("[\"gone\"]", gone.toString());
        collect();
        assertVexel("this Algebraic has been disposed", gone::toString);
        assertVexel("this Algebraic has been disposed", gone::addToLiveAlgebStore);
        // Later collections go on as before.
        for (int i = 0; i < 5; i++) assertEquals("3", eval("1 + 2;").toString());
        collect();
    }

    @Test
    void registeringAgainBeforeACollectionKeepsTheValue() {
        Algebraic kept = eval("[\"kept again\"];");
        kept.removeFromLiveAlgebStore();
        kept.addToLiveAlgebStore();
        kept.addToLiveAlgebStore();
        collect();
        assertEquals("[\"kept again\"]", kept.toString());
    }

    @Test
    void wrappersThatJavaDropsStopKeepingTheirValues() throws InterruptedException {
        collect();
        long before = liveValues();
        WeakReference<Algebraic> last = null;
        for (int i = 0; i < 300; i++) last = new WeakReference<>(eval("[\"dropped\", " + i + "];"));
        for (int i = 0; i < 100 && last.get() != null; i++) {
            System.gc();
            Thread.sleep(10);
        }
        assertNull(last.get(), "Java did not collect the wrappers");
        collect();
        long after = liveValues();
        assertTrue(after < before + 100, "before " + before + ", after " + after);
    }

    /**
     * Wrappers that Java drops, withdrawn ones and ones registered again, in
     * one store over several collections: each held one keeps its value, each
     * withdrawn one loses its handle, whatever the others did before it.
     */
    @Test
    void heldWrappersKeepTheirValuesWhileOthersComeAndGo() throws InterruptedException {
        int n = 3000;
        Algebraic[] values = ((List) eval("[seq([i], i = 1.." + n + ")]:")).toArray();
        WeakReference<Algebraic> dropped = null;
        for (int round = 0; round < 6; round++) {
            for (int i = round; i < n; i += 6) {
                switch (i % 3) {
                    case 0 -> {
                        dropped = new WeakReference<>(values[i]);
                        values[i] = null;
                    }
                    case 1 -> values[i].removeFromLiveAlgebStore();
                    default -> {
                        values[i].removeFromLiveAlgebStore();
                        values[i].addToLiveAlgebStore();
                    }
                }
            }
            for (int i = 0; i < 100 && dropped.get() != null; i++) {
                System.gc();
                Thread.sleep(10);
            }
            assertNull(dropped.get(), "Java did not collect the wrappers");
            collect();
            for (int i = 0; i < n; i++) {
                if (values[i] == null) continue;
                boolean withdrawn = i % 3 == 1 && i % 6 <= round;
                if (withdrawn) {
                    assertVexel("this Algebraic has been disposed", values[i]::toString);
                } else {
                    assertEquals("[" + (i + 1) + "]", values[i].toString());
                }
            }
        }
    }

    @Test
    void aDisposedEntryIsSkippedAndDropped() {
        Algebraic broken = eval("[\"broken\"];");
        Algebraic kept = eval("[\"marked\"];");
        broken.dag = 0;
        collect();
        assertEquals("[\"marked\"]", kept.toString());
        assertVexel("this Algebraic has been disposed", broken::addToLiveAlgebStore);
    }

    /**
     * A mark pass that cannot mark every wrapper abandons the collection
     * with a kernel error: nothing is swept, so every held value survives.
     * A key that is no wrapper makes the pass fail.
     */
    @Test
    @SuppressWarnings("unchecked")
    void aFailedMarkPassAbandonsTheCollection() throws Exception {
        Algebraic held = eval("[\"held\", 2^70];");
        Algebraic other = eval("[\"other\"];");
        java.lang.reflect.Field field = LiveStore.class.getDeclaredField("store");
        field.setAccessible(true);
        java.util.Map<Object, Object> store = (java.util.Map<Object, Object>) field.get(null);
        Object intruder = "not a wrapper";
        synchronized (store) {
            store.put(intruder, Boolean.TRUE);
        }
        long collections = ((Numeric) eval("kernelopts(collections);")).longValue();
        try {
            for (int i = 0; i < 3; i++) {
                assertVexel("live values could not be marked; the collection was abandoned", () -> eval("gc():"));
            }
            assertEquals(collections, ((Numeric) eval("kernelopts(collections);")).longValue());
        } finally {
            synchronized (store) {
                store.remove(intruder);
            }
        }
        collect();
        assertEquals("[\"held\", 1180591620717411303424]", held.toString());
        assertEquals("[\"other\"]", other.toString());
    }

    @Test
    void aStoreLargeEnoughToBeSortedKeepsEveryValue() {
        int n = (1 << 18) + 1000;  // from 2^18 on, the handles reach the kernel sorted
        Algebraic[] values = ((List) eval("[seq(i + 0.5, i = 1.." + n + ")]:")).toArray();
        collect();
        collect();
        for (int i = 0; i < n; i++) assertEquals(i + 1.5, ((Numeric) values[i]).doubleValue());
    }

    @Test
    void withoutAnEngineTheStoreRefuses() throws Throwable {
        assertVexel("Engine is void", () -> new Algebraic(1, 0));
        Algebraic value = eval("[1];");
        Checks.withoutEngine(value, () -> {
            assertVexel("Engine is void", value::removeFromLiveAlgebStore);
            assertVexel("Engine is void", value::addToLiveAlgebStore);
        });
    }

    @Test
    void aDisposedWrapperFailsBeforeReachingTheKernel() throws Throwable {
        Algebraic value = eval("[1];");
        Checks.withoutHandle(value, () -> {
            assertVexel("this Algebraic has been disposed", value::toString);
            assertVexel("this Algebraic has been disposed", value::isNULL);
        });
    }
}
