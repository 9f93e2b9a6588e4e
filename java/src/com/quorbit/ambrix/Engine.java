package com.quorbit.ambrix;

import com.quorbit.externalcall.VexelException;

/**
 * The running Vexel kernel.
 *
 * <p>A process can start one engine, once: after {@link #stop()}, or after a
 * start that failed, no other can be made. The engine evaluates statements of
 * the kernel's language, builds values directly, and gives help. Everything
 * the kernel prints or asks for goes through the {@link EngineCallBacks}
 * object given to the constructor.
 *
 * <p>Any thread may use the engine and its values; kernel calls are
 * serialised. Values ({@link Algebraic} and its subclasses) keep their kernel
 * value alive for as long as Java can reach them, until {@link #restart()}
 * discards them all.
 *
 * <pre>{@code
 * try (Engine engine = new Engine(new String[] {"-q"}, new EngineCallBacksDefault(), null)) {
 *     Algebraic a = engine.evaluate("2^100:");
 *     System.out.println(a);        // 1267650600228229401496703205376
 * }
 * }</pre>
 */
public class Engine implements AutoCloseable {
    static {
        System.loadLibrary("ambrix");
    }

    /** Help section selector: every section. */
    public static final int VEXEL_HELP_ALL = 0;
    /** Help section selector: how to call it. */
    public static final int VEXEL_HELP_USAGE = 1;
    /** Help section selector: what it does. */
    public static final int VEXEL_HELP_DESCRIPTION = 2;
    /** Help section selector: examples. */
    public static final int VEXEL_HELP_EXAMPLES = 3;
    /** Help section selector: related topics. */
    public static final int VEXEL_HELP_SEEALSO = 4;

    /** The native engine record; 0 once stopped. Read and written by the native library. */
    long kernelID;

    /**
     * Starts the kernel.
     *
     * @param args      start options for the kernel (for example {@code "-q"}
     *                  for no banner); other arguments are kept for the
     *                  kernel's {@code kernelargs()}
     * @param callBacks receives the kernel's output and requests; the banner
     *                  already arrives through it during the constructor
     * @param data      passed back unchanged as the first argument of every callback; may be null
     * @throws VexelException if {@code callBacks} is null, an engine was already
     *                        created in this process, or the kernel does not start
     */
    public Engine(String[] args, EngineCallBacks callBacks, Object data) {
        if (callBacks == null) {
            throw new VexelException("CallBacks is NULL");
        }
        kernelID = getKernel(args == null ? new String[0] : args, callBacks, data);
    }

    private native long getKernel(String[] args, EngineCallBacks callBacks, Object data);

    /**
     * Parses and evaluates one or more statements of the kernel's language.
     * A statement ended by {@code ;} prints its value through the text
     * callback, one ended by {@code :} does not.
     *
     * @param statement the statement text
     * @return the value of the last statement, or null when it has none (an
     *         assignment, for example) or when the kernel reported an error
     *         without the error callback throwing
     */
    public native Algebraic evaluate(String statement);

    /**
     * Restarts the kernel: every kernel value is discarded and every name
     * unassigned. Values obtained before are disposed and throw
     * {@link VexelException} when used.
     */
    public native void restart();

    /** Stops the kernel. The engine cannot be used afterwards, nor can another be started. */
    public native void stop();

    /**
     * Stops the kernel, as {@link #stop()}, unless it is stopped already: a
     * second {@code close()} does nothing.
     */
    @Override
    public synchronized void close() {
        if (kernelID != 0) {
            stop();
        }
    }

    /**
     * Writes the kernel's help on a topic to a {@link HelpCallBacks} object.
     *
     * @param topic   the topic, for example a builtin's name
     * @param section one of the {@code VEXEL_HELP_*} constants
     * @param hcb     receives the text and the attribute changes
     * @param width   the width to wrap the text to; 0 or less for no wrapping
     * @param data    passed back as the first argument of the {@code hcb} methods
     * @throws VexelException if the kernel has no help on the topic, or the
     *                        section is unknown
     */
    public native void getHelp(String topic, int section, HelpCallBacks hcb, int width, Object data);

    /**
     * Makes a new, empty table.
     *
     * @return the table
     */
    public native Table newTable();

    /**
     * Makes an expression sequence of {@code size} elements, to be filled with
     * {@link Expseq#assign}.
     *
     * @param size the number of elements
     * @return the sequence
     */
    public native Expseq newExpseq(int size);

    /**
     * Makes a list of {@code size} elements, to be filled with {@link List#assign}.
     *
     * @param size the number of elements
     * @return the list
     */
    public native List newList(int size);

    /**
     * Makes a list holding the given values, in one call.
     *
     * @param elements the values, in order
     * @return the list
     * @throws VexelException "Array is NULL", or "Argument is NULL" for a null element
     */
    public List newList(Algebraic[] elements) {
        return newListOf(elements);
    }

    private native List newListOf(Algebraic[] elements);

    /**
     * Makes a kernel integer.
     *
     * @param value the value
     * @return the integer
     */
    public native Numeric newNumeric(long value);

    /**
     * Makes a kernel float.
     *
     * @param value the value
     * @return the float
     */
    public native Numeric newNumeric(double value);

    /**
     * Makes a name.
     *
     * @param name   the name's text
     * @param global true for the one global name of that text (as a name typed
     *               in a statement), false for a new local name distinct from
     *               every other
     * @return the name
     */
    public native Name newName(String name, boolean global);

    /**
     * Makes a kernel string.
     *
     * @param text the text; each character is stored as one byte (its low 8 bits)
     * @return the string
     */
    public native VString newVString(String text);
}
