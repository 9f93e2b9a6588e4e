package com.quorbit.ambrix;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.util.ArrayList;
import java.util.Map;
import java.util.TreeMap;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.atomic.LongAdder;
import org.junit.jupiter.api.Test;

/**
 * Values are used on several threads while another restarts the engine over
 * and over, then stops it. Each handle is read under the kernel lock, so a
 * use that loses the race gets the disposed or the stopped message, never
 * the kernel's report of a stale handle or a stopped kernel.
 */
class RestartStressScenario {
    static final java.util.List<String> ALLOWED = java.util.List.of("this Algebraic has been disposed",
            "Engine is null, it may have been stopped.",
            // A restart between the definition and the call: a loss of state, no stale handle.
            "f is not a procedure");

    @Test
    void restartsAndAStopGiveOnlyTheDisposedAndStoppedMessages() throws Exception {
        Engine engine = new Engine(new String[] {"-q"}, new RecordingCallBacks(), null);
        Map<String, LongAdder> messages = new ConcurrentHashMap<>();
        LongAdder rounds = new LongAdder();
        AtomicBoolean running = new AtomicBoolean(true);
        java.util.List<Thread> workers = new ArrayList<>();
        for (int w = 0; w < 3; w++) {
            Thread t = new Thread(() -> {
                while (running.get()) {
                    try {
                        use(engine);
                        rounds.increment();
                    } catch (VexelException e) {
                        messages.computeIfAbsent(e.getMessage(), m -> new LongAdder()).increment();
                    }
                }
            });
            t.start();
            workers.add(t);
        }
        long end = System.nanoTime() + 2_000_000_000L;
        int restarts = 0;
        while (System.nanoTime() < end) {
            engine.restart();
            restarts++;
            Thread.sleep(1);
        }
        engine.stop();
        Thread.sleep(200);
        running.set(false);
        for (Thread t : workers) t.join(10_000);
        Map<String, Long> counts = new TreeMap<>();
        messages.forEach((m, n) -> counts.put(m, n.sum()));
        System.out.println("restarts " + restarts + ", rounds " + rounds.sum() + ", messages " + counts);
        for (String m : counts.keySet()) {
            assertTrue(ALLOWED.contains(m), "unexpected message: " + m + " in " + counts);
        }
        assertTrue(counts.getOrDefault(ALLOWED.get(1), 0L) > 0, "no use after the stop: " + counts);
        assertEquals(0, workers.stream().filter(Thread::isAlive).count());
    }

    /** One round over the natives' frames: value, element, handle arrays, procedures, bulk, conversions. */
    static void use(Engine engine) {
        Algebraic v = engine.evaluate("[1, 2]:");
        v.toString();
        List list = (List) v;
        list.select(2);
        Algebraic[] elements = list.toArray();
        engine.newList(elements);
        Procedure p = (Procedure) engine.evaluate("f := (a, b) -> a + b: f:");
        p.execute(elements);
        p.execute((Expseq) engine.evaluate("1, 2:"));
        p.executehf(new double[] {1, 2});
        DoubleRTable t = (DoubleRTable) engine.toKernel(new double[] {1, 2, 3});
        t.select(new int[] {1});
        t.assignAll(new double[] {4, 5, 6});
        t.toArray();
        v.toJava();
        engine.call("f", 1, 2.5);
        Thread.yield();
        list.select(1);
        p.execute(elements);
    }
}
