package com.quorbit.ambrix;

/**
 * Receives everything the kernel reports to its embedder: output text, error
 * and status reports, requests for an input line, output redirection, stream
 * calls, interrupt queries and general string calls.
 *
 * <p>The kernel calls these methods on the thread that is inside a kernel call
 * (for example inside {@link Engine#evaluate}), while that thread holds the
 * engine's lock. An implementation must therefore not call back into the
 * engine or any of its values. The first argument of every method is the data
 * object given to the {@link Engine} constructor.
 *
 * <p>An exception thrown by any method except {@link #errorCallBack} becomes a
 * kernel error (see {@link com.quorbit.externalcall.VexelException}). An
 * exception thrown by {@code errorCallBack} is not handed back to the kernel:
 * it reaches the Java caller of the kernel call that failed.
 */
public interface EngineCallBacks {
    /** Tag of ordinary output, such as the value of a statement ended by {@code ;}. */
    int VEXEL_TEXT_OUTPUT = 3;
    /** Tag of diagnostic text. */
    int VEXEL_TEXT_DIAG = 1;
    /** Tag of miscellaneous text, such as the start-up banner. */
    int VEXEL_TEXT_MISC = 2;
    /** Tag of help text. */
    int VEXEL_TEXT_HELP = 9;
    /** Tag of text written when the kernel quits. */
    int VEXEL_TEXT_QUIT = 4;
    /** Tag of warnings. */
    int VEXEL_TEXT_WARNING = 5;
    /** Tag of status text. */
    int VEXEL_TEXT_STATUS = 7;
    /** Tag of debugger output. */
    int VEXEL_TEXT_DEBUG = 10;

    /**
     * Receives a piece of text output.
     *
     * @param data   the engine's data object
     * @param tag    the kind of text, one of the {@code VEXEL_TEXT_*} constants
     * @param output the text
     */
    void textCallBack(Object data, int tag, String output);

    /**
     * Receives an error report.
     *
     * @param data    the engine's data object
     * @param offset  for a parse error, the offset in the statement where
     *                parsing failed; otherwise -1
     * @param message the error text
     */
    void errorCallBack(Object data, int offset, String message);

    /**
     * Receives a status report.
     *
     * @param data           the engine's data object
     * @param kilobytesUsed  memory in use, in kilobytes
     * @param kilobytesAlloc memory allocated, in kilobytes
     * @param cpuTime        processor time used, in seconds
     */
    void statusCallBack(Object data, long kilobytesUsed, long kilobytesAlloc, double cpuTime);

    /**
     * Supplies a line of input, for example to the kernel's {@code readline()}.
     *
     * @param data  the engine's data object
     * @param debug true when the kernel's debugger asks
     * @return the line, without its line terminator; never null
     */
    String readLineCallBack(Object data, boolean debug);

    /**
     * Asks to send further output to a file, or back to the terminal.
     *
     * @param data   the engine's data object
     * @param name   the file name, or null for the terminal
     * @param append true to append to the file, false to replace it
     * @return true when the redirection was made
     */
    boolean redirectCallBack(Object data, String name, boolean append);

    /**
     * Answers the kernel's general string call ({@code callback(s)}).
     *
     * @param data   the engine's data object
     * @param output the text the kernel sends
     * @return the answer; never null
     */
    String callBackCallBack(Object data, String output);

    /**
     * Asked regularly while the kernel computes: should it stop?
     *
     * @param data the engine's data object
     * @return true to have the kernel raise "computation interrupted"
     */
    boolean queryInterrupt(Object data);

    /**
     * Answers a call of a named stream ({@code streamcall(name, ...)}).
     *
     * @param data the engine's data object
     * @param name the stream's name
     * @param args the arguments, or null when there are none
     * @return the answer
     */
    String streamCallBack(Object data, String name, String[] args);
}
