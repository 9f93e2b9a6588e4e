package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Kernel.eval;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertThrows;

import com.quorbit.externalcall.VexelException;
import java.lang.reflect.Array;
import java.util.Arrays;
import java.util.function.BiConsumer;
import java.util.function.BiFunction;
import java.util.function.Function;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Whole tables, lists and sequences in one call. The same cases run in a JVM
 * whose kernel lacks the storage operation ({@link BulkFallbackScenario}), so
 * both the straight copy and the element walk are checked.
 */
class BulkTest {
    /** A 3 x 2 table with bounds that start nowhere near 1. */
    static RTable table(String datatype) {
        return (RTable) eval("Array(-2..0, 3..4, datatype = " + datatype + "):");
    }

    /** The index of the p-th element in column-major order: the first index varies fastest. */
    static int[] indexOf(int p) {
        return new int[] {-2 + p % 3, 3 + p / 3};
    }

    /** A typed table, six elements' worth of values, and how to move them. */
    record Case<T extends RTable>(String datatype, Class<T> tableClass, Object values,
            BiConsumer<T, Object> assignAll, Function<T, Object> toArray, BiFunction<T, int[], Object> select) {
        @Override
        public String toString() {
            return datatype;
        }

        /** The p-th element of the values, in the form select gives it. */
        Object entry(int p) {
            if (tableClass == ComplexDoubleRTable.class) {
                double[] d = (double[]) values;
                return Arrays.asList(d[2 * p], d[2 * p + 1]);
            }
            Object e = Array.get(values, p);
            return e instanceof Algebraic a ? a.toString() : e;
        }

        Object shown(Object element) {
            if (element instanceof double[] pair) return Arrays.asList(pair[0], pair[1]);
            return element instanceof Algebraic a ? a.toString() : element;
        }

        void run() {
            T t = tableClass.cast(table(datatype));
            assignAll.accept(t, values);
            for (int p = 0; p < 6; p++) assertEquals(entry(p), shown(select.apply(t, indexOf(p))), "element " + p);
            Object back = toArray.apply(t);
            assertEquals(Array.getLength(values), Array.getLength(back));
            for (int i = 0; i < Array.getLength(back); i++) {
                Object a = Array.get(values, i), b = Array.get(back, i);
                assertEquals(a instanceof Algebraic x ? x.toString() : a, b instanceof Algebraic y ? y.toString() : b);
            }
        }
    }

    static Stream<Case<?>> cases() {
        float nan = Float.intBitsToFloat(0x7fc01234);
        return Stream.of(
            new Case<>("float[8]", DoubleRTable.class, new double[] {1.5, -0.0, Double.NaN, Double.MAX_VALUE, -7, 1e-300},
                (t, v) -> t.assignAll((double[]) v), DoubleRTable::toArray, DoubleRTable::select),
            new Case<>("float[4]", FloatRTable.class, new float[] {1.5f, -0.0f, nan, Float.MIN_VALUE, -7, 3},
                (t, v) -> t.assignAll((float[]) v), FloatRTable::toArray, FloatRTable::select),
            new Case<>("integer[8]", LongRTable.class, new long[] {Long.MIN_VALUE, -1, 0, 1, 42, Long.MAX_VALUE},
                (t, v) -> t.assignAll((long[]) v), LongRTable::toArray, LongRTable::select),
            new Case<>("integer[4]", IntRTable.class, new int[] {Integer.MIN_VALUE, -1, 0, 1, 42, Integer.MAX_VALUE},
                (t, v) -> t.assignAll((int[]) v), IntRTable::toArray, IntRTable::select),
            new Case<>("integer[2]", ShortRTable.class, new short[] {Short.MIN_VALUE, -1, 0, 1, 42, Short.MAX_VALUE},
                (t, v) -> t.assignAll((short[]) v), ShortRTable::toArray, ShortRTable::select),
            new Case<>("integer[1]", ByteRTable.class, new byte[] {Byte.MIN_VALUE, -1, 0, 1, 42, Byte.MAX_VALUE},
                (t, v) -> t.assignAll((byte[]) v), ByteRTable::toArray, ByteRTable::select),
            new Case<>("complex[8]", ComplexDoubleRTable.class, new double[] {1, 2, 3, 4, 5, 6, -0.0, 8, 9, 10, 11, 12},
                (t, v) -> t.assignAll((double[]) v), ComplexDoubleRTable::toArray, ComplexDoubleRTable::select),
            new Case<>("anything", AlgebraicRTable.class, values("x + 1", "\"s\"", "[1, 2]", "2^100", "1/3", "f(y)"),
                (t, v) -> t.assignAll((Algebraic[]) v), AlgebraicRTable::toArray, AlgebraicRTable::select),
            new Case<>("sfloat", NumericRTable.class, values("1.5", "2", "-3", "1/3", "0.0", "7"),
                (t, v) -> t.assignAll((Algebraic[]) v), NumericRTable::toArray, NumericRTable::select),
            new Case<>("complex(sfloat)", ComplexNumericRTable.class, values("1+2*I", "I", "-3", "1.5-2.0*I", "0", "2*I"),
                (t, v) -> t.assignAll((Algebraic[]) v), ComplexNumericRTable::toArray, ComplexNumericRTable::select));
    }

