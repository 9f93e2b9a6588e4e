package com.quorbit.ambrix;

import com.quorbit.externalcall.VexelException;
import java.lang.invoke.MethodType;
import java.lang.reflect.Array;
import java.math.BigInteger;
import java.util.Arrays;
import java.util.Collections;
import java.util.IdentityHashMap;
import java.util.Map;
import java.util.Set;
import java.util.function.BiConsumer;
import java.util.function.Function;
import java.util.function.Supplier;
import java.util.stream.DoubleStream;
import java.util.stream.LongStream;

/**
 * Java values to kernel values and back: the work behind
 * {@link Engine#toKernel}, {@link Algebraic#toJava()} and {@link Engine#call}.
 *
 * <p>Bulk paths come first: a primitive array fills a new table in one call,
 * a list of integers or of floats is made in one call, and the numbers of a
 * kernel list come back as one Java array. Everything else goes value by
 * value through the public factories and accessors.
 */
final class Conversions {
    private Conversions() {}

    /** The hardware data types of the primitive arrays, and how a table of each crosses in one call. */
    private enum Hardware {
        DOUBLE("float[8]", double.class, DoubleRTable.class, (t, a) -> ((DoubleRTable) t).assignAll((double[]) a),
                t -> ((DoubleRTable) t).toArray()),
        FLOAT("float[4]", float.class, FloatRTable.class, (t, a) -> ((FloatRTable) t).assignAll((float[]) a),
                t -> ((FloatRTable) t).toArray()),
        LONG("integer[8]", long.class, LongRTable.class, (t, a) -> ((LongRTable) t).assignAll((long[]) a),
                t -> ((LongRTable) t).toArray()),
        INT("integer[4]", int.class, IntRTable.class, (t, a) -> ((IntRTable) t).assignAll((int[]) a),
                t -> ((IntRTable) t).toArray()),
        SHORT("integer[2]", short.class, ShortRTable.class, (t, a) -> ((ShortRTable) t).assignAll((short[]) a),
                t -> ((ShortRTable) t).toArray()),
        BYTE("integer[1]", byte.class, ByteRTable.class, (t, a) -> ((ByteRTable) t).assignAll((byte[]) a),
                t -> ((ByteRTable) t).toArray());

        final String datatype;
        final Class<?> element;
        final Class<? extends RTable> table;
        final BiConsumer<RTable, Object> assignAll;
        final Function<RTable, Object> toArray;

        Hardware(String datatype, Class<?> element, Class<? extends RTable> table, BiConsumer<RTable, Object> assignAll,
                Function<RTable, Object> toArray) {
            this.datatype = datatype;
            this.element = element;
            this.table = table;
            this.assignAll = assignAll;
            this.toArray = toArray;
        }

        static Hardware ofElement(Class<?> element) {
            for (Hardware h : values()) {
                if (h.element == element) {
                    return h;
                }
            }
            return null;
        }

        static Hardware ofTable(Algebraic value) {
            for (Hardware h : values()) {
                if (h.table.isInstance(value)) {
                    return h;
                }
            }
            return null;
        }
    }

    // ---- Java to kernel ----

    static Algebraic toKernel(Engine engine, Object value) {
        return convert(engine, value, Collections.newSetFromMap(new IdentityHashMap<>()));
    }

    /** Converts one value; {@code path} holds the collections being converted around it. */
    private static Algebraic convert(Engine engine, Object value, Set<Object> path) {
        if (value == null) {
            return newNull(engine);
        }
        if (value instanceof Algebraic a) {
            if (a.dag == 0) {
                throw new VexelException("this Algebraic has been disposed");
            }
            return a;
        }
        if (value instanceof Boolean b) {
            return newBoolean(engine, b);
        }
        if (value instanceof Long || value instanceof Integer || value instanceof Short || value instanceof Byte) {
            return engine.newNumeric(((Number) value).longValue());
        }
        if (value instanceof BigInteger b) {
            return bigInteger(engine, b);
        }
        if (value instanceof Double || value instanceof Float) {
            return engine.newNumeric(((Number) value).doubleValue());
        }
        if (value instanceof String s) {
            return engine.newVString(s);
        }
        if (value instanceof Character c) {
            return engine.newVString(c.toString());
        }
        if (value instanceof Object[] elements) {
            Hardware rows = Hardware.ofElement(value.getClass().getComponentType().getComponentType());
            return rows != null ? matrix(engine, rows, elements) : list(engine, value, elements, path);
        }
        if (value instanceof java.util.List<?> l) {
            return list(engine, value, l.toArray(), path);
        }
        if (value instanceof Map<?, ?> m) {
            return table(engine, m, path);
        }
        Hardware type = value.getClass().isArray() ? Hardware.ofElement(value.getClass().getComponentType()) : null;
        if (type == null) {
            throw cannotConvert(value);
        }
        return newArray(engine, type, "1.." + Array.getLength(value), value);
    }

