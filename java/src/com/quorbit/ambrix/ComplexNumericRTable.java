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
}
