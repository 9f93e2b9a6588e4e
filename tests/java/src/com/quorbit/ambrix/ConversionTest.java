package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Kernel.eval;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.math.BigInteger;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashMap;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.Objects;
import java.util.Optional;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/** Engine.toKernel, Algebraic.toJava and Engine.call. */
public class ConversionTest {
    static final BigInteger TWO_64 = BigInteger.ONE.shiftLeft(64);

    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    static Arguments row(Object java, String printed, Class<?> kind) {
        return Arguments.of(java, printed, kind);
    }

    /** Java values, the kernel value each becomes (as printed), and its class. */
    static Stream<Arguments> toKernelRows() {
        return Stream.of(
            row(null, "", Algebraic.class),
            row(true, "true", Name.class),
            row(false, "false", Name.class),
            row((byte) -128, "-128", Numeric.class),
            row((short) 32767, "32767", Numeric.class),
            row(Integer.MIN_VALUE, "-2147483648", Numeric.class),
            row(Long.MIN_VALUE, "-9223372036854775808", Numeric.class),
            row(Long.MAX_VALUE, "9223372036854775807", Numeric.class),
            row(BigInteger.valueOf(-5), "-5", Numeric.class),
            row(TWO_64, "18446744073709551616", Numeric.class),
            row(TWO_64.negate(), "-18446744073709551616", Numeric.class),
            row(1.5, "1.5", Numeric.class),
            row(2.5f, "2.5", Numeric.class),
            row(-0.0, "-0.0", Numeric.class),
            row(Double.NaN, "Float(undefined)", Numeric.class),
            row("a\"b", "\"a\\\"b\"", VString.class),
            row("", "\"\"", VString.class),
            row('x', "\"x\"", VString.class),
            row(new double[] {1.5, -0.0}, "Array(1..2, [1.5, -0.0], datatype = float[8])", DoubleRTable.class),
            row(new float[] {2}, "Array(1..1, [2.0], datatype = float[4])", FloatRTable.class),
            row(new long[] {Long.MIN_VALUE}, "Array(1..1, [-9223372036854775808], datatype = integer[8])",
                LongRTable.class),
            row(new int[0], "Array(1..0, [], datatype = integer[4])", IntRTable.class),
            row(new short[] {-1, 1}, "Array(1..2, [-1, 1], datatype = integer[2])", ShortRTable.class),
            row(new byte[] {127}, "Array(1..1, [127], datatype = integer[1])", ByteRTable.class),
            row(new long[][] {{1, 2, 3}, {4, 5, 6}},
                "Array(1..2, 1..3, [[1, 2, 3], [4, 5, 6]], datatype = integer[8])", LongRTable.class),
            row(new double[3][0], "Array(1..3, 1..0, [[], [], []], datatype = float[8])", DoubleRTable.class),
            row(new byte[0][], "Array(1..0, 1..0, [], datatype = integer[1])", ByteRTable.class),
            row(java.util.List.of(), "[]", List.class),
            row(java.util.List.of(1, 2L, (short) 3, (byte) 4, BigInteger.TEN), "[1, 2, 3, 4, 10]", List.class),
            row(java.util.List.of(1.5, 2.5f), "[1.5, 2.5]", List.class),
            row(java.util.List.of(1, 2.5, TWO_64), "[1, 2.5, 18446744073709551616]", List.class),
            row(new Object[] {"s", true, new Object[] {'c'}}, "[\"s\", true, [\"c\"]]", List.class),
            row(java.util.List.of(new int[] {7}, java.util.List.of((Object) new double[][] {{1}})),
                "[Array(1..1, [7], datatype = integer[4]), [Array(1..1, 1..1, [[1.0]], datatype = float[8])]]",
                List.class),
            row(new String[] {"a", "b"}, "[\"a\", \"b\"]", List.class),
            row(Map.of("k", java.util.List.of(1L)), "table([\"k\" = [1]])", Table.class));
    }

