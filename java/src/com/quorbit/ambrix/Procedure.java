package com.quorbit.ambrix;

/** A kernel procedure, such as {@code proc(x) x^2 end proc} or {@code x -> x^2}. */
public class Procedure extends Algebraic {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    Procedure(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Calls the procedure.
     *
     * @param args the arguments as one sequence; null for none
     * @return the result, or null if it has no value
     */
    public native Algebraic execute(Expseq args);

    /**
     * Calls the procedure.
     *
     * @param args the arguments in order; null or empty for none
     * @return the result, or null if it has no value
     */
    public native Algebraic execute(Algebraic[] args);

    /**
     * Calls the procedure in hardware floating point.
     *
     * @param args the arguments in order; null or empty for none
     * @return the result
     */
    public native double executehf(double[] args);
}
