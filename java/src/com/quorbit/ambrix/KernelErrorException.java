package com.quorbit.ambrix;

import com.quorbit.externalcall.VexelException;

/**
 * An error the kernel reported, as its default callbacks and a pool's
 * workers throw it: the kernel's message, and for a parse error the offset
 * into the statement where parsing failed, so that a front end can show the
 * place.
 */
public class KernelErrorException extends VexelException {
    private static final long serialVersionUID = 1L;

    /** The offset into the statement, -1 when the error has none. */
    private final int offset;
    /** What the failed call printed before the error, where it was not shown as it came. */
    private final java.util.List<String> output;

    /**
     * An error of the kernel.
     *
     * @param message the kernel's message
     * @param offset  the offset the kernel gave with it; a negative one means none
     */
    public KernelErrorException(String message, int offset) {
        this(message, offset, java.util.List.of());
    }

    /**
     * An error of the kernel, after the lines the failed call printed.
     *
     * @param message the kernel's message
     * @param offset  the offset the kernel gave with it; a negative one means none
     * @param output  the lines the call printed before the error, which were not shown yet
     */
    public KernelErrorException(String message, int offset, java.util.List<String> output) {
        super(message);
        this.offset = Math.max(offset, -1);
        this.output = java.util.List.copyOf(output);
    }

    /**
     * Where in the statement the error is.
     *
     * @return for a parse error, the offset in the statement where parsing
     *         failed; otherwise -1
     */
    public int offset() {
        return offset;
    }

    /**
     * The lines the failed call printed before the error, where nobody saw
     * them yet: those a pool's worker collected. Callbacks that show text as
     * it comes have shown them already, and give none here.
     *
     * @return the lines, in order; none when they were shown
     */
    public java.util.List<String> output() {
        return output;
    }
}