    @ParameterizedTest(name = "[{index}] {1}")
    @MethodSource("toKernelRows")
    void javaValuesBecomeKernelValues(Object java, String printed, Class<?> kind) {
        Algebraic value = ENGINE.toKernel(java);
        assertEquals(printed, value.toString());
        assertEquals(kind, value.getClass());
    }

    @Test
    void twoDimensionalArraysKeepTheirIndices() {
        int[][] m = {{1, 2, 3}, {4, 5, 6}};
        IntRTable t = (IntRTable) ENGINE.toKernel(m);
        for (int i = 0; i < 2; i++)
            for (int j = 0; j < 3; j++) assertEquals(m[i][j], t.select(new int[] {i + 1, j + 1}));
    }

    @Test
    void mapsBecomeTablesWithConvertedKeys() {
        Map<Object, Object> map = new HashMap<>();
        map.put(java.util.List.of(1, 2), "pair");
        map.put("x", 2.5);
        map.put(TWO_64, null);
        Table t = (Table) ENGINE.toKernel(map);
        assertEquals("\"pair\"", t.select(ENGINE.toKernel(java.util.List.of(1L, 2L))).toString());
        assertEquals("2.5", t.select(ENGINE.newVString("x")).toString());
        assertTrue(t.select(ENGINE.toKernel(TWO_64)).isNULL());
        assertEquals("table([])", ENGINE.toKernel(Map.of()).toString());
    }

    static Arguments back(String statement, Object java) {
        return Arguments.of(statement, java);
    }

