package com.quorbit.ambrix.pool;

import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.EngineCallBacksDefault;
import com.quorbit.ambrix.KernelErrorException;
import com.quorbit.externalcall.VexelException;
import java.util.ArrayList;

/**
 * A worker's kernel and what it does for the pool's tasks: it starts the
 * kernel, evaluates, calls, gives help and resets, each answered as a frame
 * with the value, the text, what the kernel printed and the plots. A
 * task's kernel call can be interrupted from the worker's second thread.
 */
final class WorkerKernel {
    private volatile Engine engine;
    private java.util.List<String> initialize = java.util.List.of();
    private final Object interruptLock = new Object();
    /** The task whose kernel call runs now, 0 for none. Guarded by interruptLock. */
    private long running;
    private final Capture capture = new Capture();

    /** Collects what the kernel prints during a task; errors become exceptions, with their offsets. */
    private static final class Capture extends EngineCallBacksDefault {
        final java.util.List<String> lines = new ArrayList<>();
        /** The plots of the task, SVG documents from the kernel's stream "plot". */
        final java.util.List<String> plots = new ArrayList<>();

        @Override
        public String streamCallBack(Object data, String name, String[] args) {
            if (name.equals("plot") && args != null && args.length == 1) {
                plots.add(args[0]);
                return "";
            }
            return super.streamCallBack(data, name, args);
        }

        @Override
        public void textCallBack(Object data, int tag, String output) {
            String text = shownText(tag, output.endsWith("\n") ? output.substring(0, output.length() - 1) : output);
            lines.addAll(java.util.Arrays.asList(text.split("\n", -1)));
        }

        @Override
        public String readLineCallBack(Object data, boolean debug) {
            throw new VexelException("a worker has no input to read");
        }
    }

    /** Interrupts the task's kernel call, if it runs now. */
    void interrupt(long id) {
        synchronized (interruptLock) {
            if (running == id) {
                engine.interrupt();
            }
        }
    }

    /** A task's kernel call, which an interrupt for the task can end. */
    private <T> T interruptible(long id, java.util.function.Supplier<T> call) {
        synchronized (interruptLock) {
            running = id;
        }
        try {
            return call.get();
        } finally {
            synchronized (interruptLock) {
                running = 0;
            }
        }
    }

    /** What one frame asks for, decoded before it runs. */
    interface Task {
        Wire.Writer run(long id);
    }

    /** Decodes a task's frame: anything malformed ends the worker. */
    Task task(Wire.Frame f, Wire.Reader values) throws Wire.WireException {
        Task task;
        switch (f.kind()) {
            case Wire.INIT -> {
                java.util.List<String> kernelArgs = values.strings();
                java.util.List<String> init = values.strings();
                task = id -> start(id, kernelArgs, init);
            }
            case Wire.EVAL -> {
                String statement = values.string();
                task = id -> evaluate(id, statement);
            }
            case Wire.CALL -> {
                String name = values.string();
                Object[] args = values.arguments();
                task = id -> call(id, name, args);
            }
            case Wire.HELP -> {
                String topic = values.string();
                int section = (int) values.number();
                long width = values.number();
                task = id -> help(id, topic, section, (int) Math.max(0, Math.min(width, 1000)));
            }
            default -> task = this::reset;
        }
        values.end();
        return task;
    }

    /** Runs a task; its answer. */
    Wire.Writer run(long id, Task task) {
        Wire.Writer reply;
        capture.lines.clear();
        capture.plots.clear();
        try {
            reply = task.run(id);
        } catch (RuntimeException e) {
            reply = error(id, String.valueOf(e.getMessage()), e instanceof KernelErrorException k ? k.offset() : -1);
        } catch (OutOfMemoryError e) {
            // A result too large for the worker's heap: the allocation that failed is dropped, and the
            // worker goes on.
            reply = error(id, "the worker's Java heap cannot hold the result (" + e.getMessage()
                    + "); give workers more with javaOptions", -1);
        }
        return reply;
    }

    /** A task's failure: the message, the lines printed before it, and the kernel's offset into the statement. */
    private Wire.Writer error(long id, String message, int offset) {
        return new Wire.Writer(Wire.ERROR, id).string(message).strings(capture.lines).number(offset);
    }

    private Wire.Writer start(long id, java.util.List<String> kernelArgs, java.util.List<String> init) {
        engine = new Engine(kernelArgs.toArray(new String[0]), capture, null);
        initialize = init;
        runInitialize();
        return new Wire.Writer(Wire.READY, id);
    }

    private void runInitialize() {
        for (String statement : initialize) {
            engine.evaluate(statement);
        }
    }

    private Wire.Writer reset(long id) {
        engine.restart();
        runInitialize();
        return new Wire.Writer(Wire.DONE, id);
    }

    private Wire.Writer evaluate(long id, String statement) {
        long start = System.nanoTime();
        Algebraic result = interruptible(id, () -> engine.evaluate(statement));
        long elapsed = System.nanoTime() - start;
        java.util.List<String> lines = new ArrayList<>(capture.lines);
        String text = "";
        if (result != null && printsItsValue(statement)) {
            text = result.toString();
            // The kernel printed the value as the last of its output.
            if (!lines.isEmpty() && lines.get(lines.size() - 1).equals(text)) {
                lines.remove(lines.size() - 1);
            }
        }
        return answer(id, text, javaValue(result), lines, elapsed);
    }

    private Wire.Writer call(long id, String name, Object[] args) {
        long start = System.nanoTime();
        Object value = interruptible(id, () -> engine.call(name, args));
        long elapsed = System.nanoTime() - start;
        String text = value == null ? "" : String.valueOf(value);
        return answer(id, text, sendable(value) ? value : null, capture.lines, elapsed);
    }

    /** Help on a topic as plain text, its attributes dropped. */
    private Wire.Writer help(long id, String topic, int section, int width) {
        return answer(id, interruptible(id, () -> engine.getHelpText(topic, section, width)), null, capture.lines, 0);
    }

    /** A task's answer: its text, its value, the lines printed meanwhile, the time it took and its plots. */
    private Wire.Writer answer(long id, String text, Object value, java.util.List<String> lines, long elapsed) {
        return new Wire.Writer(Wire.RESULT, id).string(text).value(value).strings(lines).number(elapsed)
                .strings(capture.plots);
    }

    /** True when the statement's last terminator is ";" (or there is none), as the kernel prints it. */
    static boolean printsItsValue(String statement) {
        String s = statement.strip();
        return !s.endsWith(":");
    }

    private static Object javaValue(Algebraic result) {
        if (result == null) {
            return null;
        }
        try {
            Object v = result.toJava();
            return sendable(v) ? v : null;
        } catch (VexelException e) {
            return null;
        }
    }

    /** True for a value that has a Java form other than a kernel value, all the way down. */
    private static boolean sendable(Object v) {
        if (v instanceof Algebraic) {
            return false;
        }
        if (v instanceof java.util.List<?> l) {
            return l.stream().allMatch(WorkerKernel::sendable);
        }
        if (v instanceof java.util.Map<?, ?> m) {
            return m.entrySet().stream().allMatch(e -> sendable(e.getKey()) && sendable(e.getValue()));
        }
        return true;
    }}
