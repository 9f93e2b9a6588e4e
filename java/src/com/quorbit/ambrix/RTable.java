package com.quorbit.ambrix;

/**
 * A rectangular table: an array of one or more dimensions, each with its own
 * index range, whose elements share one data type. The typed subclasses read
 * and write elements; a table of a data type without a class of its own is a
 * plain {@code RTable}.
 *
 * <p>Dimensions are numbered from 1. An element index is an {@code int[]} with
 * one entry per dimension, each within that dimension's bounds.
 */
public class RTable extends Algebraic {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    /**
     * The table's number of dimensions once element access has asked the
     * kernel for it (0 before): it never changes for a table. Read and
     * written by the native library.
     */
    int dimensionCount;

    RTable(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Returns the number of elements.
     *
     * @return the element count
     */
    public native int numElements();

    /**
     * Returns the number of dimensions.
     *
     * @return the dimension count
     */
    public native int dimensions();

    /**
     * Returns the lowest index of a dimension.
     *
     * @param dim the dimension, from 1
     * @return the lower bound
     */
    public native int lowerBound(int dim);

    /**
     * Returns the highest index of a dimension.
     *
     * @param dim the dimension, from 1
     * @return the upper bound
     */
    public native int upperBound(int dim);

    /**
     * Copies the table, with the same data type and bounds.
     *
     * @return the copy, of the same class as this table
     */
    public native RTable copy();
}
