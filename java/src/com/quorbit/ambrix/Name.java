package com.quorbit.ambrix;

/** A kernel name (a symbol), such as {@code x}. */
public class Name extends Algebraic {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    Name(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Tests whether a value is assigned to the name.
     *
     * @return true once assigned
     */
    public native boolean isAssigned();

    /**
     * Assigns a value to the name, as {@code name := value} would.
     *
     * @param value the value
     */
    public native void assign(Algebraic value);
}
