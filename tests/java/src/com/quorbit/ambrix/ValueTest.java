package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Kernel.eval;
import static com.quorbit.ambrix.Kernel.show;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotSame;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.util.function.Function;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** The natives of Algebraic, Numeric, ComplexNumeric, Name, VString, List and Expseq. */
class ValueTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    static Numeric number(String statement) {
        return (Numeric) eval(statement + ";");
    }

    /** The widths an integer fits, as the kind tests and the conversions see them. */
    @ParameterizedTest(name = "{0}")
    @CsvSource({
        "0, true, true, true, true", "-128, true, true, true, true", "128, false, true, true, true",
        "-32769, false, false, true, true", "2^31, false, false, false, true", "-2^63, false, false, false, true",
        "2^63, false, false, false, false",
    })
    void integerWidths(String value, boolean isByte, boolean isShort, boolean isInt, boolean isLong) {
        Numeric n = number(value);
        assertTrue(n.isInteger());
        assertEquals(isByte, n.isByte());
        assertEquals(isShort, n.isShort());
        assertEquals(isInt, n.isInt());
        assertEquals(isLong, n.isLong());
        assertEquals(value.equals("0"), n.isUnnamedZero());
        checkWidth(isByte, () -> assertEquals((byte) n.longValue(), n.byteValue()), n::byteValue);
        checkWidth(isShort, () -> assertEquals((short) n.longValue(), n.shortValue()), n::shortValue);
        checkWidth(isInt, () -> assertEquals((int) n.longValue(), n.intValue()), n::intValue);
        checkWidth(isLong, () -> assertEquals(n.toString(), Long.toString(n.longValue())), n::longValue);
    }

    /** A value too wide for the asked width gives the kernel's error as an exception. */
    private static void checkWidth(boolean fits, Executable ifFits, Executable conversion) {
        if (fits) {
            try {
                ifFits.execute();
            } catch (Throwable t) {
                throw new AssertionError(t);
            }
        } else {
            VexelException e = org.junit.jupiter.api.Assertions.assertThrows(VexelException.class, conversion);
            assertTrue(e.getMessage().contains("does not fit"), e.getMessage());
        }
    }

    @Test
    void floatsAndRationals() {
        Numeric third = number("1/3");
        assertFalse(third.isInteger());
        assertEquals(1.0 / 3, third.doubleValue());
        assertEquals(1.0f / 3, third.floatValue());
        Numeric f = ENGINE.newNumeric(0.1);
        assertEquals(0.1, f.doubleValue());
        assertEquals(0.1f, f.floatValue());
        assertEquals(2.5, number("5/2").evalhf());
        assertVexel("expected an integer, got 1.5", () -> ENGINE.newNumeric(1.5).intValue());
    }

    @Test
    void complexParts() {
        ComplexNumeric z = (ComplexNumeric) eval("2 - 3/4*I;");
        Algebraic re = z.realPart();
        Algebraic im = z.imaginaryPart();
        assertInstanceOf(Numeric.class, re);
        assertEquals("2", re.toString());
        assertEquals("-3/4", im.toString());
        assertEquals("1.5", ((ComplexNumeric) eval("1.5 + I;")).realPart().toString());
    }

    @Test
    void evaluationAndUnique() {
        eval("evaluatedName := 41 + 1:");
        Algebraic quoted = eval("'evaluatedName';");
        assertInstanceOf(Name.class, quoted);
        assertEquals("42", quoted.eval().toString());
        assertEquals("'evaluatedName'", quoted.uneval().toString());
        Algebraic list = eval("[1, 2, 3];");
        Algebraic first = list.unique();
        assertSame(first, first.unique());
        Algebraic equal = eval("[1, 2, 3];");
        Algebraic same = equal.unique();
        assertNotSame(equal, same);
        assertEquals(first.dag, same.dag);
    }

    @Test
    void kindTests() {
        Function<String, boolean[]> kinds = s -> {
            Algebraic a = eval(s + ";");
            return new boolean[] {a.isNULL(), a.isPointer(), a.isPointerNULL(), a.isSet(), a.isStop()};
        };
        assertEquals("[false, false, false, true, false]", java.util.Arrays.toString(kinds.apply("{3, 1}")));
        assertEquals("[false, true, false, false, false]", java.util.Arrays.toString(kinds.apply("pointer(16)")));
        assertEquals("[false, false, true, false, false]", java.util.Arrays.toString(kinds.apply("pointer(0)")));
        assertEquals("[false, false, false, false, true]", java.util.Arrays.toString(kinds.apply("quit")));
        assertTrue(ENGINE.newExpseq(0).isNULL());
        assertFalse(eval("x + 1;").isNULL());
    }

    @Test
    void namesAndStrings() {
        Name name = ENGINE.newName("javaAssigned", true);
        assertFalse(name.isAssigned());
        name.assign(ENGINE.newVString("caf\u00e9"));
        assertTrue(name.isAssigned());
        VString s = (VString) eval("javaAssigned;");
        assertEquals("caf\u00e9", s.stringValue());
        assertEquals("", ENGINE.newVString("").stringValue());
        assertEquals("\"\"", ENGINE.newVString("").toString());
        assertVexel("Value is NULL", () -> name.assign(null));
    }

    @Test
    void listsAndSequences() {
        List list = ENGINE.newList(3);
        assertEquals(3, list.length());
        list.assign(1, ENGINE.newNumeric(10L));
        list.assign(3, ENGINE.newVString("c"));
        assertEquals("10", list.select(1).toString());
        assertNull(list.select(2));
        assertInstanceOf(VString.class, list.select(3));
        assertVexel("Value is NULL", () -> list.assign(2, null));
        VexelException e = org.junit.jupiter.api.Assertions.assertThrows(VexelException.class, () -> list.select(4));
        assertTrue(e.getMessage().contains("out of bounds"), e.getMessage());

        Expseq seq = ENGINE.newExpseq(2);
        seq.assign(1, list);
        seq.assign(2, ENGINE.newNumeric(2.0));
        assertEquals(2, seq.length());
        assertInstanceOf(List.class, seq.select(1));
        assertEquals(0, ENGINE.newList(0).length());
        assertEquals(0, ENGINE.newExpseq(0).length());
        assertEquals(2, ((Expseq) eval("a, b;")).length());
    }

    @Test
    void disposedWrappersFailInEveryClass() throws Throwable {
        Algebraic[] values = {eval("5;"), eval("2+I;"), eval("someName;"), eval("[1];"), eval("1, 2;"),
            eval("\"s\";"), eval("table();"), eval("proc() 1 end proc;")};
        Executable[] calls = {
            () -> ((Numeric) values[0]).intValue(), () -> ((ComplexNumeric) values[1]).realPart(),
            () -> ((Name) values[2]).isAssigned(), () -> ((List) values[3]).length(),
            () -> ((Expseq) values[4]).select(1), () -> ((VString) values[5]).stringValue(),
            () -> ((Table) values[6]).has(values[0]), () -> ((Procedure) values[7]).execute((Expseq) null),
        };
        for (int i = 0; i < values.length; i++) {
            Executable call = calls[i];
            Checks.withoutHandle(values[i], () -> assertVexel("this Algebraic has been disposed", call));
        }
        // A disposed argument fails the same way.
        Name target = ENGINE.newName("disposedTarget", true);
        Checks.withoutHandle(values[0], () -> {
            assertVexel("this Algebraic has been disposed", () -> target.assign(values[0]));
        });
    }

    @Test
    void missingEngineMessages() throws Throwable {
        Algebraic[] values = {eval("5;"), eval("2+I;"), eval("[1];"), eval("\"s\";"), eval("1, 2;")};
        String[] messages = {"Kernel Vector is NULL", "CallBackFrontEnd is NULL", "Kernel Vector is NULL",
            "Kernel Vector is NULL", "CallBackFrontEnd is NULL"};
        Executable[] calls = {
            () -> ((Numeric) values[0]).isInteger(), () -> ((ComplexNumeric) values[1]).imaginaryPart(),
            () -> ((List) values[2]).length(), () -> ((VString) values[3]).stringValue(),
            () -> ((Expseq) values[4]).select(1),
        };
        for (int i = 0; i < values.length; i++) {
            String message = messages[i];
            Executable call = calls[i];
            Checks.withoutEngine(values[i], () -> assertVexel(message, call));
        }
        Algebraic a = eval("x;");
        Checks.withoutEngine(a, () -> {
            assertVexel("CallBackFrontEnd is NULL", a::eval);
            assertVexel("Engine is NULL", a::evalhf);
            assertVexel("KernelVector is NULL", a::isSet);
        });
    }
}
