package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonObject;
import com.google.gson.JsonParser;
import com.quorbit.ambrix.Engine;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;

/**
 * Vexel in Jupyter: a kernel that speaks the Jupyter messaging protocol
 * (version 5.3) over ZeroMQ, on one {@link Engine}.
 *
 * <pre>
 * java -cp ambrix.jar:vexelshell.jar:vexeljupyter.jar:jeromq.jar:gson.jar \
 *     com.quorbit.ambrix.jupyter.VexelKernel CONNECTION_FILE
 * </pre>
 *
 * <p>The parts: {@link MessageLoop} (the sockets and their threads) over
 * {@link Channels} (the wire); the groups of requests, {@link Execution},
 * {@link Introspection}, {@link History} and {@link Control}; the engine's
 * callbacks while a cell runs, {@link CellOutput}; and {@link Display}, how
 * values look. The shell channel's requests run one at a time on the main
 * thread, which alone evaluates; the control channel (interrupt, shutdown)
 * and the heartbeat have threads of their own, so that an interrupt reaches
 * a running cell. SIGINT interrupts as an interrupt request does.
 */
public final class VexelKernel {
    private VexelKernel() {
    }

    public static void main(String[] args) throws IOException {
        if (args.length != 1) {
            System.err.println("usage: VexelKernel CONNECTION_FILE");
            System.exit(2);
        }
        JsonObject connection = JsonParser.parseString(Files.readString(Path.of(args[0]), StandardCharsets.UTF_8))
                .getAsJsonObject();
        MessageLoop loop = new MessageLoop(connection);
        CellOutput output = new CellOutput(loop);
        Engine engine = new Engine(new String[] {"-q"}, output, null);
        Introspection introspection = new Introspection(engine);
        History history = new History();
        Control control = new Control(loop, engine);
        new Execution(loop, engine, output, new Display(engine), introspection, history).register(loop);
        introspection.register(loop);
        history.register(loop);
        control.register(loop);
        try {
            sun.misc.Signal.handle(new sun.misc.Signal("INT"), signal -> control.interrupt(null));
        } catch (IllegalArgumentException e) {
            System.err.println("vexel kernel: SIGINT cannot be handled: " + e.getMessage());
        }
        // The first plot drawn as PNG loads the drawing library and its fonts: done now, beside the start.
        Thread warm = new Thread(() -> Display.png("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"8\" height=\"8\">"
                + "<polyline points=\"0,0 8,8\" stroke=\"black\"/><text x=\"0\" y=\"8\">0</text></svg>"),
                "vexel-png-warmup");
        warm.setDaemon(true);
        warm.start();
        loop.serveShell();
    }
}
