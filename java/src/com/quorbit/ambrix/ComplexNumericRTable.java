package com.quorbit.ambrix;

/** A rectangular table of kernel complex numbers (data type {@code complex(sfloat)}). */
public class ComplexNumericRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    ComplexNumericRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value, a complex or a real number
     */
    public native void assign(int[] index, Algebraic value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element, as one complex value
     */
    public native Algebraic select(int[] index);

    /**
     * Makes a table of the real parts of all elements.
     *
     * @return the new table
     */
    public native RTable copyReal();

    /**
     * Makes a table of the imaginary parts of all elements.
     *
     * @return the new table
     */
    public native RTable copyImaginary();

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
