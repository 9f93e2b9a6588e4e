package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;

import org.junit.jupiter.api.Test;

/** A start argument that cannot cross to the kernel exactly fails the start before the kernel is asked. */
class StartTextScenario {
    @Test
    void aStartArgumentOutsideLatin1FailsTheStart() {
        RecordingCallBacks callBacks = new RecordingCallBacks();
        assertVexel(TextTest.refusal(0x161, 1), () -> new Engine(new String[] {"-q", "x\u0161"}, callBacks, null));
        assertVexel("only one Engine may be created", () -> new Engine(null, callBacks, null));
    }
}
