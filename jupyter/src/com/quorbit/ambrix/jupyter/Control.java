package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonArray;
import com.google.gson.JsonObject;
import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.Engine;
import com.quorbit.externalcall.VexelException;
import java.nio.file.Files;
import java.nio.file.Path;
import org.zeromq.ZMQ;

/**
 * The requests about the kernel itself rather than code: kernel_info,
 * comm_info, interrupt and shutdown. Comm messages are ignored: no widgets
 * here, as the protocol allows.
 */
final class Control {
    private final MessageLoop loop;
    private final Engine engine;
    /** The kernel's version, as kernel_info reports it; asked once. */
    private final String version;

    Control(MessageLoop loop, Engine engine) {
        this.loop = loop;
        this.engine = engine;
        version = kernelVersion();
    }

    void register(MessageLoop loop) {
        loop.answer("kernel_info_request", content -> kernelInfo());
        loop.answer("comm_info_request", content -> {
            JsonObject c = Json.ok();
            c.add("comms", new JsonObject());
            return c;
        });
        loop.on("interrupt_request", (socket, m) -> {
            interrupt(m);
            loop.reply(socket, m, "interrupt_reply", Json.ok());
        });
        loop.on("shutdown_request", this::shutdown);
        for (String ignored : new String[] {"comm_open", "comm_msg", "comm_close"}) {
            loop.on(ignored, (socket, m) -> {
            });
        }
    }

    /**
     * Ends the running cell, and the cells waiting to run (see
     * {@link MessageLoop#interrupt}); the request that asks, or null.
     */
    void interrupt(Channels.Message request) {
        loop.interrupt(request, () -> {
            try {
                engine.interrupt();
            } catch (VexelException e) {
                // stopped: nothing runs
            }
        });
    }

    private JsonObject kernelInfo() {
        JsonObject c = Json.ok();
        c.addProperty("protocol_version", Channels.PROTOCOL_VERSION);
        c.addProperty("implementation", "vexel");
        c.addProperty("implementation_version", version);
        JsonObject language = new JsonObject();
        language.addProperty("name", "vexel");
        language.addProperty("version", version);
        language.addProperty("mimetype", "text/x-vexel");
        language.addProperty("file_extension", ".vx");
        // The kernelspec's kernel.js defines the CodeMirror mode; vexel_pygments the lexer.
        language.addProperty("codemirror_mode", "vexel");
        language.addProperty("pygments_lexer", "vexel");
        c.add("language_info", language);
        c.addProperty("banner", (version.isEmpty() ? "Vexel" : version) + " in Jupyter. A statement ends with ;"
                + " (its value is shown) or : (silent); ?name shows help.");
        JsonArray links = new JsonArray();
        // The launcher names the README it installed (or the repository's); no link to a missing file.
        String readme = System.getProperty("ambrix.readme");
        if (readme != null && Files.isRegularFile(Path.of(readme))) {
            JsonObject link = new JsonObject();
            link.addProperty("text", "Vexel in Jupyter (ambrix README)");
            link.addProperty("url", Path.of(readme).toAbsolutePath().normalize().toUri().toString());
            links.add(link);
        }
        c.add("help_links", links);
        return c;
    }

    private String kernelVersion() {
        try {
            Algebraic v = engine.evaluate("kernelopts(version):");
            Object j = v == null ? null : v.toJava();
            return j == null ? "" : j.toString();
        } catch (VexelException e) {
            return "";
        }
    }

    /**
     * Answers and exits, whatever the restart flag says: the kernel manager
     * that asked for a restart starts a new process itself.
     */
    private void shutdown(ZMQ.Socket socket, Channels.Message m) {
        JsonObject c = Json.ok();
        c.addProperty("restart", Json.bool(m.content, "restart", false));
        interrupt(null);
        loop.reply(socket, m, "shutdown_reply", c);
        loop.publish("shutdown_reply", c, m);
        loop.publishStatus("idle", m);
        loop.stop();
        // Give the replies time to leave before the sockets close.
        try {
            Thread.sleep(100);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
        // The kernel's memory goes with the process: no orderly stop, which would wait for an
        // evaluation that the interrupt has not ended yet.
        System.exit(0);
    }
}
