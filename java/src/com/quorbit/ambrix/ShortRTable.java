package com.quorbit.ambrix;

/** A rectangular table of Java {@code short} values (data type {@code integer[2]}). */
public class ShortRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    ShortRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value
     */
    public native void assign(int[] index, short value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element
     */
    public native short select(int[] index);
}
