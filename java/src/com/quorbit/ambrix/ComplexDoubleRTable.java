package com.quorbit.ambrix;

/** A rectangular table of complex numbers held as pairs of doubles (data type {@code complex[8]}). */
public class ComplexDoubleRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    ComplexDoubleRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param re    the real part
     * @param im    the imaginary part
     */
    public native void assign(int[] index, double re, double im);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return a new array of two: the real part, then the imaginary part
     */
    public native double[] select(int[] index);

    /**
     * Returns the real part of one element.
     *
     * @param index one index per dimension
     * @return the real part
     */
    public native double selectReal(int[] index);

    /**
     * Returns the imaginary part of one element.
     *
     * @param index one index per dimension
     * @return the imaginary part
     */
    public native double selectImaginary(int[] index);

    /**
     * Makes a table of the real parts of all elements (imaginary parts 0).
     *
     * @return the new table
     */
    public native ComplexDoubleRTable copyReal();

    /**
     * Makes a table of the imaginary parts of all elements (imaginary parts 0).
     *
     * @return the new table
     */
    public native ComplexDoubleRTable copyImaginary();

    /**
     * Returns every element in one call, in column-major order: the first
     * index varies fastest, whatever the table's bounds.
     *
     * @return a new array of twice {@link #numElements()} values: each element's
     *         real part, then its imaginary part
     * @throws com.quorbit.externalcall.VexelException "Table too large for a Java array"
     *         when the table has more than {@code Integer.MAX_VALUE} elements
     */
    public native double[] toArray();

    /**
     * Sets every element in one call, from an array in column-major order
     * (the order of {@link #toArray()}). Nothing is written when a check fails.
     *
     * @param values two values per element, the real part first
     * @throws com.quorbit.externalcall.VexelException "Array is NULL", or "Array length
     *         does not match the table's size"
     */
    public native void assignAll(double[] values);
}
