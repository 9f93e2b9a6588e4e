package com.quorbit.ambrix.pool;

import static com.quorbit.ambrix.pool.Wire.ARRAY;
import static com.quorbit.ambrix.pool.Wire.BIG;
import static com.quorbit.ambrix.pool.Wire.DOUBLE;
import static com.quorbit.ambrix.pool.Wire.FALSE;
import static com.quorbit.ambrix.pool.Wire.LIST;
import static com.quorbit.ambrix.pool.Wire.LONG;
import static com.quorbit.ambrix.pool.Wire.MAP;
import static com.quorbit.ambrix.pool.Wire.MATRIX;
import static com.quorbit.ambrix.pool.Wire.NULL;
import static com.quorbit.ambrix.pool.Wire.STRING;
import static com.quorbit.ambrix.pool.Wire.TRUE;

import com.quorbit.ambrix.pool.Wire.WireException;
import com.quorbit.externalcall.VexelException;
import java.math.BigInteger;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.LinkedHashMap;
import java.util.Map;

/**
 * The values a frame's payload carries, in the wire's tagged encoding:
 * exactly the values the conversions know. Primitive arrays go as raw
 * bytes; every read is checked against what is left of the payload.
 */
final class WireValues {
    private static final int MAX_DEPTH = 64;

    private WireValues() {
    }

    /**
     * Adds a value to the frame being built.
     *
     * @throws VexelException for a value of another class, or one nested too deep
     */
    static void write(Wire.Writer w, Object v, int depth) {
        if (depth > MAX_DEPTH) {
            throw new VexelException("Value nested too deep for a worker frame");
        }
        if (v == null) {
            w.room(1).put(NULL);
        } else if (v instanceof Boolean b) {
            w.room(1).put(b ? TRUE : FALSE);
        } else if (v instanceof Long || v instanceof Integer || v instanceof Short || v instanceof Byte) {
            w.number(((Number) v).longValue());
        } else if (v instanceof BigInteger b) {
            byte[] bytes = new BigInteger(b.toByteArray()).toByteArray();
            w.room(5 + bytes.length).put(BIG).putInt(bytes.length).put(bytes);
        } else if (v instanceof Double || v instanceof Float) {
            w.room(9).put(DOUBLE).putDouble(((Number) v).doubleValue());
        } else if (v instanceof String s) {
            w.string(s);
        } else if (v instanceof Character c) {
            w.string(c.toString());
        } else if (v instanceof java.util.List<?> l) {
            w.room(5).put(LIST).putInt(l.size());
            for (Object e : l) {
                write(w, e, depth + 1);
            }
        } else if (v instanceof Map<?, ?> m) {
            w.room(5).put(MAP).putInt(m.size());
            for (Map.Entry<?, ?> e : m.entrySet()) {
                write(w, e.getKey(), depth + 1);
                write(w, e.getValue(), depth + 1);
            }
        } else if (v.getClass().isArray() && Primitive.of(v.getClass().getComponentType()) != null) {
            Primitive p = Primitive.of(v.getClass().getComponentType());
            int n = java.lang.reflect.Array.getLength(v);
            w.room(6).put(ARRAY).put(p.code).putInt(n);
            p.put(w.room((long) n * p.size), v, 0, n);
        } else if (v instanceof Object[] rows && rows.getClass().getComponentType().isArray()
                && Primitive.of(rows.getClass().getComponentType().getComponentType()) != null
                && rectangular(rows)) {
            Primitive p = Primitive.of(rows.getClass().getComponentType().getComponentType());
            int columns = rows.length == 0 ? 0 : java.lang.reflect.Array.getLength(rows[0]);
            w.room(10).put(MATRIX).put(p.code).putInt(rows.length).putInt(columns);
            if (columns == 0) {
                // Each row takes a byte, so that no row count is larger than its frame.
                w.room(rows.length).put(new byte[rows.length]);
            }
            for (Object row : rows) {
                p.put(w.room((long) columns * p.size), row, 0, columns);
            }
        } else if (v instanceof Object[] elements) {
            write(w, Arrays.asList(elements), depth);
        } else {
            throw new VexelException("Cannot send " + v.getClass().getTypeName() + " to a worker");
        }
    }

    private static boolean rectangular(Object[] rows) {
        int columns = -1;
        for (Object row : rows) {
            if (row == null) {
                return false;
            }
            int n = java.lang.reflect.Array.getLength(row);
            if (columns >= 0 && n != columns) {
                return false;
            }
            columns = n;
        }
        return true;
    }

