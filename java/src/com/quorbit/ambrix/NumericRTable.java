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
}