    static Algebraic[] values(String... statements) {
        return Stream.of(statements).map(s -> eval(s + ":")).toArray(Algebraic[]::new);
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("cases")
    void wholeTablesRoundTripInColumnMajorOrder(Case<?> c) {
        c.run();
    }

    @Test
    void tablesLongerThanOneChunkOfTheWalk() {
        IntRTable ints = (IntRTable) eval("Array(0..999, datatype = integer[4]):");
        int[] values = new int[1000];
        for (int i = 0; i < values.length; i++) values[i] = i * 7 - 3000;
        ints.assignAll(values);
        assertArrayEquals(values, ints.toArray());
        assertEquals(values[999], ints.select(new int[] {999}));
        ComplexDoubleRTable pairs = (ComplexDoubleRTable) eval("Array(1..300, datatype = complex[8]):");
        double[] parts = new double[600];
        for (int i = 0; i < parts.length; i++) parts[i] = i / 4.0;
        pairs.assignAll(parts);
        assertArrayEquals(parts, pairs.toArray());
        List list = (List) eval("[seq(i, i = 1..700)]:");
        Algebraic[] elements = list.toArray();
        assertEquals("700", elements[699].toString());
        AlgebraicRTable any = (AlgebraicRTable) eval("Array(1..700, datatype = anything):");
        any.assignAll(elements);
        assertEquals("[1, 2, 3]", Arrays.toString(Arrays.copyOf(any.toArray(), 3)));
        assertEquals(list.toString(), ENGINE.newList(any.toArray()).toString());
    }

    @Test
    void valueTablesWrapEachElementByItsKind() {
        AlgebraicRTable t = (AlgebraicRTable) table("anything");
        t.assignAll(values("x + 1", "\"s\"", "[1, 2]", "2^100", "table()", "y"));
        Class<?>[] kinds = {Algebraic.class, VString.class, List.class, Numeric.class, Table.class, Name.class};
        Algebraic[] back = t.toArray();
        for (int i = 0; i < kinds.length; i++) assertEquals(kinds[i], back[i].getClass());
        for (Algebraic a : ((NumericRTable) table("sfloat")).toArray()) assertInstanceOf(Numeric.class, a);
    }

    @Test
    void failedChecksWriteNothing() {
        DoubleRTable d = (DoubleRTable) table("float[8]");
        double[] before = {1, 2, 3, 4, 5, 6};
        d.assignAll(before);
        assertVexel("Array is NULL", () -> d.assignAll(null));
        assertVexel("Array length does not match the table's size", () -> d.assignAll(new double[5]));
        assertVexel("Array length does not match the table's size", () -> d.assignAll(new double[7]));
        assertArrayEquals(before, d.toArray());

        ComplexDoubleRTable z = (ComplexDoubleRTable) table("complex[8]");
        assertVexel("Array length does not match the table's size", () -> z.assignAll(new double[6]));

        AlgebraicRTable a = (AlgebraicRTable) table("anything");
        Algebraic[] some = values("1", "2", "3", "4", "5", "6");
        a.assignAll(some);
        Algebraic[] withNull = some.clone();
        withNull[4] = null;
        assertVexel("Array is NULL", () -> a.assignAll(null));
        assertVexel("Argument is NULL", () -> a.assignAll(withNull));
        assertVexel("Array length does not match the table's size", () -> a.assignAll(values("1")));
        // The kernel refuses the fourth value of a complex table: the first three are not written either.
        ComplexNumericRTable c = (ComplexNumericRTable) table("complex(sfloat)");
        assertThrows(VexelException.class, () -> c.assignAll(values("1", "2", "3", "x", "5", "6")));
        assertEquals("0", c.toArray()[0].toString());
        assertEquals("[1, 2, 3, 4, 5, 6]", Arrays.toString(a.toArray()));
    }

    @Test
    void tablesLargerThanAJavaArray() {
        ByteRTable huge = (ByteRTable) eval("Array(1..3*10^9, datatype = integer[1]):");
        assertVexel("Table too large for a Java array", huge::toArray);
        assertVexel("Array length does not match the table's size", () -> huge.assignAll(new byte[3]));
        AlgebraicRTable many = (AlgebraicRTable) eval("Array(1..2^31, datatype = anything):");
        assertVexel("Table too large for a Java array", many::toArray);
    }

    @Test
    void listsAndSequences() {
        List list = (List) eval("[1, x, \"s\", [2]]:");
        Algebraic[] elements = list.toArray();
        assertEquals("[1, x, \"s\", [2]]", Arrays.toString(elements));
        Class<?>[] kinds = {Numeric.class, Name.class, VString.class, List.class};
        for (int i = 0; i < kinds.length; i++) assertEquals(kinds[i], elements[i].getClass());
        assertEquals(0, ((List) eval("[]:")).toArray().length);
        Expseq seq = (Expseq) eval("1, 2.5, y:");
        assertEquals("[1, 2.5, y]", Arrays.toString(seq.toArray()));

        List made = ENGINE.newList(elements);
        assertEquals("[1, x, \"s\", [2]]", made.toString());
        assertEquals("[]", ENGINE.newList(new Algebraic[0]).toString());
        assertVexel("Array is NULL", () -> ENGINE.newList((Algebraic[]) null));
        assertVexel("Argument is NULL", () -> ENGINE.newList(new Algebraic[] {elements[0], null}));
    }

    @Test
    void disposedElementsAreRefused() throws Throwable {
        Algebraic[] some = values("1", "2", "3", "4", "5", "6");
        AlgebraicRTable a = (AlgebraicRTable) table("anything");
        Checks.withoutHandle(some[2], () -> {
            assertVexel("this Algebraic has been disposed", () -> a.assignAll(some));
            assertVexel("this Algebraic has been disposed", () -> ENGINE.newList(some));
        });
        Checks.withoutHandle(a, () -> assertVexel("this Algebraic has been disposed", a::toArray));
    }

    @Test
    void kernelTextNeedsNoKernelMemory() {
        // The next kernel allocation fails; converting text to Java makes none.
        Numeric big = (Numeric) eval("2^100:");
        VString s = ENGINE.newVString("abc");
        eval("failalloc(1):");
        assertEquals("1267650600228229401496703205376", big.toString());
        assertEquals("abc", s.stringValue());
        // The failure is still due, and reaches Java as an OutOfMemoryError.
        assertThrows(OutOfMemoryError.class, () -> ENGINE.newVString("x"));
    }
}