    /** Kernel values and the Java values they become. */
    static Stream<Arguments> toJavaRows() {
        return Stream.of(
            back("0", 0L),
            back("2^63-1", Long.MAX_VALUE),
            back("-2^63", Long.MIN_VALUE),
            back("2^63", BigInteger.ONE.shiftLeft(63)),
            back("-2^64", TWO_64.negate()),
            back("1.5", 1.5),
            back("-0.0", -0.0),
            back("evalf(0)/0.0", Double.NaN),
            back("1/4", 0.25),
            back("\"abc\"", "abc"),
            back("true", true),
            back("false", false),
            back("NULL", null),
            back("[]", java.util.List.of()),
            back("[1, -2^63]", java.util.List.of(1L, Long.MIN_VALUE)),
            back("[1.5, 1/2]", java.util.List.of(1.5, 0.5)),
            back("[1, 2.5]", java.util.List.of(1L, 2.5)),
            back("[2^64, 1]", java.util.List.of(TWO_64, 1L)),
            back("[\"s\", [true, []], []]",
                java.util.List.of("s", java.util.List.of(true, java.util.List.of()), java.util.List.of())),
            back("1, 2", java.util.List.of(1L, 2L)),
            back("a, \"b\"", Arrays.asList(ENGINE.newName("a", true), "b")),
            back("Array(1..3, [1, 2, 3], datatype = integer[4])", new int[] {1, 2, 3}),
            back("Array(-1..0, [1.5, 2.5], datatype = float[8])", new double[] {1.5, 2.5}),
            back("Array(1..0, datatype = integer[1])", new byte[0]),
            back("Array(1..2, 1..3, [[1, 2, 3], [4, 5, 6]], datatype = integer[2])",
                new short[][] {{1, 2, 3}, {4, 5, 6}}),
            back("Array(0..1, 5..5, [[1], [2]], datatype = float[4])", new float[][] {{1}, {2}}),
            back("Array(1..2, 1..0, datatype = integer[8])", new long[][] {{}, {}}),
            back("[Array(1..1, [7], datatype = integer[8])]", java.util.List.of(new long[] {7})));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("toJavaRows")
    void kernelValuesBecomeJavaValues(String statement, Object java) {
        Object converted = eval(statement + ":").toJava();
        assertTrue(same(java, converted), () -> "got " + show(converted));
    }

    /** Equality that compares arrays by content, also inside lists, and names by their printed form. */
    public static boolean same(Object a, Object b) {
        if (a instanceof java.util.List<?> x && b instanceof java.util.List<?> y) {
            if (x.size() != y.size()) return false;
            for (int i = 0; i < x.size(); i++)
                if (!same(x.get(i), y.get(i))) return false;
            return true;
        }
        if (a instanceof Name && b instanceof Name) return a.toString().equals(b.toString());
        return Objects.deepEquals(a, b) && (a == null || a.getClass() == b.getClass());
    }

    public static String show(Object o) {
        if (o == null) return "null";
        return (o.getClass().isArray() ? Arrays.deepToString(new Object[] {o}) : o.toString()) + " (" + o.getClass() + ")";
    }

    static Stream<String> kept() {
        return Stream.of("2+3*I", "{1, 2}", "table([1 = 2])", "x -> x", "x + 1", "y",
            "Array(1..2, datatype = anything)", "Array(1..2, datatype = sfloat)", "Array(1..2, datatype = complex[8])",
            "Array(1..2, datatype = truefalse)", "Array(1..2, 1..2, 1..2, datatype = float[8])");
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("kept")
    void otherValuesComeBackAsThemselves(String statement) {
        Algebraic value = eval(statement + ":");
        assertSame(value, value.toJava());
        assertSame(value, ENGINE.toKernel(value));
        assertEquals("[" + value + "]", ENGINE.toKernel(new Object[] {value}).toString());
    }

    @Test
    void aLocalNameTrueIsNotABoolean() {
        Name local = ENGINE.newName("true", false);
        assertSame(local, local.toJava());
    }

    @Test
    void listsComeBackUnmodifiable() {
        for (String s : new String[] {"[1, 2]", "[1.5]", "[x, 1]", "1, x"}) {
            java.util.List<?> l = (java.util.List<?>) eval(s + ":").toJava();
            assertThrows(UnsupportedOperationException.class, () -> l.remove(0), s);
        }
    }

    /** Java values that come back equal from the kernel. */
    public static Stream<Object> roundTrips() {
        return Stream.of(null, 0L, Long.MIN_VALUE, Long.MAX_VALUE, TWO_64, TWO_64.negate(), 1.5, -0.0, Double.NaN,
            Double.NEGATIVE_INFINITY, Double.MIN_VALUE, "", "text", true, false,
            new double[] {1, Double.NaN, -0.0}, new float[] {Float.MAX_VALUE}, new long[] {Long.MIN_VALUE, 0},
            new int[] {Integer.MIN_VALUE}, new short[0], new byte[] {-1, 0, 1},
            new double[][] {{1, 2}, {3, 4}, {5, 6}}, new int[][] {{1, 2, 3}},
            java.util.List.of(), java.util.List.of(1L, 2L), java.util.List.of(1.5, -0.0),
            java.util.List.of("a", true, 3L, TWO_64, java.util.List.of(java.util.List.of())),
            java.util.List.of(new long[] {1, 2}, java.util.List.of((Object) new double[][] {{0.5}})));
    }

    @ParameterizedTest
    @MethodSource("roundTrips")
    void javaValuesRoundTrip(Object java) {
        Object back = ENGINE.toKernel(java).toJava();
        assertTrue(same(java, back), () -> show(java) + " came back as " + show(back));
    }

    @Test
    void aBigIntegerWithinLongComesBackAsALong() {
        assertEquals(-7L, ENGINE.toKernel(BigInteger.valueOf(-7)).toJava());
        assertEquals(java.util.List.of(4L), ENGINE.toKernel(java.util.List.of(BigInteger.valueOf(4))).toJava());
    }

    public static Stream<String> kernelRoundTrips() {
        return Stream.of("2^100", "-2^63", "42", "1.5e-300", "-0.0", "\"s\"", "true", "false", "NULL",
            "[1, [2.5, \"x\"], []]", "[true, false]", "Array(1..2, [1.5, 2.5], datatype = float[8])",
            "Array(1..2, 1..2, [[1, 2], [3, 4]], datatype = integer[4])",
            "Array(1..3, [1, 2, 3], datatype = integer[1])", "Array(1..1, [1.5], datatype = float[4])");
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("kernelRoundTrips")
    void kernelValuesRoundTrip(String statement) {
        Algebraic value = eval(statement + ":");
        Algebraic back = ENGINE.toKernel(value.toJava());
        assertEquals(value.toString(), back.toString());
        assertEquals(value.getClass(), back.getClass());
    }

    @Test
    void typedAccessChecksTheType() {
        Long n = ENGINE.evaluate("2+3:").toJava(Long.class);
        assertEquals(5L, n);
        assertEquals(5L, eval("5:").toJava(long.class));
        assertEquals(1.5, eval("1.5:").toJava(double.class));
        assertEquals(TWO_64, eval("2^64:").toJava(BigInteger.class));
        assertEquals(7L, eval("7:").toJava(Number.class));
        assertArrayEquals(new double[] {1}, eval("Array(1..1, [1.0], datatype = float[8]):").toJava(double[].class));
        assertEquals(java.util.List.of(1L), eval("[1]:").toJava(java.util.List.class));
        Table t = (Table) eval("table():");
        assertSame(t, t.toJava(Algebraic.class));
        assertNull(eval("NULL:").toJava(Long.class));

        assertVexel("Expected Long, got 1.5", () -> eval("1.5:").toJava(Long.class));
        assertVexel("Expected long, got " + TWO_64, () -> eval("2^64:").toJava(long.class));
        assertVexel("Expected String, got [1, 2]", () -> eval("[1, 2]:").toJava(String.class));
        assertVexel("Expected double[], got Array(1..1, [1], datatype = integer[8])",
            () -> eval("Array(1..1, [1], datatype = integer[8]):").toJava(double[].class));
        assertVexel("Expected Boolean, got x+1", () -> eval("x + 1:").toJava(Boolean.class));
        assertVexel("Expected long, got NULL", () -> eval("NULL:").toJava(long.class));
    }

    @Test
    void valuesWithoutAKernelFormAreRefused() {
        Object[] refused = {new Object(), new HashSet<>(), Optional.empty(), new boolean[1], new char[] {'a'},
            new StringBuilder("s")};
        for (Object o : refused)
            assertVexel("Cannot convert " + o.getClass().getTypeName() + " to a kernel value", () -> ENGINE.toKernel(o));
        assertVexel("Cannot convert double[][] to a kernel value", () -> ENGINE.toKernel(new double[][] {{1}, {1, 2}}));
        assertVexel("Cannot convert int[][] to a kernel value", () -> ENGINE.toKernel(new int[][] {{1}, null}));
        assertVexel("Cannot convert int[][] to a kernel value", () -> ENGINE.toKernel(new int[][] {null}));
        // Deep inside a collection, and among a map's keys.
        assertVexel("Cannot convert java.lang.Object to a kernel value",
            () -> ENGINE.toKernel(java.util.List.of(1, java.util.List.of("a", new Object()))));
        assertVexel("Cannot convert java.lang.Thread to a kernel value",
            () -> ENGINE.toKernel(Map.of(Thread.currentThread(), 1)));
    }

    @Test
    void selfContainingCollectionsAreRefused() {
        String message = "Cannot convert a collection that contains itself";
        java.util.List<Object> list = new ArrayList<>(java.util.List.of(1, "a"));
        list.add(list);
        assertVexel(message, () -> ENGINE.toKernel(list));
        assertVexel(message, () -> ENGINE.toKernel(java.util.List.of(java.util.List.of(list))));
        Object[] array = {null, "a"};
        array[0] = new Object[] {array};
        assertVexel(message, () -> ENGINE.toKernel(array));
        Map<Object, Object> map = new LinkedHashMap<>();
        map.put("me", map);
        assertVexel(message, () -> ENGINE.toKernel(map));
        Map<Object, Object> keyed = new HashMap<>();
        keyed.put(java.util.List.of(keyed), 1);
        assertVexel(message, () -> ENGINE.toKernel(keyed));
        // The same collection twice, side by side, is no cycle.
        java.util.List<Object> shared = java.util.List.of("s", 1);
        assertEquals("[[\"s\", 1], [\"s\", 1]]", ENGINE.toKernel(new Object[] {shared, shared}).toString());
        Table both = (Table) ENGINE.toKernel(Map.of("a", shared, "b", shared));
        assertEquals("[\"s\", 1]", both.select(ENGINE.newVString("b")).toString());
    }

    @Test
    void disposedValuesAreRefused() throws Throwable {
        eval("f := x -> x:");
        Algebraic v = eval("[x]:");
        Checks.withoutHandle(v, () -> {
            assertVexel("this Algebraic has been disposed", () -> ENGINE.toKernel(v));
            assertVexel("this Algebraic has been disposed", () -> ENGINE.toKernel(java.util.List.of("a", v)));
            assertVexel("this Algebraic has been disposed", () -> ENGINE.toKernel(Map.of(v, 1)));
            assertVexel("this Algebraic has been disposed", v::toJava);
            assertVexel("this Algebraic has been disposed", () -> v.toJava(Object.class));
            assertVexel("this Algebraic has been disposed", () -> ENGINE.call("f", v));
        });
    }

    @Test
    void callsConvertArgumentsAndResult() {
        eval("pair := proc(a, b) [a, b] end proc:");
        eval("second := A -> A[2]:");
        eval("none := proc() NULL end proc:");
        eval("count := proc() nops([args]) end proc:");
        assertEquals(java.util.List.of(1L, "x"), ENGINE.call("pair", 1, "x"));
        assertEquals(java.util.List.of(java.util.List.of(2.5), TWO_64),
            ENGINE.call("pair", java.util.List.of(2.5), TWO_64));
        assertEquals(2.5, ENGINE.call("second", new double[] {1.5, 2.5}));
        assertEquals(7L, ENGINE.call("second", Map.of(2, 7)));
        assertNull(ENGINE.call("none"));
        assertEquals(0L, ENGINE.call("count"));
        assertEquals(0L, ENGINE.call("count", (Object[]) null));
        assertEquals(3L, ENGINE.call("count", 1, 2, 3));
        Procedure p = (Procedure) eval("x -> x:");
        Object kept = ENGINE.call("pair", p, 1);
        assertSame(Procedure.class, ((java.util.List<?>) kept).get(0).getClass());
    }

    @Test
    void userDataNeverBecomesSource() {
        eval("echo := s -> s:");
        Algebraic before = eval("[1]:");
        String hostile = "\"); restart(); (\"";
        assertEquals(hostile, ENGINE.call("echo", hostile));
        assertEquals(java.util.List.of(hostile), ENGINE.call("echo", java.util.List.of(hostile)));
        Table keyed = (Table) ENGINE.toKernel(Map.of(hostile, hostile));
        assertEquals(hostile, keyed.select(ENGINE.newVString(hostile)).toJava());
        // The procedure's name is a name, not source either.
        assertVexel("echo(1); restart() is not a procedure", () -> ENGINE.call("echo(1); restart()"));
        assertEquals("[1]", before.toString());  // no restart happened
    }

    @Test
    void callMessages() {
        eval("five := 5:");
        eval("fails := proc() error \"no luck\" end proc:");
        assertVexel("Procedure name is NULL", () -> ENGINE.call(null));
        assertVexel("nosuchprocedure is not a procedure", () -> ENGINE.call("nosuchprocedure", 1));
        assertVexel("five is not a procedure", () -> ENGINE.call("five"));
        assertVexel("nops is not a procedure", () -> ENGINE.call("nops", java.util.List.of()));
        assertVexel("Cannot convert java.lang.Object to a kernel value", () -> ENGINE.call("fails", new Object()));
        VexelException e = assertThrows(VexelException.class, () -> ENGINE.call("fails"));
        assertTrue(e.getMessage().contains("no luck"), e.getMessage());
    }

    static Object invoke(String method, Class<?> type, Object... args) throws Throwable {
        java.lang.reflect.Method m = Conversions.class.getDeclaredMethod(method,
            Stream.concat(type == Algebraic.class ? Stream.of() : Stream.of(Engine.class), Stream.of(type))
                .toArray(Class<?>[]::new));
        m.setAccessible(true);
        try {
            return m.invoke(null, args);
        } catch (java.lang.reflect.InvocationTargetException e) {
            throw e.getCause();
        }
    }

    @Test
    void numbersOfListsCrossInOneArray() throws Throwable {
        Object[][] cases = {
            {"[1, -2^63, 2^63-1]", new long[] {1, Long.MIN_VALUE, Long.MAX_VALUE}},
            {"1, 2", new long[] {1, 2}},
            {"[1.5, 1/2, -0.0]", new double[] {1.5, 0.5, -0.0}},
            {"[1, 2.5]", null}, {"[2.5, 1]", null}, {"[1, 2^64]", null}, {"[x]", null}, {"[]", null},
            {"[1, \"s\"]", null}, {"[2+I, 1.5]", null},
        };
        for (Object[] c : cases) {
            Object numbers = invoke("numbersOf", Algebraic.class, eval(c[0] + ":"));
            assertTrue(Objects.deepEquals(c[1], numbers), (String) c[0]);
        }
        Algebraic list = eval("[1, 2]:");
        Checks.withoutHandle(list, () -> assertVexel("this Algebraic has been disposed",
            () -> invoke("numbersOf", Algebraic.class, list)));
        Checks.withoutHandle(list, () -> assertVexel("this Algebraic has been disposed",
            () -> invoke("truthOf", Algebraic.class, list)));
        assertEquals(-1, invoke("truthOf", Algebraic.class, eval("sfloat:")));
    }

    @Test
    void theListNativesRefuseANullArray() {
        // Reached only through reflection: the public methods never pass null.
        assertVexel("Array is NULL", () -> invoke("newIntegerList", long[].class, ENGINE, null));
        assertVexel("Array is NULL", () -> invoke("newFloatList", double[].class, ENGINE, null));
        assertVexel("Engine is null, it may have been stopped.",
            () -> invoke("newIntegerList", long[].class, null, new long[1]));
    }

    /** One round of conversions whose results are checked after a yield to the collector. */
    static void convertAndCheck(int worker, int round) {
        String tag = worker + "-" + round;
        java.util.List<Object> mixed = java.util.List.of(tag, (long) round << 40, 0.5 + round,
            java.util.List.of(TWO_64.add(BigInteger.valueOf(round)), true));
        long[] longs = {round, -round, Long.MIN_VALUE};
        double[][] matrix = {{round, 1}, {2, -round}};
        java.util.List<Long> boxed = java.util.List.of((long) round, 2L, 3L);
        Map<Object, Object> map = Map.of(tag, java.util.List.of(round));
        Algebraic[] made = {ENGINE.toKernel(mixed), ENGINE.toKernel(longs), ENGINE.toKernel(matrix),
            ENGINE.toKernel(boxed), ENGINE.toKernel(map)};
        Thread.yield();
        assertEquals(mixed, made[0].toJava());
        assertArrayEquals(longs, (long[]) made[1].toJava());
        assertTrue(Arrays.deepEquals(matrix, (double[][]) made[2].toJava()));
        assertEquals(boxed, made[3].toJava());
        assertEquals("[" + round + "]", ((Table) made[4]).select(ENGINE.toKernel(tag)).toString());
        assertEquals(mixed, ENGINE.call("echo", mixed));
    }

    @Test
    void conversionsSurviveCollectionsByOtherThreads() throws Exception {
        eval("echo := s -> s:");
        StressTest.whileCollecting(100, ConversionTest::convertAndCheck);
    }
}
