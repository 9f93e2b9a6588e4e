package com.quorbit.ambrix;

/** A kernel complex number with a nonzero imaginary part, such as {@code 2+3*I}. */
public class ComplexNumeric extends Algebraic {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    ComplexNumeric(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Returns the real part.
     *
     * @return the real part, usually a {@link Numeric}
     */
    public native Algebraic realPart();

    /**
     * Returns the imaginary part.
     *
     * @return the imaginary part, usually a {@link Numeric}
     */
    public native Algebraic imaginaryPart();
}
