package com.quorbit.ambrix;

/** A rectangular table of kernel numbers (data type {@code sfloat}). */
public class NumericRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    NumericRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value
     */
    public native void assign(int[] index, Numeric value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element
     */
    public native Numeric select(int[] index);

    /**
     * Returns every element in one call, in column-major order: the first
     * index varies fastest, whatever the table's bounds.
     *
     * @return a new array of {@link #numElements()} elements
     * @throws com.quorbit.externalcall.VexelException "Table too large for a Java array"
     *         when the table has more than {@code Integer.MAX_VALUE} elements
     */
    public native Algebraic[] toArray();

    /**
     * Sets every element in one call, from an array in column-major order
     * (the order of {@link #toArray()}). Nothing is written when a check fails.
     *
     * @param values one value per element
     * @throws com.quorbit.externalcall.VexelException "Array is NULL", or "Array length
     *         does not match the table's size", or "Argument is NULL" for a null element
     */
    public native void assignAll(Algebraic[] values);
}
