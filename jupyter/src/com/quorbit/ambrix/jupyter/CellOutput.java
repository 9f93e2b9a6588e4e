package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonObject;
import com.quorbit.ambrix.EngineCallBacksDefault;
import com.quorbit.externalcall.VexelException;

/**
 * The kernel's callbacks while a cell runs: printed text as stream
 * messages of the request being executed, plots as pictures in order with
 * them, and input lines asked of the client. It also holds what the
 * callbacks need to know of the running cell.
 */
final class CellOutput extends EngineCallBacksDefault {
    private final MessageLoop loop;
    /** The request being executed, for output and for input requests; null between cells. */
    volatile Channels.Message current;
    volatile boolean allowStdin;
    volatile boolean silent;
    /** The offset of the last error into the statement, or -1 when it has none. */
    volatile int errorOffset = -1;
    /** The text the cell printed, for the history. */
    final StringBuilder text = new StringBuilder();

    CellOutput(MessageLoop loop) {
        this.loop = loop;
    }

    @Override
    public void errorCallBack(Object data, int offset, String message) {
        errorOffset = offset;
        super.errorCallBack(data, offset, message);
    }

    @Override
    public void textCallBack(Object data, int tag, String s) {
        String shown = shownText(tag, s);
        String line = shown.endsWith("\n") ? shown : shown + "\n";
        // print's output on standard output; warnings and diagnostics on standard error.
        String name = tag == VEXEL_TEXT_OUTPUT ? "stdout" : "stderr";
        Channels.Message m = current;
        if (m == null || silent) {
            return;
        }
        text.append(line);
        JsonObject c = new JsonObject();
        c.addProperty("name", name);
        c.addProperty("text", line);
        loop.publish("stream", c, m);
    }

    @Override
    public void statusCallBack(Object data, long used, long alloc, double time) {
        textCallBack(data, VEXEL_TEXT_STATUS, statusLine(used, alloc, time));
    }

    /** Waits for the client's answer; an interrupt ends the wait as it ends a computation. */
    @Override
    public String readLineCallBack(Object data, boolean debug) {
        Channels.Message m = current;
        if (m == null || !allowStdin) {
            throw new VexelException("no input: this client does not allow input requests");
        }
        String line = loop.input(m, "", () -> loop.interruptPending(m));
        if (line == null) {
            throw new VexelException("computation interrupted");
        }
        return line;
    }

    /**
     * The kernel asks at each step of a loop: an interrupt raised just before
     * an evaluation began, which the engine's own request would miss, ends
     * it here.
     */
    @Override
    public boolean queryInterrupt(Object data) {
        return loop.interruptPending(current);
    }

    @Override
    public boolean redirectCallBack(Object data, String name, boolean append) {
        return false;
    }

    /** A plot goes out as a picture, in order with the cell's other outputs. */
    @Override
    public String streamCallBack(Object data, String name, String[] args) {
        Channels.Message m = current;
        if (name.equals("plot") && args != null && args.length == 1 && m != null && !silent) {
            JsonObject c = new JsonObject();
            c.add("data", Display.plot(args[0]));
            c.add("metadata", new JsonObject());
            loop.publish("display_data", c, m);
        }
        return "";
    }

    @Override
    public String callBackCallBack(Object data, String s) {
        return "";
    }
}
