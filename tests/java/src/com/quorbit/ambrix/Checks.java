package com.quorbit.ambrix;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import com.quorbit.externalcall.VexelException;
import org.junit.jupiter.api.function.Executable;

final class Checks {
    private Checks() {}

    /** Asserts that the call throws a VexelException with this message. */
    static VexelException assertVexel(String message, Executable call) {
        VexelException e = assertThrows(VexelException.class, call);
        assertEquals(message, e.getMessage());
        return e;
    }
}