    /**
     * A new table filled from a primitive array in column-major order. The
     * kernel has no operation that makes a table: the library writes the
     * statement itself, from integers and fixed text, with the option and the
     * data type quoted so that values a program assigned to those names do
     * not matter. Null when the kernel reported an error and the error
     * callback did not throw.
     */
    private static Algebraic newArray(Engine engine, Hardware type, String bounds, Object elements) {
        Algebraic made = engine.evaluate("Array(" + bounds + ", 'datatype' = '" + type.datatype + "'):");
        if (made == null) {
            return null;
        }
        if (!type.table.isInstance(made)) {
            throw unexpected("Array", made);
        }
        RTable table = (RTable) made;
        type.assignAll.accept(table, elements);
        return table;
    }

    /**
     * An integer of any size. There is no kernel operation for one wider
     * than a long: its digits are read as a statement, printed by a plain
     * BigInteger copied from the value, so that a subclass's toString()
     * never becomes kernel source.
     */
    private static Algebraic bigInteger(Engine engine, BigInteger value) {
        BigInteger b = new BigInteger(value.toByteArray());
        if (b.bitLength() < Long.SIZE) {
            return engine.newNumeric(b.longValue());
        }
        Algebraic made = engine.evaluate(b.toString() + ":");
        if (made != null && !(made instanceof Numeric)) {
            throw unexpected("an integer", made);
        }
        return made;
    }

    /** A statement the library wrote gave a value of another kind than it makes. */
    private static VexelException unexpected(String what, Algebraic made) {
        return new VexelException("The kernel made " + made.getClass().getSimpleName() + " for " + what
                + ", not the value asked for");
    }

    private static VexelException cannotConvert(Object value) {
        return new VexelException("Cannot convert " + value.getClass().getTypeName() + " to a kernel value");
    }

    /** Marks a collection as being converted; refuses one that is already. */
    private static void enter(Set<Object> path, Object collection) {
        if (!path.add(collection)) {
            throw new VexelException("Cannot convert a collection that contains itself");
        }
    }

    /**
     * A rectangular array of primitives as a table {@code 1..rows, 1..cols}:
     * flattened column-major, as the table stores it, and assigned at once.
     */
    private static Algebraic matrix(Engine engine, Hardware type, Object[] rows) {
        int columns = rows.length == 0 ? 0 : lengthOf(rows[0], rows);
        for (Object row : rows) {
            if (lengthOf(row, rows) != columns) {
                throw cannotConvert(rows);
            }
        }
        if ((long) rows.length * columns > Integer.MAX_VALUE - 8) {
            throw new VexelException("Table too large for a Java array");
        }
        Object flat = Array.newInstance(type.element, rows.length * columns);
        for (int j = 0, at = 0; j < columns; j++) {
            for (Object row : rows) {
                System.arraycopy(row, j, flat, at++, 1);
            }
        }
        return newArray(engine, type, "1.." + rows.length + ", 1.." + columns, flat);
    }

    private static int lengthOf(Object row, Object[] rows) {
        if (row == null) {
            throw cannotConvert(rows);
        }
        return Array.getLength(row);
    }

    /**
     * A list, in one call when every element is an integer that fits a long,
     * or every element a Double or Float; otherwise element by element.
     */
    private static Algebraic list(Engine engine, Object collection, Object[] elements, Set<Object> path) {
        long[] integers = integers(elements);
        if (integers != null) {
            return newIntegerList(engine, integers);
        }
        double[] floats = floats(elements);
        if (floats != null) {
            return newFloatList(engine, floats);
        }
        enter(path, collection);
        try {
            Algebraic[] converted = new Algebraic[elements.length];
            for (int i = 0; i < elements.length; i++) {
                converted[i] = convert(engine, elements[i], path);
            }
            return engine.newList(converted);
        } finally {
            path.remove(collection);
        }
    }

    private static long[] integers(Object[] elements) {
        long[] values = new long[elements.length];
        for (int i = 0; i < elements.length; i++) {
            Object e = elements[i];
            if (e instanceof Long || e instanceof Integer || e instanceof Short || e instanceof Byte) {
                values[i] = ((Number) e).longValue();
            } else if (e instanceof BigInteger b && b.bitLength() < Long.SIZE) {
                values[i] = b.longValue();
            } else {
                return null;
            }
        }
        return values;
    }

    private static double[] floats(Object[] elements) {
        if (elements.length == 0) {
            return null;
        }
        double[] values = new double[elements.length];
        for (int i = 0; i < elements.length; i++) {
            if (!(elements[i] instanceof Double || elements[i] instanceof Float)) {
                return null;
            }
            values[i] = ((Number) elements[i]).doubleValue();
        }
        return values;
    }

