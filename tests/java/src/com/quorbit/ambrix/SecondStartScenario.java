package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertSame;

import org.junit.jupiter.api.Test;

/** The first start works, with its arguments and its banner; a second start is refused. */
class SecondStartScenario {
    @Test
    void oneEnginePerProcess() {
        RecordingCallBacks callBacks = new RecordingCallBacks();
        Object data = new Object();
        Engine engine = new Engine(new String[] {"alpha", "\u00ff\u00e9"}, callBacks, data);
        // The banner came through the callbacks while the kernel was starting.
        assertFalse(callBacks.calls("text").isEmpty());
        assertSame(data, callBacks.calls("text").get(0).data());
        assertEquals("[\"alpha\", \"\u00ff\u00e9\"]", engine.evaluate("kernelargs();").toString());
        assertVexel("only one Engine may be created", () -> new Engine(new String[] {"-q"}, callBacks, data));
        assertEquals("3", engine.evaluate("1 + 2;").toString());
    }
}
