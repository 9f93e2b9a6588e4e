package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Kernel.eval;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** The natives of Table and Procedure. */
class TableProcedureTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    @Test
    void tableEntries() {
        Table table = ENGINE.newTable();
        Algebraic key = ENGINE.newVString("key");
        assertFalse(table.has(key));
        assertVexel("No such key in table", () -> table.select(key));
        table.assign(key, ENGINE.newNumeric(7L));
        assertTrue(table.has(ENGINE.newVString("key")));  // keys compare by value
        assertEquals("7", table.select(key).toString());
        table.remove(key);
        assertFalse(table.has(key));
        table.remove(key);  // removing a missing key is no error
        assertVexel("Index is NULL", () -> table.assign(null, null));
        assertVexel("Value is NULL", () -> table.assign(key, null));
        assertVexel("Index is NULL", () -> table.select(null));
        assertVexel("Index is NULL", () -> table.has(null));
        assertVexel("Index is NULL", () -> table.remove(null));
        // The lock is free after the missing key, for any thread.
        Thread other = new Thread(() -> ENGINE.newTable());
        other.start();
        assertTrue(join(other));
    }

    private static boolean join(Thread t) {
        try {
            t.join(10_000);
        } catch (InterruptedException e) {
            throw new AssertionError(e);
        }
        return !t.isAlive();
    }

    @Test
    void proceduresOnSequencesAndArrays() {
        Procedure args = (Procedure) eval("proc() [args] end proc;");
        assertEquals("[]", args.execute((Expseq) null).toString());
        assertEquals("[]", args.execute((Algebraic[]) null).toString());
        assertEquals("[]", args.execute(new Algebraic[0]).toString());
        Algebraic a = ENGINE.newName("a", true);
        Algebraic[] three = {a, ENGINE.newNumeric(2L), ENGINE.newVString("c")};
        assertEquals("[a, 2, \"c\"]", args.execute(three).toString());
        assertEquals("[1, 2]", args.execute((Expseq) eval("1, 2;")).toString());
        assertVexel("Argument is NULL", () -> args.execute(new Algebraic[] {a, null}));
        Procedure nothing = (Procedure) eval("proc() NULL end proc;");
        assertTrue(nothing.execute((Expseq) null).isNULL());
        Procedure failing = (Procedure) eval("proc(x) error \"bad %1\", x end proc;");
        assertVexel("bad 3", () -> failing.execute(new Algebraic[] {ENGINE.newNumeric(3L)}));
    }

    @Test
    void numericEvaluation() {
        Procedure f = (Procedure) eval("(x, y) -> x*y + 1;");
        assertEquals(8.5, f.executehf(new double[] {2.5, 3.0}));
        double[] input = {2.5, 3.0};
        f.executehf(input);
        assertEquals(2.5, input[0]);  // the Java array is never changed
        Procedure constant = (Procedure) eval("proc() 4 end proc;");
        assertEquals(4.0, constant.executehf(null));
        assertEquals(4.0, constant.executehf(new double[0]));
    }
}
