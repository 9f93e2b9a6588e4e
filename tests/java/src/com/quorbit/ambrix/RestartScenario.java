package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import org.junit.jupiter.api.MethodOrderer;
import org.junit.jupiter.api.Order;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.TestMethodOrder;

/** A restart disposes every registered wrapper; values made after it are protected again. */
@TestMethodOrder(MethodOrderer.OrderAnnotation.class)
class RestartScenario {
    static final Engine ENGINE = new Engine(new String[] {"-q"}, new RecordingCallBacks(), null);

    @Test
    @Order(1)
    void restartDisposesAndProtectsAnew() {
        Engine engine = ENGINE;
        engine.evaluate("named := 5:");
        Algebraic before = engine.evaluate("[\"before\"];");
        Name name = engine.newName("named", true);
        for (int round = 0; round < 3; round++) {
            engine.restart();
            assertEquals(0, before.dag);
            assertVexel("this Algebraic has been disposed", before::toString);
            assertVexel("this Algebraic has been disposed", name::isAssigned);
            assertEquals("named", engine.evaluate("named;").toString());
            Algebraic after = engine.evaluate("[\"after\", " + round + "];");
            engine.evaluate("gc(): gc(): gc():");
            assertEquals("[\"after\", " + round + "]", after.toString());
            before = after;
        }
        // A wrapper withdrawn before a restart is disposed by it as well, and
        // neither kind can be registered again.
        Algebraic withdrawn = engine.evaluate("[\"withdrawn\"];");
        withdrawn.removeFromLiveAlgebStore();
        engine.restart();
        assertVexel("this Algebraic has been disposed", withdrawn::toString);
        assertVexel("this Algebraic has been disposed", withdrawn::addToLiveAlgebStore);
        assertVexel("this Algebraic has been disposed", before::addToLiveAlgebStore);
        for (int i = 0; i < 3; i++) assertEquals("3", engine.evaluate("gc(): 1 + 2;").toString());
    }

    /**
     * A value method that read its handle before a restart took it finds it
     * gone once it has the kernel lock, and fails without keeping the lock:
     * another thread uses the engine at once. The lock is held here (it is
     * reentrant) while the method waits for it and the restart runs, so the
     * restart comes between the method's read and its turn; the method's
     * thread stays alive afterwards, as a lock it kept would stay held.
     */
    @Test
    @Order(2)  // last: a lock it found held stays held
    void aUseThatLostItsHandleToARestartLeavesTheLockFree() throws Exception {
        Algebraic value = ENGINE.evaluate("[\"old\"];");
        java.lang.reflect.Method kernelLock = Engine.class.getDeclaredMethod("kernelLock");
        kernelLock.setAccessible(true);
        CompletableFuture<String> use = new CompletableFuture<>();
        CountDownLatch finished = new CountDownLatch(1);
        Thread user = new Thread(() -> {
            try {
                use.complete(value.toString());
            } catch (VexelException e) {
                use.complete(e.getMessage());
            }
            try {
                finished.await();
            } catch (InterruptedException e) {
                // ends
            }
        });
        user.setDaemon(true);
        try {
            synchronized (kernelLock.invoke(ENGINE)) {
                user.start();
                long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
                while (user.getState() != Thread.State.BLOCKED) {
                    assertTrue(System.nanoTime() < end, "the value method did not come to wait for the kernel lock");
                    Thread.sleep(1);
                }
                ENGINE.restart();
            }
            assertEquals("this Algebraic has been disposed", use.get(10, TimeUnit.SECONDS));
            CompletableFuture<String> other = new CompletableFuture<>();
            Thread second = new Thread(() -> other.complete(ENGINE.evaluate("1 + 2;").toString()));
            second.setDaemon(true);
            second.start();
            try {
                assertEquals("3", other.get(10, TimeUnit.SECONDS));
            } catch (TimeoutException e) {
                throw new AssertionError("another thread could not take the kernel lock within 10 s after a use "
                        + "failed for a handle that a restart took");
            }
        } finally {
            finished.countDown();
        }
    }
}
