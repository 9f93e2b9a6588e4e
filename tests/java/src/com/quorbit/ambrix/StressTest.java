package com.quorbit.ambrix;

import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Kernel.eval;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.ArrayList;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicBoolean;
import org.junit.jupiter.api.Test;

/**
 * Threads build and read values while another thread keeps collecting: a
 * value that Java holds is never reclaimed, whatever runs in between.
 */
class StressTest {
    static void work(int worker, int round) {
        String tag = worker + "-" + round;
        VString s = ENGINE.newVString("s" + tag);
        List list = ENGINE.newList(2);
        list.assign(1, s);
        list.assign(2, ENGINE.newNumeric((long) round << 40));
        Table table = ENGINE.newTable();
        table.assign(s, list);
        Algebraic printed = eval("[\"" + tag + "\", " + round + "]^1;");
        DoubleRTable doubles = (DoubleRTable) eval("Array(1..3, datatype = float[8]);");
        doubles.assign(new int[] {2}, round + 0.5);
        ComplexDoubleRTable pairs = (ComplexDoubleRTable) eval("Vector(2, datatype = complex[8]);");
        pairs.assign(new int[] {1}, round, -round);
        Procedure twice = (Procedure) eval("x -> 2*x;");
        Thread.yield();
        assertEquals("s" + tag, s.stringValue());
        assertEquals(((long) round << 40), ((Numeric) ((List) table.select(s)).select(2)).longValue());
        assertEquals("[\"" + tag + "\", " + round + "]", printed.toString());
        assertEquals(round + 0.5, doubles.select(new int[] {2}));
        assertArrayEquals(new double[] {round, -round}, pairs.copy() instanceof ComplexDoubleRTable c
                ? c.select(new int[] {1}) : null);
        assertEquals(String.valueOf(2 * round), twice.execute(new Algebraic[] {ENGINE.newNumeric((long) round)})
                .toString());
        assertEquals(2.0 * round, twice.executehf(new double[] {round}));
    }

    /** One round of one worker. */
    interface Round {
        void run(int worker, int round);
    }

    /**
     * Runs `rounds` rounds on each of three workers while another thread
     * keeps collecting.
     */
    static void whileCollecting(int rounds, Round body) throws Exception {
        AtomicBoolean running = new AtomicBoolean(true);
        // The kernel lock is a Java monitor, which is not fair: a thread that
        // takes it again at once could starve the others, so the collector
        // pauses between collections.
        Thread collector = new Thread(() -> {
            while (running.get()) {
                eval("gc():");
                try {
                    Thread.sleep(1);
                } catch (InterruptedException e) {
                    return;
                }
            }
        });
        collector.start();
        ExecutorService pool = Executors.newFixedThreadPool(3);
        try {
            java.util.List<Future<?>> done = new ArrayList<>();
            for (int w = 0; w < 3; w++) {
                int worker = w;
                done.add(pool.submit(() -> {
                    for (int round = 0; round < rounds; round++) body.run(worker, round);
                    return null;
                }));
            }
            for (Future<?> f : done) f.get(120, TimeUnit.SECONDS);
        } finally {
            running.set(false);
            pool.shutdownNow();
            collector.join(10_000);
        }
    }

    @Test
    void valuesSurviveCollectionsByOtherThreads() throws Exception {
        whileCollecting(150, StressTest::work);
        long collections = ((Numeric) eval("kernelopts(collections);")).longValue();
        assertEquals(true, collections > 10, "collections: " + collections);
    }
}
