package com.quorbit.ambrix;

/** A rectangular table of arbitrary kernel values (data type {@code anything}). */
public class AlgebraicRTable extends RTable {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    AlgebraicRTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index one index per dimension
     * @param value the value
     */
    public native void assign(int[] index, Algebraic value);

    /**
     * Returns one element.
     *
     * @param index one index per dimension
     * @return the element
     */
    public native Algebraic select(int[] index);
}
