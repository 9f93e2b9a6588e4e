package com.quorbit.ambrix;

import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.eval;
import static com.quorbit.ambrix.Kernel.show;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** Threads take turns in the kernel, and each sees its own callbacks. */
class ThreadTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    @Test
    void twoThreadsEvaluateAtOnce() throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(2);
        try {
            java.util.List<Future<?>> done = new java.util.ArrayList<>();
            for (String name : new String[] {"first", "second"}) {
                done.add(pool.submit(() -> {
                    Thread.currentThread().setName(name);
                    for (int i = 0; i < 200; i++) {
                        eval("textcallback(3, \"" + name + "\"):");
                        assertEquals(String.valueOf(i + 1), show(i + " + 1;"));
                    }
                    return null;
                }));
            }
            for (Future<?> f : done) f.get(60, TimeUnit.SECONDS);
        } finally {
            pool.shutdownNow();
        }
        java.util.List<RecordingCallBacks.Call> texts = CALLBACKS.calls("text");
        assertTrue(texts.size() >= 400);
        for (RecordingCallBacks.Call call : texts) {
            if (call.arg(1).equals("first") || call.arg(1).equals("second"))
                assertEquals(call.arg(1), call.thread().getName());
        }
    }

    @Test
    void aCallbackMayNotReenterTheEngine() {
        CALLBACKS.callBack = s -> ENGINE.evaluate("1;").toString();
        assertVexel("kernel re-entered from a callback", () -> eval("callback(\"again\");"));
        // The outer call still released the lock and cleared its record.
        assertEquals("2", show("1 + 1;"));
    }

    @Test
    void theLockIsFreeForOtherThreadsAfterAnException() throws Exception {
        assertVexel("no entry", () -> eval("error \"no entry\";"));
        Thread other = new Thread(() -> eval("otherThreadValue := 7:"));
        other.start();
        other.join(10_000);
        assertEquals("7", show("otherThreadValue;"));
    }
}
