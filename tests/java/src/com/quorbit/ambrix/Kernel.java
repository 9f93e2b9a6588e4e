package com.quorbit.ambrix;

/** The one engine that the main suite shares, and helpers around it. */
public final class Kernel {
    static final RecordingCallBacks CALLBACKS = new RecordingCallBacks();
    static final Object DATA = "user-data";
    static final Engine ENGINE = new Engine(new String[] {"-q"}, CALLBACKS, DATA);

    private Kernel() {}

    public static Algebraic eval(String statement) {
        return ENGINE.evaluate(statement);
    }

    /** Evaluates and prints the result as the kernel does. */
    static String show(String statement) {
        return eval(statement).toString();
    }

    /** Runs a full kernel collection; values made since the last one survive it, so run it twice. */
    static void collect() {
        eval("gc():");
        eval("gc():");
    }
}
