package com.quorbit.ambrix;

/** A rectangular table of Java {@code int} values (data type {@code integer[4]}). */
public class IntRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    IntRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value
     */
    public native void assign(int[] index, int value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element
     */
    public native int select(int[] index);
}
