package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;

import org.junit.jupiter.api.Test;

/** A null start argument fails the start before the kernel is asked. */
class NullArgumentScenario {
    @Test
    void aNullArgumentFailsTheStart() {
        RecordingCallBacks callBacks = new RecordingCallBacks();
        assertVexel("Argument is NULL", () -> new Engine(new String[] {"-q", null}, callBacks, null));
        assertVexel("only one Engine may be created", () -> new Engine(null, callBacks, null));
    }
}
