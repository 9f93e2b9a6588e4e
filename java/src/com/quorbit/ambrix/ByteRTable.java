package com.quorbit.ambrix;

/** A rectangular table of Java {@code byte} values (data type {@code integer[1]}). */
public class ByteRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    ByteRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value
     */
    public native void assign(int[] index, byte value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element
     */
    public native byte select(int[] index);
}
