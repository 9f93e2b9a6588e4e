package com.quorbit.externalcall;

import java.util.Arrays;

/**
 * The exception through which every failure of the kernel bridge reaches Java.
 *
 * <p>The native library throws it for bad arguments, stopped engines, disposed
 * values and, through {@link com.quorbit.ambrix.EngineCallBacksDefault}, for
 * errors the kernel reports. It also works the other way round: when a kernel
 * callback method throws a {@code VexelException}, its message becomes the
 * text of a kernel error. The message may then refer to the first two
 * arguments as {@code %1} and {@code %2}; arguments of type {@code Boolean},
 * {@code Character}, {@code Double}, {@code Float}, {@code Integer},
 * {@code Long} and {@code String} are handed to the kernel as values of the
 * matching kind. At most ten arguments are accepted.
 */
public class VexelException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    /** The message arguments; null when there are none. */
    private final transient Object[] args;

    /**
     * An exception with a plain message and no arguments.
     *
     * @param message the error text
     */
    public VexelException(String message) {
        super(message);
        this.args = null;
    }

    /**
     * An exception whose message refers to its arguments as {@code %1} and
     * {@code %2}.
     *
     * @param message the error text, a format for the kernel
     * @param args    the arguments, in order
     */
    public VexelException(String message, Object... args) {
        super(message);
        this.args = args == null ? null : args.clone();
    }

    /**
     * Returns the number of arguments.
     *
     * @return the argument count, 0 when there are none
     */
    public int getArgCount() {
        return args == null ? 0 : args.length;
    }

    /**
     * Returns one argument.
     *
     * @param i the index of the argument, from 0
     * @return the argument
     * @throws IndexOutOfBoundsException if {@code i} is not below {@link #getArgCount()}
     */
    public Object getArg(int i) {
        if (args == null) {
            throw new IndexOutOfBoundsException("no arguments");
        }
        return args[i];
    }

    @Override
    public String toString() {
        String s = super.toString();
        return args == null || args.length == 0 ? s : s + " " + Arrays.toString(args);
    }
}
