package com.quorbit.ambrix;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import com.quorbit.externalcall.VexelException;
import org.junit.jupiter.api.function.Executable;

final class Checks {
    private Checks() {}

    /** Runs the body with the wrapper's handle zeroed, as a disposed wrapper has it. */
    static void withoutHandle(Algebraic value, Executable body) throws Throwable {
        long dag = value.dag;
        value.dag = 0;
        try {
            body.execute();
        } finally {
            value.dag = dag;
        }
    }

    /** Runs the body with the wrapper's engine address zeroed. */
    static void withoutEngine(Algebraic value, Executable body) throws Throwable {
        long id = value.kernelID;
        value.kernelID = 0;
        try {
            body.execute();
        } finally {
            value.kernelID = id;
        }
    }

    /** Asserts that the call throws a VexelException with this message. */
    static VexelException assertVexel(String message, Executable call) {
        VexelException e = assertThrows(VexelException.class, call);
        assertEquals(message, e.getMessage());
        return e;
    }
}
