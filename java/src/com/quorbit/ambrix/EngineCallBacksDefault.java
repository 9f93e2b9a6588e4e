package com.quorbit.ambrix;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.UncheckedIOException;
import java.nio.charset.Charset;
import java.util.Locale;

/**
 * Callbacks for a simple console program.
 *
 * <p>Text goes to {@code System.out}, one line per piece; a kernel error
 * becomes a {@link KernelErrorException} carrying the kernel's message and
 * offset, thrown from the Java call that caused it; input lines come from
 * {@code System.in}. No redirection, no interrupts, no streams. Extend it to
 * change single methods.
 */
public class EngineCallBacksDefault implements EngineCallBacks {
    private BufferedReader in;

    /** Makes the default callbacks. */
    public EngineCallBacksDefault() {
    }

    /**
     * A status report as a front end shows it on one line:
     * {@code memory used=...K, alloc=...K, time=...s}.
     *
     * @param kilobytesUsed  the memory in use, in kilobytes
     * @param kilobytesAlloc the memory allocated, in kilobytes
     * @param cpuTime        the CPU time so far, in seconds
     * @return the line, without its end
     */
    protected static String statusLine(long kilobytesUsed, long kilobytesAlloc, double cpuTime) {
        return String.format(Locale.ROOT, "memory used=%dK, alloc=%dK, time=%.2fs", kilobytesUsed, kilobytesAlloc,
                cpuTime);
    }

    /**
     * Kernel text as a front end shows it: a warning ({@code VEXEL_TEXT_WARNING})
     * that does not say so itself starts with "Warning, "; other text is
     * shown as it is.
     *
     * @param tag    the kind of text, one of the {@code VEXEL_TEXT_*} constants
     * @param output the text as the kernel sent it
     * @return the text to show
     */
    protected static String shownText(int tag, String output) {
        return tag == VEXEL_TEXT_WARNING && !output.startsWith("Warning") ? "Warning, " + output : output;
    }

    /** Prints the text as one line on {@code System.out}. */
    @Override
    public void textCallBack(Object data, int tag, String output) {
        System.out.println(output);
    }

    /**
     * Throws a {@link KernelErrorException} with the kernel's message and
     * offset, so that the kernel call that failed throws it in Java.
     */
    @Override
    public void errorCallBack(Object data, int offset, String message) {
        throw new KernelErrorException(message, offset);
    }

    /** Prints a one-line summary on {@code System.out}. */
    @Override
    public void statusCallBack(Object data, long kilobytesUsed, long kilobytesAlloc, double cpuTime) {
        System.out.println(statusLine(kilobytesUsed, kilobytesAlloc, cpuTime));
    }

    /** Reads a line from {@code System.in}; at the end of input the empty line. */
    @Override
    public String readLineCallBack(Object data, boolean debug) {
        try {
            synchronized (this) {
                if (in == null) {
                    in = new BufferedReader(new InputStreamReader(System.in, Charset.defaultCharset()));
                }
            }
            String line = in.readLine();
            return line == null ? "" : line;
        } catch (IOException e) {
            throw new UncheckedIOException(e);
        }
    }

    /** Refuses every redirection. */
    @Override
    public boolean redirectCallBack(Object data, String name, boolean append) {
        return false;
    }

    /** Answers with the text it was given. */
    @Override
    public String callBackCallBack(Object data, String output) {
        return output;
    }

    /** Never interrupts. */
    @Override
    public boolean queryInterrupt(Object data) {
        return false;
    }

    /** Knows no streams: answers null. */
    @Override
    public String streamCallBack(Object data, String name, String[] args) {
        return null;
    }
}
