package com.quorbit.ambrix;

/**
 * A kernel value, held from Java.
 *
 * <p>Values are obtained from an {@link Engine} ({@link Engine#evaluate} and
 * the factory methods) and from other values; the kernel's kind of value
 * decides the class: {@link Numeric}, {@link ComplexNumeric}, {@link Name},
 * {@link Table}, {@link List}, {@link Procedure}, {@link Expseq},
 * {@link VString}, {@link RTable} and its typed subclasses, or plain
 * {@code Algebraic} for every other value (such as {@code x + 1}).
 *
 * <p>The kernel keeps a value alive for as long as Java can reach an object
 * that holds it. After {@link Engine#restart()} every object obtained before
 * is disposed: its methods throw
 * {@link com.quorbit.externalcall.VexelException} "this Algebraic has been
 * disposed". Each call that returns a value makes a new Java object, so two
 * objects may hold the same kernel value; objects are equal only to
 * themselves.
 */
public class Algebraic {
    /** The kernel value handle; 0 once disposed. Read and written by the native library. */
    long dag;
    /** The engine's native record. Read by the native library. */
    long kernelID;

    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    Algebraic(long dag, long kernelID) {
        this.dag = dag;
        this.kernelID = kernelID;
        if (!LiveStore.add(this)) {
            addToLiveAlgebStore();
        }
    }

    /**
     * Compares by identity: each object is equal only to itself.
     * (The engine keeps its objects in a weak identity set.)
     */
    @Override
    public final boolean equals(Object o) {
        return this == o;
    }

    /** The identity hash code. */
    @Override
    public final int hashCode() {
        return System.identityHashCode(this);
    }

    /**
     * Returns the kernel's printed form of the value, such as {@code 2+3*I},
     * {@code [1, 2]} or {@code "abc"} (strings keep their quotes).
     */
    @Override
    public native String toString();

    /**
     * Evaluates the value in the kernel (names are replaced by their values).
     *
     * @return the result, or null if it has no value
     */
    public native Algebraic eval();

    /**
     * Returns the value unevaluated, as if quoted.
     *
     * @return the quoted value
     */
    public native Algebraic uneval();

    /**
     * Evaluates the value numerically, in hardware floating point.
     *
     * @return the result
     */
    public native double evalhf();

    /**
     * Returns the kernel's unique instance of an equal value: this very
     * object if it holds that instance already, otherwise a new object.
     *
     * @return the unique instance
     */
    public native Algebraic unique();

    /**
     * Tests for the empty expression sequence, {@code NULL}.
     *
     * @return true for {@code NULL}
     */
    public native boolean isNULL();

    /**
     * Tests for a pointer value.
     *
     * @return true for a pointer value
     */
    public native boolean isPointer();

    /**
     * Tests for a pointer value that holds the null pointer.
     *
     * @return true for a null pointer value
     */
    public native boolean isPointerNULL();

    /**
     * Tests for a set, such as {@code {1, 2}}.
     *
     * @return true for a set
     */
    public native boolean isSet();

    /**
     * Tests for the value of {@code quit}, {@code done} or {@code stop}.
     *
     * @return true for a stop value
     */
    public native boolean isStop();

    /**
     * Converts the value to a Java value, where one corresponds.
     *
     * <table>
     * <caption>Kernel values and the Java values they become</caption>
     * <tr><th>kernel</th><th>Java</th></tr>
     * <tr><td>an integer</td><td>{@code Long} when it fits, else {@code BigInteger}</td></tr>
     * <tr><td>another real number (a float or a rational)</td><td>{@code Double}</td></tr>
     * <tr><td>a string</td><td>{@code String}</td></tr>
     * <tr><td>{@code true}, {@code false}</td><td>{@code Boolean}</td></tr>
     * <tr><td>{@code NULL}</td><td>{@code null}</td></tr>
     * <tr><td>a list or expression sequence</td><td>an unmodifiable {@code java.util.List<Object>},
     *     elements converted</td></tr>
     * <tr><td>a table of 1 or 2 dimensions of data type {@code float[8]}, {@code float[4]},
     *     {@code integer[8]}, {@code integer[4]}, {@code integer[2]} or {@code integer[1]}</td>
     *     <td>{@code double[]}, {@code float[]}, {@code long[]}, {@code int[]}, {@code short[]},
     *     {@code byte[]}, or the 2-D array of rows of these</td></tr>
     * </table>
     *
     * <p>Every other value (complex numbers, sets, tables, procedures,
     * expressions) comes back as this object. {@link Engine#toKernel} is the
     * inverse.
     *
     * @return the Java value
     */
    public Object toJava() {
        return Conversions.toJava(this);
    }

    /**
     * Converts the value as {@link #toJava()} does, and checks the result's
     * type: {@code Long n = engine.evaluate("2+3:").toJava(Long.class)}.
     * A primitive class stands for its box ({@code long.class} for
     * {@code Long}). {@code NULL} gives null for any class but a primitive one.
     *
     * @param <T>  the expected type
     * @param type the expected class
     * @return the converted value
     * @throws com.quorbit.externalcall.VexelException "Expected &lt;type&gt;, got
     *         &lt;the value as printed&gt;" when the converted value is of another type
     */
    public <T> T toJava(Class<T> type) {
        return Conversions.toJava(this, type);
    }

    /**
     * Registers this object in the engine's live store, so that the kernel
     * keeps its value alive for as long as Java can reach the object. Every
     * object is registered when it is made; this undoes
     * {@link #removeFromLiveAlgebStore()} as long as no kernel collection has
     * run since. Registering twice is harmless. It does not enter the kernel.
     *
     * @throws com.quorbit.externalcall.VexelException "this Algebraic has been
     *         disposed" when the object no longer holds a value (after a
     *         restart, or a collection that followed its removal); "Engine is
     *         void" when the object has no engine
     */
    public native void addToLiveAlgebStore();

    /**
     * Releases the value early: withdraws this object from the engine's live
     * store, so that the kernel no longer keeps its value alive on this
     * object's behalf. The object stays usable until the kernel's next
     * collection, which may reclaim the value: that collection disposes the
     * object, and from then on every use of it, and registering it again,
     * throws {@link com.quorbit.externalcall.VexelException} "this Algebraic
     * has been disposed", whether or not the value was in fact reclaimed.
     * Removing twice is harmless. It does not enter the kernel.
     *
     * @throws com.quorbit.externalcall.VexelException "Engine is void" when
     *         the object has no engine
     */
    public native void removeFromLiveAlgebStore();
}
