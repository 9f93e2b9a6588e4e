package com.quorbit.ambrix;

import com.quorbit.externalcall.VexelException;
import java.time.Duration;

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
 * discards them all. Another thread may end a long evaluation with
 * {@link #interrupt()}, and {@link #evaluate(String, Duration)} gives one a
 * time limit.
 *
 * <pre>{@code
 * try (Engine engine = new Engine(new String[] {"-q"}, new EngineCallBacksDefault(), null)) {
 *     Algebraic a = engine.evaluate("2^100:");
 *     System.out.println(a);        // 1267650600228229401496703205376
 * }
 * }</pre>
 *
 * <p>The native libraries load with the class: by default the copies that
 * {@code ambrix.jar} carries, so that {@code java -cp ambrix.jar:. App} needs
 * no library path. The system property {@code ambrix.library.path} names a
 * folder holding {@code libambrix.so} (and, optionally, the kernel
 * {@code libvexelc.so}) to use instead; {@code ambrix.kernel}, or the
 * environment variable {@code AMBRIX_KERNEL}, names a kernel library file to
 * use instead of the stand-in kernel. A jar without native libraries falls
 * back to {@code java.library.path}. A failure to load throws
 * {@link UnsatisfiedLinkError} naming every path tried.
 */
public class Engine implements AutoCloseable {
    static {
        NativeLibraries.load();
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
     * Evaluates as {@link #evaluate(String)} does, within a time limit. Past
     * the limit the evaluation is interrupted (see {@link #interrupt()}), and
     * this method throws, whatever the error callback did with the kernel's
     * interrupt error. The limit counts from the moment this evaluation
     * holds the kernel lock; until it ends, other threads' kernel calls wait,
     * so the interrupt can only reach this evaluation.
     *
     * <p>The kernel sees the interrupt at its next interrupt query (once per
     * loop iteration); a computation that asks none runs to its end, and the
     * call still throws. A zero limit has passed already: nothing is
     * evaluated.
     *
     * @param statement the statement text
     * @param timeout   the time limit, zero or more
     * @return the value of the last statement, as {@link #evaluate(String)}
     * @throws VexelException "time limit of ... s passed" when the limit
     *                        passed before the evaluation ended (with the
     *                        evaluation's own exception, if any, as its
     *                        cause); "Timeout is NULL" or "Timeout is
     *                        negative" for a bad limit; otherwise as
     *                        {@link #evaluate(String)}
     */
    public Algebraic evaluate(String statement, Duration timeout) {
        if (timeout == null) {
            throw new VexelException("Timeout is NULL");
        }
        if (timeout.isNegative()) {
            throw new VexelException("Timeout is negative");
        }
        if (statement == null) {
            throw new VexelException("Statement is NULL");
        }
        synchronized (kernelLock()) {
            TimeLimit limit = TimeLimit.start(this, timeout);
            Algebraic result = null;
            RuntimeException failure = null;
            boolean passed;
            try {
                if (!limit.passed()) {
                    result = evaluate(statement);
                }
            } catch (RuntimeException e) {
                failure = e;
            } finally {
                passed = limit.end();
            }
            if (passed) {
                throw limit.error(failure);
            }
            if (failure != null) {
                throw failure;
            }
            return result;
        }
    }

    /** The kernel lock's monitor (also the live store). */
    private native Object kernelLock();

    /**
     * Ends the kernel call running at this moment, from any thread, without
     * waiting for the kernel lock: typically an {@link #evaluate} on another
     * thread. The kernel notices at its next interrupt query (once per loop
     * iteration) and reports its interrupt error, "computation interrupted",
     * as when {@link EngineCallBacks#queryInterrupt} answers true: through
     * {@link EngineCallBacks#errorCallBack}, so that with
     * {@link EngineCallBacksDefault} the interrupted call throws a
     * {@link VexelException}. The request is consulted before the callbacks
     * object is asked.
     *
     * <p>A request made while no kernel call runs is dropped; it never
     * reaches a later call.
     *
     * @throws VexelException "Engine is null, it may have been stopped." once
     *                        the engine is stopped
     */
    public native void interrupt();

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
     * The kernel's help on a topic as plain text, its attributes (bold
     * headings and the like) dropped: for front ends that show text only.
     *
     * @param topic   the topic, such as a procedure's name
     * @param section one of the {@code VEXEL_HELP_*} constants
     * @param width   the width to wrap to (none for 0 or less)
     * @return the help text
     * @throws VexelException as {@link #getHelp}
     */
    public String getHelpText(String topic, int section, int width) {
        StringBuilder text = new StringBuilder();
        getHelp(topic, section, new HelpCallBacks() {
            @Override
            public boolean writeChar(Object data, int c) {
                text.append((char) c);
                return false;
            }

            @Override
            public boolean writeAttrib(Object data, int attrib) {
                return false;
            }
        }, width, null);
        return text.toString();
    }

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
     * Converts a Java value to a kernel value, recursively.
     *
     * <table>
     * <caption>Java values and the kernel values they become</caption>
     * <tr><th>Java</th><th>kernel</th></tr>
     * <tr><td>{@code null}</td><td>{@code NULL}</td></tr>
     * <tr><td>an {@link Algebraic} of this engine</td><td>itself</td></tr>
     * <tr><td>{@code Boolean}</td><td>{@code true}, {@code false}</td></tr>
     * <tr><td>{@code Byte}, {@code Short}, {@code Integer}, {@code Long}, {@code BigInteger}</td>
     *     <td>an integer, exactly</td></tr>
     * <tr><td>{@code Float}, {@code Double}</td><td>a float</td></tr>
     * <tr><td>{@code String}, {@code Character}</td><td>a string (each character stored as one byte)</td></tr>
     * <tr><td>{@code double[]}, {@code float[]}, {@code long[]}, {@code int[]}, {@code short[]},
     *     {@code byte[]}</td><td>a table {@code 1..n} of data type {@code float[8]}, {@code float[4]},
     *     {@code integer[8]}, {@code integer[4]}, {@code integer[2]}, {@code integer[1]}</td></tr>
     * <tr><td>a rectangular {@code double[][]} (and so on)</td><td>a table {@code 1..rows, 1..cols};
     *     element {@code [i][j]} at index {@code (i+1, j+1)}</td></tr>
     * <tr><td>{@code Object[]}, {@code java.util.List}</td><td>a list</td></tr>
     * <tr><td>{@code java.util.Map}</td><td>a table</td></tr>
     * </table>
     *
     * <p>Arrays of primitives and lists of numbers of one kind cross in one
     * call. {@link Algebraic#toJava()} is the inverse.
     *
     * @param value the value
     * @return the kernel value
     * @throws VexelException "Cannot convert &lt;class&gt; to a kernel value" for
     *         any other value or a ragged array, "Cannot convert a collection
     *         that contains itself", or "this Algebraic has been disposed"
     */
    public Algebraic toKernel(Object value) {
        return Conversions.toKernel(this, value);
    }

    /**
     * Calls a kernel procedure with Java arguments and converts its result.
     * The arguments are converted by {@link #toKernel}; they become values,
     * never statement text. The procedure is the value of the global name
     * {@code procedure}.
     *
     * <pre>{@code
     * engine.evaluate("area := proc(w, h) w * h end proc:");
     * Object a = engine.call("area", 3, 4);          // Long 12
     * Object b = engine.call("area", 1.5, 2);        // Double 3.0
     * }</pre>
     *
     * @param procedure the name of the procedure
     * @param args      the arguments, each converted by {@link #toKernel}
     * @return the result, converted by {@link Algebraic#toJava()}; null when
     *         the procedure returns {@code NULL} or nothing
     * @throws VexelException "Procedure name is NULL", "&lt;name&gt; is not a
     *         procedure", or what converting an argument or running the
     *         procedure reports
     */
    public Object call(String procedure, Object... args) {
        return Conversions.call(this, procedure, args);
    }

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
