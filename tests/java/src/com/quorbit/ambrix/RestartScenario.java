package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static org.junit.jupiter.api.Assertions.assertEquals;

import org.junit.jupiter.api.Test;

/** A restart disposes every registered wrapper; values made after it are protected again. */
class RestartScenario {
    @Test
    void restartDisposesAndProtectsAnew() {
        RecordingCallBacks callBacks = new RecordingCallBacks();
        Engine engine = new Engine(new String[] {"-q"}, callBacks, null);
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
}
