package com.quorbit.ambrix;

import com.quorbit.externalcall.VexelException;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.function.Function;

/**
 * Callbacks that record every call, with the thread it ran on, and answer
 * as a test sets them up. By default a kernel error throws a
 * VexelException, so it becomes an exception of the Java call.
 */
class RecordingCallBacks implements EngineCallBacks {
    /** One callback call: its method, arguments and thread. */
    record Call(String method, Object data, List<Object> args, Thread thread) {
        Object arg(int i) {
            return args.get(i);
        }
    }

    // The library hands Java the value of these fields, looked up by name on
    // this class, not the kernel's own tag numbers.
    static final int VEXEL_TEXT_OUTPUT = 103;
    static final int VEXEL_TEXT_DIAG = 101;
    static final int VEXEL_TEXT_MISC = 102;
    static final int VEXEL_TEXT_HELP = 109;
    static final int VEXEL_TEXT_QUIT = 104;
    static final int VEXEL_TEXT_WARNING = 105;
    static final int VEXEL_TEXT_STATUS = 107;
    static final int VEXEL_TEXT_DEBUG = 110;

    private final List<Call> calls = new ArrayList<>();

    volatile boolean throwOnError = true;
    volatile Function<Boolean, String> readLine = debug -> "";
    volatile boolean redirectAnswer = true;
    volatile Function<String[], String> stream = args -> "streamed";
    volatile Function<String, String> callBack = s -> "answer:" + s;
    volatile boolean interrupt;
    /** Thrown by the next call of any method but errorCallBack, then cleared. */
    volatile RuntimeException throwNext;

    private synchronized void record(String method, Object data, Object... args) {
        calls.add(new Call(method, data, Arrays.asList(args), Thread.currentThread()));
    }

    private void maybeThrow() {
        RuntimeException e = throwNext;
        if (e != null) {
            throwNext = null;
            throw e;
        }
    }

    synchronized List<Call> calls() {
        return new ArrayList<>(calls);
    }

    synchronized List<Call> calls(String method) {
        return calls.stream().filter(c -> c.method().equals(method)).toList();
    }

    synchronized Call last(String method) {
        List<Call> matching = calls(method);
        return matching.isEmpty() ? null : matching.get(matching.size() - 1);
    }

    /** Forgets what was recorded and restores the default answers. */
    synchronized void reset() {
        calls.clear();
        throwOnError = true;
        readLine = debug -> "";
        redirectAnswer = true;
        stream = args -> "streamed";
        callBack = s -> "answer:" + s;
        interrupt = false;
        throwNext = null;
    }

    @Override
    public void textCallBack(Object data, int tag, String output) {
        record("text", data, tag, output);
        maybeThrow();
    }

    @Override
    public void errorCallBack(Object data, int offset, String message) {
        record("error", data, offset, message);
        if (throwOnError) throw new VexelException(message);
    }

    @Override
    public void statusCallBack(Object data, long kilobytesUsed, long kilobytesAlloc, double cpuTime) {
        record("status", data, kilobytesUsed, kilobytesAlloc, cpuTime);
        maybeThrow();
    }

    @Override
    public String readLineCallBack(Object data, boolean debug) {
        record("readLine", data, debug);
        maybeThrow();
        return readLine.apply(debug);
    }

    @Override
    public boolean redirectCallBack(Object data, String name, boolean append) {
        record("redirect", data, name, append);
        maybeThrow();
        return redirectAnswer;
    }

    @Override
    public String callBackCallBack(Object data, String output) {
        record("callBack", data, output);
        maybeThrow();
        return callBack.apply(output);
    }

    @Override
    public boolean queryInterrupt(Object data) {
        maybeThrow();
        return interrupt;
    }

    @Override
    public String streamCallBack(Object data, String name, String[] args) {
        record("stream", data, name, args);
        maybeThrow();
        return stream.apply(args);
    }
}
