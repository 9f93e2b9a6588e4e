package com.quorbit.ambrix;

/** A kernel table: a map from kernel values to kernel values. */
public class Table extends Algebraic {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    Table(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Stores an entry, replacing any entry of the same key.
     *
     * @param key   the key
     * @param value the value
     */
    public native void assign(Algebraic key, Algebraic value);

    /**
     * Returns the value stored under a key.
     *
     * @param key the key
     * @return the value
     * @throws com.quorbit.externalcall.VexelException "No such key in table" if there is none
     */
    public native Algebraic select(Algebraic key);

    /**
     * Removes the entry of a key, if any.
     *
     * @param key the key
     */
    public native void remove(Algebraic key);

    /**
     * Tests for an entry.
     *
     * @param key the key
     * @return true if the table has an entry for the key
     */
    public native boolean has(Algebraic key);
}
