package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Kernel.eval;
import static com.quorbit.ambrix.Kernel.show;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;

import com.quorbit.externalcall.VexelException;
import java.time.Duration;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** Engine.interrupt from another thread, and evaluation with a time limit. */
class InterruptTest {
    /** Runs until interrupted: far longer than any test waits. */
    static final String ENDLESS = "for i to 10^9 do end do:";

    private final ExecutorService pool = Executors.newSingleThreadExecutor();

    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    @AfterEach
    void stopPool() {
        pool.shutdownNow();
        CALLBACKS.reset();
    }

    /** Starts the statement on the pool's thread and returns once the kernel is running it. */
    Future<Algebraic> startInKernel(String statement) throws InterruptedException {
        CountDownLatch inKernel = new CountDownLatch(1);
        CALLBACKS.callBack = s -> {
            inKernel.countDown();
            return s;
        };
        Future<Algebraic> running = pool.submit(() -> eval("callback(\"started\"): " + statement));
        inKernel.await();
        return running;
    }

    static Throwable failureOf(Future<?> call) throws Exception {
        ExecutionException e = assertThrows(ExecutionException.class, () -> call.get(10, TimeUnit.SECONDS));
        return e.getCause();
    }

    @Test
    void anotherThreadEndsTheRunningLoop() throws Exception {
        Future<Algebraic> running = startInKernel(ENDLESS);
        ENGINE.interrupt();
        Throwable failure = failureOf(running);
        assertInstanceOf(VexelException.class, failure);
        assertEquals("computation interrupted", failure.getMessage());
        assertEquals("2", show("1 + 1;"));
    }

    @Test
    void theInterruptErrorGoesThroughTheErrorCallback() throws Exception {
        CALLBACKS.throwOnError = false;
        Future<Algebraic> running = startInKernel(ENDLESS + " 7;");
        ENGINE.interrupt();
        assertNull(running.get(10, TimeUnit.SECONDS));
        assertEquals("computation interrupted", CALLBACKS.last("error").arg(1));
    }

    /**
     * The engine's own request is consulted before the callbacks object: a
     * callbacks object that would throw on its next call is not reached.
     * interrupt() takes no lock, so even a callback may call it.
     */
    @Test
    void theRequestComesBeforeTheCallbacks() {
        CALLBACKS.callBack = s -> {
            ENGINE.interrupt();
            CALLBACKS.throwNext = new VexelException("the callbacks were asked");
            return s;
        };
        assertVexel("computation interrupted", () -> eval("callback(\"now\"): " + ENDLESS));
    }

    @Test
    void aRequestWhileNothingRunsIsDropped() {
        ENGINE.interrupt();
        ENGINE.interrupt();
        assertEquals("500500", show("s := 0: for i to 1000 do s := s + i end do: s;"));
    }

    @Test
    void aRequestOutlivesNoCall() throws Exception {
        Future<Algebraic> running = startInKernel(ENDLESS);
        ENGINE.interrupt();
        failureOf(running);
        // The request named the call that ended; the next one runs its loop to the end.
        assertEquals("20000", show("n := 0: for i to 20000 do n := n + 1 end do: n;"));
    }

    @Test
    void aTimeLimitInterruptsAndSaysSo() {
        VexelException e = assertVexel("time limit of 0.2 s passed", () -> ENGINE.evaluate(ENDLESS, Duration.ofMillis(200)));
        assertEquals("computation interrupted", e.getCause().getMessage());
        assertEquals("3", show("1 + 2;"));
    }

    @Test
    void aTimeLimitThrowsWhateverTheErrorCallbackDoes() {
        CALLBACKS.throwOnError = false;
        VexelException e = assertVexel("time limit of 0.05 s passed",
                () -> ENGINE.evaluate(ENDLESS, Duration.ofMillis(50)));
        assertNull(e.getCause());
        assertEquals("computation interrupted", CALLBACKS.last("error").arg(1));
    }

    @Test
    void withinItsLimitAStatementGivesItsValue() {
        assertEquals("1024", ENGINE.evaluate("2^10;", Duration.ofMinutes(5)).toString());
        assertEquals("1024", ENGINE.evaluate("2^10;", Duration.ofSeconds(Long.MAX_VALUE)).toString());
        // An error within the limit is the statement's own.
        assertVexel("numeric exception: division by zero", () -> ENGINE.evaluate("1/0;", Duration.ofMinutes(5)));
    }

    @Test
    void badLimits() {
        assertVexel("Timeout is NULL", () -> ENGINE.evaluate("1;", null));
        assertVexel("Timeout is negative", () -> ENGINE.evaluate("1;", Duration.ofNanos(-1)));
        assertVexel("Statement is NULL", () -> ENGINE.evaluate(null, Duration.ofSeconds(1)));
        // A zero limit has passed already: the statement does not run.
        assertVexel("time limit of 0 s passed", () -> ENGINE.evaluate("zeroLimitRan := 1:", Duration.ZERO));
        assertEquals("zeroLimitRan", show("zeroLimitRan;"));
    }

    /** The limit's interrupts reach only its own evaluation, never a call it waits for. */
    @Test
    void aTimeLimitSparesTheCallItWaitsFor() throws Exception {
        Future<Algebraic> running = startInKernel("n := 0: for i to 2*10^6 do n := n + 1 end do: n;");
        ExecutorService other = Executors.newSingleThreadExecutor();
        try {
            Future<Algebraic> timed = other.submit(() -> ENGINE.evaluate("6 * 7;", Duration.ofMillis(20)));
            assertEquals("2000000", running.get(60, TimeUnit.SECONDS).toString());
            // Its own statement asks no interrupt query: it either ends within
            // the limit or runs to its end and then reports the limit.
            try {
                assertEquals("42", timed.get(60, TimeUnit.SECONDS).toString());
            } catch (ExecutionException e) {
                assertEquals("time limit of 0.02 s passed", e.getCause().getMessage());
            }
        } finally {
            other.shutdownNow();
        }
    }
}
