package com.quorbit.ambrix;

import java.util.Iterator;

/**
 * A kernel expression sequence, such as {@code 1, 2, 3}; the empty one is
 * {@code NULL}. Elements are numbered from 1.
 */
public class Expseq extends Algebraic implements Iterable<Algebraic> {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    Expseq(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Sets one element.
     *
     * @param index the element number, from 1
     * @param value the value
     */
    public native void assign(int index, Algebraic value);

    /**
     * Returns one element.
     *
     * @param index the element number, from 1
     * @return the element
     */
    public native Algebraic select(int index);

    /**
     * Returns the number of elements.
     *
     * @return the length
     */
    public native int length();

    /**
     * Returns every element in one call, in order.
     *
     * @return a new array of {@link #length()} elements
     */
    public native Algebraic[] toArray();

    /**
     * Iterates over the elements in order, reading each one with
     * {@link #select} as the iteration reaches it; the length is read when
     * this method is called. The iterator does not remove.
     *
     * @return an iterator over the elements
     */
    @Override
    public Iterator<Algebraic> iterator() {
        return new ElementIterator(length(), this::select);
    }
}
