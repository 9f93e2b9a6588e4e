package com.quorbit.ambrix;

/** A rectangular table of Java {@code double} values (data type {@code float[8]}). */
public class DoubleRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    DoubleRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value
     */
    public native void assign(int[] index, double value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element
     */
    public native double select(int[] index);
}
