package com.quorbit.ambrix;

import com.quorbit.externalcall.VexelException;
import java.math.BigInteger;

/**
 * A kernel number: an integer of any size, a rational or a float.
 *
 * <p>The {@code is...} methods tell which Java type can hold it exactly; the
 * {@code ...Value} methods convert it, and report an error when an integer
 * does not fit the width asked for; {@link #bigIntegerValue()} reads an
 * integer of any size.
 */
public class Numeric extends Algebraic {
    /** Wraps a kernel value; called by the native library (signature "(JJ)V"). */
    Numeric(long dag, long kernelID) {
        super(dag, kernelID);
    }

    /**
     * Tests for an integer.
     *
     * @return true for an integer of any size
     */
    public native boolean isInteger();

    /**
     * Tests for an integer that fits a {@code byte}.
     *
     * @return true if it fits 8 bits
     */
    public native boolean isByte();

    /**
     * Tests for an integer that fits a {@code short}.
     *
     * @return true if it fits 16 bits
     */
    public native boolean isShort();

    /**
     * Tests for an integer that fits an {@code int}.
     *
     * @return true if it fits 32 bits
     */
    public native boolean isInt();

    /**
     * Tests for an integer that fits a {@code long}.
     *
     * @return true if it fits 64 bits
     */
    public native boolean isLong();

    /**
     * Tests for the kernel's unnamed zero, the integer 0.
     *
     * @return true for the integer 0
     */
    public native boolean isUnnamedZero();

    /**
     * Converts to a {@code byte}.
     *
     * @return the value
     */
    public native byte byteValue();

    /**
     * Converts to a {@code short}.
     *
     * @return the value
     */
    public native short shortValue();

    /**
     * Converts to an {@code int}.
     *
     * @return the value
     */
    public native int intValue();

    /**
     * Converts to a {@code long}.
     *
     * @return the value
     */
    public native long longValue();

    /**
     * Converts to a {@code float}.
     *
     * @return the value, rounded if need be
     */
    public native float floatValue();

    /**
     * Converts to a {@code double}.
     *
     * @return the value, rounded if need be
     */
    public native double doubleValue();

    /**
     * Converts an integer of any size, exactly.
     *
     * @return the value
     * @throws VexelException "not an integer: ..." for a rational or a float
     */
    public BigInteger bigIntegerValue() {
        if (!isInteger()) {
            throw new VexelException("not an integer: " + this);
        }
        // The kernel prints an integer as its decimal digits.
        return isLong() ? BigInteger.valueOf(longValue()) : new BigInteger(toString());
    }
}
