package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;

import org.junit.jupiter.api.Test;

/** A start that the kernel refuses leaves the process without an engine for good. */
class StartFailureScenario {
    @Test
    void aFailedStartIsTheOnlyStart() {
        RecordingCallBacks callBacks = new RecordingCallBacks();
        assertVexel("CallBacks is NULL", () -> new Engine(new String[0], null, null));
        assertVexel("unknown option -bogus", () -> new Engine(new String[] {"-q", "-bogus"}, callBacks, null));
        assertVexel("only one Engine may be created", () -> new Engine(new String[] {"-q"}, callBacks, null));
    }
}
