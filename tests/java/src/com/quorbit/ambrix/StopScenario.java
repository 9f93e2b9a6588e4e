package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;

/** After stop, the engine refuses everything and the values it made are disposed. */
class StopScenario {
    @Test
    void stopEndsTheEngine() {
        RecordingCallBacks callBacks = new RecordingCallBacks();
        Engine engine = new Engine(new String[] {"-q"}, callBacks, null);
        Algebraic before = engine.evaluate("[1, 2];");
        long frontEnd = engine.kernelID;
        engine.stop();
        assertEquals(0, engine.kernelID);
        String stopped = "Engine is null, it may have been stopped.";
        Executable[] calls = {
            engine::stop, engine::restart, () -> engine.evaluate("1;"),
            () -> engine.getHelp("print", Engine.VEXEL_HELP_ALL, new HelpTest.Recorder(), 0, null),
            engine::newTable, () -> engine.newExpseq(1), () -> engine.newList(1), () -> engine.newNumeric(1L),
            () -> engine.newNumeric(1.0), () -> engine.newName("x", true), () -> engine.newVString("s"),
        };
        for (Executable call : calls) assertVexel(stopped, call);
        // The wrapper keeps the old record's address, but its value went with the kernel.
        assertNotEquals(0, before.kernelID);
        assertEquals(frontEnd, before.kernelID);
        assertVexel("this Algebraic has been disposed", before::toString);
        assertVexel("only one Engine may be created", () -> new Engine(new String[] {"-q"}, callBacks, null));
    }
}
