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
}
