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

    @Test
    void anUnregisteredValueIsReclaimed() {
        Algebraic gone = eval("[\"gone\"];");
        gone.removeFromLiveAlgebStore();
        collect();
        assertVexel("invalid or reclaimed value", gone::toString);
    }

    @Test
    void registeringTwiceAndRemovingTwiceAreHarmless() {
        Algebraic value = eval("[\"twice\"];");
        value.addToLiveAlgebStore();
        value.removeFromLiveAlgebStore();
        value.removeFromLiveAlgebStore();
        collect();
        assertVexel("invalid or reclaimed value", value::toString);
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

    @Test
    void aWrapperWithoutAHandleFailsTheMarkButTheOthersAreMarked() {
        Algebraic broken = eval("[\"broken\"];");
        Algebraic kept = eval("[\"marked\"];");
        long dag = broken.dag;
        broken.dag = 0;
        try {
            assertVexel("could not extract dag from Algebraic", () -> eval("gc(): gc():"));
        } finally {
            broken.removeFromLiveAlgebStore();
            broken.dag = dag;
        }
        collect();
        assertEquals("[\"marked\"]", kept.toString());
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
