package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Kernel.eval;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.util.function.BiConsumer;
import java.util.function.Function;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/** Rectangular tables: sizes and bounds, copies, and element access in every typed class. */
class RTableTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    static final int[] AT = {-1, 4};

    static RTable table(String datatype) {
        return (RTable) eval("Array(-2..0, 3..5, datatype = " + datatype + ");");
    }

    /** A typed table, a value to store at AT, and how to write and read it. */
    record RoundTrip<T extends RTable>(String datatype, Class<T> tableClass, Object value,
            BiConsumer<T, Object> assign, Function<T, Object> select) {
        Arguments args() {
            return Arguments.of(this);
        }

        void run() {
            T t = tableClass.cast(table(datatype));
            assign.accept(t, value);
            Object back = select.apply(t);
            if (value instanceof Algebraic a) assertEquals(a.toString(), back.toString(), datatype);
            else assertEquals(value, back, datatype);
            assertSame(tableClass, t.copy().getClass(), datatype);
        }
    }

    static Stream<Arguments> roundTrips() {
        float nanWithPayload = Float.intBitsToFloat(0x7fc01234);
        return Stream.of(
            new RoundTrip<>("integer[1]", ByteRTable.class, (byte) -1, (t, v) -> t.assign(AT, (Byte) v), t -> t.select(AT)),
            new RoundTrip<>("integer[1]", ByteRTable.class, Byte.MIN_VALUE, (t, v) -> t.assign(AT, (Byte) v), t -> t.select(AT)),
            new RoundTrip<>("integer[2]", ShortRTable.class, (short) -32768, (t, v) -> t.assign(AT, (Short) v), t -> t.select(AT)),
            new RoundTrip<>("integer[4]", IntRTable.class, Integer.MIN_VALUE, (t, v) -> t.assign(AT, (Integer) v), t -> t.select(AT)),
            new RoundTrip<>("integer[8]", LongRTable.class, Long.MAX_VALUE, (t, v) -> t.assign(AT, (Long) v), t -> t.select(AT)),
            new RoundTrip<>("float[8]", DoubleRTable.class, -0.0, (t, v) -> t.assign(AT, (Double) v), t -> t.select(AT)),
            new RoundTrip<>("float[4]", FloatRTable.class, 1.0e-40f, (t, v) -> t.assign(AT, (Float) v), t -> t.select(AT)),
            // The float's 32 bits go through unchanged, NaN payload included.
            new RoundTrip<>("float[4]", FloatRTable.class, Float.floatToRawIntBits(nanWithPayload),
                (t, v) -> t.assign(AT, Float.intBitsToFloat((Integer) v)), t -> Float.floatToRawIntBits(t.select(AT))),
            new RoundTrip<>("complex[8]", ComplexDoubleRTable.class, java.util.List.of(1.5, -2.25),
                (t, v) -> t.assign(AT, 1.5, -2.25),
                t -> java.util.List.of(t.select(AT)[0], t.select(AT)[1])),
            new RoundTrip<>("anything", AlgebraicRTable.class, ENGINE.newVString("x"),
                (t, v) -> t.assign(AT, (Algebraic) v), t -> t.select(AT)),
            new RoundTrip<>("sfloat", NumericRTable.class, ENGINE.newNumeric(2.5),
                (t, v) -> t.assign(AT, (Numeric) v), t -> t.select(AT)),
            new RoundTrip<>("complex(sfloat)", ComplexNumericRTable.class, eval("1.5 - 2.0*I;"),
                (t, v) -> t.assign(AT, (Algebraic) v), t -> t.select(AT))
        ).map(RoundTrip::args);
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("roundTrips")
    void everyTypedClassRoundTrips(RoundTrip<?> trip) {
        trip.run();
    }

    @Test
    void sizesAndBounds() {
        RTable t = table("float[8]");
        assertEquals(9, t.numElements());
        assertEquals(2, t.dimensions());
        assertEquals(-2, t.lowerBound(1));
        assertEquals(0, t.upperBound(1));
        assertEquals(3, t.lowerBound(2));
        assertEquals(5, t.upperBound(2));
        assertThrows(VexelException.class, () -> t.lowerBound(3));
        // More elements than an int holds: the low 32 bits of the count.
        RTable big = (RTable) eval("Array(1..2^32 + 7, datatype = integer[1]);");
        assertEquals(7, big.numElements());
        ByteRTable bytes = (ByteRTable) big;
        bytes.assign(new int[] {Integer.MAX_VALUE}, (byte) 5);
        assertEquals(5, bytes.select(new int[] {Integer.MAX_VALUE}));
        assertEquals(0, bytes.select(new int[] {1}));
    }

    @Test
    void elementAccessMessages() throws Throwable {
        DoubleRTable t = (DoubleRTable) table("float[8]");
        // Empty before null: a null index that reached the VM's array functions would end the JVM (under
        // -Xcheck:jni) before an empty one could be refused with the wrong message.
        assertVexel("At least one index expected", () -> t.select(new int[0]));
        assertVexel("At least one index expected", () -> t.assign(new int[0], 1.0));
        assertVexel("At least one index expected", () -> t.select(null));
        assertVexel("At least one index expected", () -> t.assign(null, 1.0));
        assertVexel("Index count does not match the table's dimensions", () -> t.select(new int[] {-1}));
        assertVexel("Index count does not match the table's dimensions", () -> t.select(new int[] {-1, 4, 1}));
        VexelException e = assertThrows(VexelException.class, () -> t.select(new int[] {1, 4}));
        assertTrue(e.getMessage().contains("out of bounds"), e.getMessage());
        AlgebraicRTable any = (AlgebraicRTable) table("anything");
        // The value is checked before the engine and the index.
        assertVexel("Value is NULL", () -> any.assign(null, null));
        Checks.withoutEngine(any, () -> {
            assertVexel("KernelVector is NULL", () -> any.select(null));
            assertVexel("KernelVector is NULL", any::numElements);
            assertVexel("CallBackFrontEnd is NULL", any::copy);
        });
        Checks.withoutHandle(any, () -> {
            assertVexel("this Algebraic has been disposed", () -> any.select(AT));
        });
    }

    @Test
    void unassignedGeneralElementsAreZero() {
        assertEquals("0", ((AlgebraicRTable) table("anything")).select(AT).toString());
        assertInstanceOf(Numeric.class, ((NumericRTable) table("sfloat")).select(AT));
    }

    @Test
    void complexParts() {
        ComplexDoubleRTable t = (ComplexDoubleRTable) table("complex[8]");
        t.assign(AT, 3.5, -0.5);
        assertEquals(3.5, t.selectReal(AT));
        assertEquals(-0.5, t.selectImaginary(AT));
        double[] pair = t.select(AT);
        assertArrayEquals(new double[] {3.5, -0.5}, pair);
        pair[0] = 99;
        assertEquals(3.5, t.select(AT)[0]);  // each call gives a new array
        ComplexDoubleRTable re = t.copyReal();
        ComplexDoubleRTable im = t.copyImaginary();
        assertArrayEquals(new double[] {3.5, 0.0}, re.select(AT));
        assertArrayEquals(new double[] {-0.5, 0.0}, im.select(AT));
        assertNotEquals(t.dag, re.dag);

        ComplexNumericRTable z = (ComplexNumericRTable) table("complex(sfloat)");
        z.assign(AT, eval("2 + 3*I;"));
        RTable zr = z.copyReal();
        RTable zi = z.copyImaginary();
        assertInstanceOf(ComplexNumericRTable.class, zr);
        assertEquals("2", ((ComplexNumericRTable) zr).select(AT).toString());
        assertEquals("3", ((ComplexNumericRTable) zi).select(AT).toString());
        assertVexel("At least one index expected", () -> t.selectReal(new int[0]));
    }

    @Test
    void aTableWithoutAClassOfItsOwnStaysPlain() {
        RTable truefalse = table("truefalse");
        assertSame(RTable.class, truefalse.getClass());
        assertSame(RTable.class, truefalse.copy().getClass());
    }
}