    /** The next value of a payload. */
    static Object read(Wire.Reader in, int depth) throws WireException {
        if (depth > MAX_DEPTH) {
            throw new WireException("malformed frame: values nested too deep");
        }
        byte tag = in.need(1).get();
        switch (tag) {
            case NULL:
                return null;
            case FALSE:
                return Boolean.FALSE;
            case TRUE:
                return Boolean.TRUE;
            case LONG:
                return in.need(8).getLong();
            case BIG: {
                byte[] bytes = new byte[in.count(1)];
                in.need(bytes.length).get(bytes);
                if (bytes.length == 0) {
                    throw new WireException("malformed frame: an empty integer");
                }
                return new BigInteger(bytes);
            }
            case DOUBLE:
                return in.need(8).getDouble();
            case STRING: {
                byte[] bytes = new byte[in.count(1)];
                in.need(bytes.length).get(bytes);
                return new String(bytes, StandardCharsets.UTF_8);
            }
            case LIST: {
                int n = in.count(1);
                java.util.List<Object> l = new ArrayList<>(n);
                for (int i = 0; i < n; i++) {
                    l.add(read(in, depth + 1));
                }
                return Collections.unmodifiableList(l);
            }
            case MAP: {
                int n = in.count(2);
                Map<Object, Object> m = new LinkedHashMap<>();
                for (int i = 0; i < n; i++) {
                    m.put(read(in, depth + 1), read(in, depth + 1));
                }
                return Collections.unmodifiableMap(m);
            }
            case ARRAY: {
                Primitive p = primitive(in);
                int n = in.count(p.size);
                return p.get(in.rest(), n);
            }
            case MATRIX: {
                Primitive p = primitive(in);
                int rows = in.need(4).getInt();
                int columns = in.need(4).getInt();
                // Every row takes at least a byte: a row of no columns, the byte before the rows.
                if (rows < 0 || columns < 0
                        || (long) rows * Math.max(1, (long) columns * p.size) > in.rest().remaining()) {
                    throw new WireException("malformed frame: a table of " + rows + " x " + columns
                            + " exceeds the frame");
                }
                if (columns == 0) {
                    in.need(rows).position(in.rest().position() + rows);
                }
                Object matrix = java.lang.reflect.Array.newInstance(p.type, rows, 0);
                for (int r = 0; r < rows; r++) {
                    java.lang.reflect.Array.set(matrix, r, p.get(in.rest(), columns));
                }
                return matrix;
            }
            default:
                throw new WireException("malformed frame: unknown value tag " + tag);
        }
    }

    private static Primitive primitive(Wire.Reader in) throws WireException {
        Primitive p = Primitive.ofCode(in.need(1).get());
        if (p == null) {
            throw new WireException("malformed frame: unknown element type");
        }
        return p;
    }

    /** The primitive element types of arrays, moved as raw bytes. */
    enum Primitive {
        DOUBLE('D', double.class, 8), FLOAT('F', float.class, 4), LONG('J', long.class, 8), INT('I', int.class, 4),
        SHORT('S', short.class, 2), BYTE('B', byte.class, 1);

        final byte code;
        final Class<?> type;
        final int size;

        Primitive(char code, Class<?> type, int size) {
            this.code = (byte) code;
            this.type = type;
            this.size = size;
        }

        static Primitive of(Class<?> type) {
            for (Primitive p : values()) {
                if (p.type == type) {
                    return p;
                }
            }
            return null;
        }

        static Primitive ofCode(byte code) {
            for (Primitive p : values()) {
                if (p.code == code) {
                    return p;
                }
            }
            return null;
        }

        void put(ByteBuffer b, Object array, int from, int n) {
            switch (this) {
                case DOUBLE -> b.asDoubleBuffer().put((double[]) array, from, n);
                case FLOAT -> b.asFloatBuffer().put((float[]) array, from, n);
                case LONG -> b.asLongBuffer().put((long[]) array, from, n);
                case INT -> b.asIntBuffer().put((int[]) array, from, n);
                case SHORT -> b.asShortBuffer().put((short[]) array, from, n);
                case BYTE -> b.put((byte[]) array, from, n);
            }
            if (this != BYTE) {
                b.position(b.position() + n * size);
            }
        }

        Object get(ByteBuffer b, int n) {
            Object array = java.lang.reflect.Array.newInstance(type, n);
            switch (this) {
                case DOUBLE -> b.asDoubleBuffer().get((double[]) array);
                case FLOAT -> b.asFloatBuffer().get((float[]) array);
                case LONG -> b.asLongBuffer().get((long[]) array);
                case INT -> b.asIntBuffer().get((int[]) array);
                case SHORT -> b.asShortBuffer().get((short[]) array);
                case BYTE -> b.get((byte[]) array);
            }
            if (this != BYTE) {
                b.position(b.position() + n * size);
            }
            return array;
        }
    }
}
