package com.quorbit.ambrix;

/** A kernel string, such as {@code "abc"}. */
public class VString extends Algebraic {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    VString(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Returns the text, without quotes; each byte becomes one character.
     *
     * @return the text
     */
    public native String stringValue();
}