    private static Algebraic table(Engine engine, Map<?, ?> map, Set<Object> path) {
        enter(path, map);
        try {
            Table table = engine.newTable();
            for (Map.Entry<?, ?> entry : map.entrySet()) {
                table.assign(convert(engine, entry.getKey(), path), convert(engine, entry.getValue(), path));
            }
            return table;
        } finally {
            path.remove(map);
        }
    }

    // ---- kernel to Java ----

    static Object toJava(Algebraic value) {
        if (value.dag == 0) {
            throw new VexelException("this Algebraic has been disposed");
        }
        if (value instanceof Numeric n) {
            if (n.isLong()) {
                return n.longValue();
            }
            return n.isInteger() ? n.bigIntegerValue() : (Object) n.doubleValue();
        }
        if (value instanceof VString s) {
            return s.stringValue();
        }
        if (value instanceof Name) {
            int truth = truthOf(value);
            return truth < 0 ? value : (Object) (truth == 1);
        }
        if (value instanceof List l) {
            return sequence(l, l::toArray);
        }
        if (value instanceof Expseq || value.getClass() == Algebraic.class) {
            if (value.isNULL()) {
                return null;
            }
            return value instanceof Expseq s ? sequence(s, s::toArray) : value;
        }
        Hardware type = Hardware.ofTable(value);
        return type == null ? value : array(type, (RTable) value);
    }

    /**
     * The elements of a list or sequence, converted: in one call when all
     * are numbers of one Java type, else each on its own.
     */
    private static java.util.List<Object> sequence(Algebraic value, Supplier<Algebraic[]> elements) {
        Object numbers = numbersOf(value);
        Object[] converted;
        if (numbers instanceof long[] longs) {
            converted = LongStream.of(longs).boxed().toArray();
        } else if (numbers instanceof double[] doubles) {
            converted = DoubleStream.of(doubles).boxed().toArray();
        } else {
            converted = Arrays.stream(elements.get()).map(Conversions::toJava).toArray();
        }
        return Collections.unmodifiableList(Arrays.asList(converted));
    }

    /** A one- or two-dimensional table as a Java array; one of more dimensions as itself. */
    private static Object array(Hardware type, RTable table) {
        int dimensions = table.dimensions();
        if (dimensions > 2) {
            return table;
        }
        Object flat = type.toArray.apply(table);
        if (dimensions == 1) {
            return flat;
        }
        int rows = table.upperBound(1) - table.lowerBound(1) + 1;
        int columns = table.upperBound(2) - table.lowerBound(2) + 1;
        Object[] matrix = (Object[]) Array.newInstance(type.element, rows, columns);
        for (int j = 0, at = 0; j < columns; j++) {
            for (Object row : matrix) {
                System.arraycopy(flat, at++, row, j, 1);
            }
        }
        return matrix;
    }

    static <T> T toJava(Algebraic value, Class<T> type) {
        Object converted = toJava(value);
        Class<?> boxed = MethodType.methodType(type).wrap().returnType();
        if (converted == null ? type.isPrimitive() : !boxed.isInstance(converted)) {
            String shown = converted == null ? "NULL" : value.toString();
            throw new VexelException("Expected " + type.getSimpleName() + ", got " + shown);
        }
        @SuppressWarnings("unchecked")
        T result = (T) converted;
        return result;
    }

    // ---- calls ----

    static Object call(Engine engine, String procedure, Object[] args) {
        if (procedure == null) {
            throw new VexelException("Procedure name is NULL");
        }
        if (!(engine.newName(procedure, true).eval() instanceof Procedure p)) {
            throw new VexelException(procedure + " is not a procedure");
        }
        Algebraic[] arguments = new Algebraic[args == null ? 0 : args.length];
        for (int i = 0; i < arguments.length; i++) {
            arguments[i] = toKernel(engine, args[i]);
        }
        Algebraic result = p.execute(arguments);
        return result == null ? null : toJava(result);
    }

    // ---- natives ----

    /** The kernel's NULL. */
    private static native Algebraic newNull(Engine engine);

    /** The kernel's true or false. */
    private static native Algebraic newBoolean(Engine engine, boolean value);

    /** A list of integers, in one call. */
    private static native List newIntegerList(Engine engine, long[] values);

    /** A list of floats, in one call. */
    private static native List newFloatList(Engine engine, double[] values);

    /**
     * The elements of a list or sequence as a {@code long[]} when all are
     * integers that fit a long, a {@code double[]} when all are real numbers
     * other than integers; null otherwise, and for no elements.
     */
    private static native Object numbersOf(Algebraic sequence);

    /** 1 for the kernel's true, 0 for false, -1 for every other name. */
    private static native int truthOf(Algebraic name);
}
