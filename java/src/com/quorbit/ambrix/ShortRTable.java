package com.quorbit.ambrix;

/** A rectangular table of Java {@code short} values (data type {@code integer[2]}). */
public class ShortRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    ShortRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value
     */
    public native void assign(int[] index, short value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element
     */
    public native short select(int[] index);

    /**
     * Returns every element in one call, in column-major order: the first
     * index varies fastest, whatever the table's bounds.
     *
     * @return a new array of {@link #numElements()} elements
     * @throws com.quorbit.externalcall.VexelException "Table too large for a Java array"
     *         when the table has more than {@code Integer.MAX_VALUE} elements
     */
    public native short[] toArray();

    /**
     * Sets every element in one call, from an array in column-major order
     * (the order of {@link #toArray()}). Nothing is written when a check fails.
     *
     * @param values one value per element
     * @throws com.quorbit.externalcall.VexelException "Array is NULL", or "Array length
     *         does not match the table's size"
     */
    public native void assignAll(short[] values);
}
