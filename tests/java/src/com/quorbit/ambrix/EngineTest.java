package com.quorbit.ambrix;

import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.eval;
import static com.quorbit.ambrix.Kernel.show;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** Evaluation and the value factories of the Engine. */
class EngineTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    @ParameterizedTest(name = "{0}")
    @CsvSource(delimiter = '|', value = {
        "42 | Numeric", "1/3 | Numeric", "1.5 | Numeric", "2+3*I | ComplexNumeric", "unassignedName | Name",
        "table() | Table", "[1, 2] | List", "proc(x) x end proc | Procedure", "1, 2 | Expseq",
        "\"s\" | VString", "x + 1 | Algebraic", "{1, 2} | Algebraic", "quit | Algebraic",
        "Array(1..2) | AlgebraicRTable", "Array(1..2, datatype = sfloat) | NumericRTable",
        "Array(1..2, datatype = complex(sfloat)) | ComplexNumericRTable",
        "Array(1..2, datatype = integer[1]) | ByteRTable", "Array(1..2, datatype = integer[2]) | ShortRTable",
        "Array(1..2, datatype = integer[4]) | IntRTable", "Array(1..2, datatype = integer[8]) | LongRTable",
        "Array(1..2, datatype = float[8]) | DoubleRTable", "Array(1..2, datatype = complex[8]) | ComplexDoubleRTable",
        "Array(1..2, datatype = float[4]) | FloatRTable", "Array(1..2, datatype = truefalse) | RTable",
    })
    void resultsGetTheClassOfTheirKind(String statement, String className) {
        Algebraic value = eval(statement + ";");
        assertEquals("com.quorbit.ambrix." + className, value.getClass().getName());
        assertTrue(value.dag != 0);
        assertEquals(Kernel.ENGINE.kernelID, value.kernelID);
    }

    @Test
    void statementsWithoutAValueGiveNull() {
        assertNull(eval("assignedInEngineTest := 5:"));
        assertEquals("5", show("assignedInEngineTest;"));
        assertTrue(CALLBACKS.calls("error").isEmpty());
    }

    @Test
    void wrappingTheSameValueTwiceGivesTwoObjects() {
        eval("sameValue := [1, 2]:");
        Algebraic a = eval("sameValue;");
        Algebraic b = eval("sameValue;");
        assertNotSame(a, b);
        assertEquals(a.dag, b.dag);
    }

    @Test
    void nullArgumentsAreRefused() {
        assertVexel("Statement is NULL", () -> ENGINE.evaluate(null));
        assertVexel("String is NULL", () -> ENGINE.newName(null, true));
        assertVexel("String is NULL", () -> ENGINE.newVString(null));
    }

    @Test
    void numbersKeepAll64Bits() {
        assertEquals("9223372036854775807", ENGINE.newNumeric(Long.MAX_VALUE).toString());
        assertEquals("-9223372036854775808", ENGINE.newNumeric(Long.MIN_VALUE).toString());
        assertEquals("1.5", ENGINE.newNumeric(1.5).toString());
        assertEquals("-0.0", ENGINE.newNumeric(-0.0).toString());
    }

    @Test
    void globalNamesAreOneValueLocalNamesAreNew() {
        Name global1 = ENGINE.newName("factoryName", true);
        Name global2 = ENGINE.newName("factoryName", true);
        Name local = ENGINE.newName("factoryName", false);
        assertEquals(global1.dag, global2.dag);
        assertNotEquals(global1.dag, local.dag);
        assertEquals("factoryName", local.toString());
    }

    @Test
    void factoriesMakeTheirClass() {
        assertSame(Table.class, ENGINE.newTable().getClass());
        assertEquals("[]", ENGINE.newList(0).toString());
        assertSame(Expseq.class, ENGINE.newExpseq(0).getClass());
        assertSame(List.class, ENGINE.newList(3).getClass());
        assertEquals("\"\u00ffb\u00e9\"", ENGINE.newVString("\u00ffb\u00e9").toString());
    }

    @Test
    void kernelErrorsOfFactoriesBecomeExceptions() {
        assertVexel("invalid list size -1", () -> ENGINE.newList(-1));
        assertVexel("invalid list size 2147483647", () -> ENGINE.newList(Integer.MAX_VALUE));
        assertVexel("invalid sequence size 2147483647", () -> ENGINE.newExpseq(Integer.MAX_VALUE));
    }
}
