package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static org.junit.jupiter.api.Assertions.assertEquals;

import java.time.Duration;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** An engine in a try-with-resources block is stopped at its end; closing again does nothing. */
class AutoCloseScenario {
    @Test
    void closeStopsOnce() throws Exception {
        Engine kept;
        Algebraic value;
        try (Engine engine = new Engine(new String[] {"-q"}, new RecordingCallBacks(), null)) {
            kept = engine;
            value = engine.evaluate("[1, 2];");
            assertEquals("[1, 2]", value.toString());
        }
        assertEquals(0, kept.kernelID);
        assertVexel("this Algebraic has been disposed", value::toString);
        kept.close();
        kept.close();
        String stopped = "Engine is null, it may have been stopped.";
        Executable[] calls = {kept::stop, kept::interrupt, () -> kept.evaluate("1;"),
            () -> kept.evaluate("1;", Duration.ofSeconds(1))};
        for (Executable call : calls) assertVexel(stopped, call);
    }
}
