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

    /**
     * An error of the kernel.
     *
     * @param message the kernel's message
     * @param offset  the offset the kernel gave with it; a negative one means none
     */
    public KernelErrorException(String message, int offset) {
        super(message);
        this.offset = Math.max(offset, -1);
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
}
