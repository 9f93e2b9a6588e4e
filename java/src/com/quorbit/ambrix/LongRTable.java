package com.quorbit.ambrix;

/** A rectangular table of Java {@code long} values (data type {@code integer[8]}). */
public class LongRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    LongRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value
     */
    public native void assign(int[] index, long value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element
     */
    public native long select(int[] index);
}
