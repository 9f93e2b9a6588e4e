package com.quorbit.ambrix;

/** A rectangular table of Java {@code float} values (data type {@code float[4]}). */
public class FloatRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    FloatRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value
     */
    public native void assign(int[] index, float value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element
     */
    public native float select(int[] index);
}
