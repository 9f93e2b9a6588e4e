package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonArray;
import com.google.gson.JsonObject;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.function.BooleanSupplier;
import java.util.function.UnaryOperator;
import org.zeromq.ZMQ;

/**
 * The kernel's five sockets and the loops that read them. The shell
 * channel's requests run one at a time on the thread that calls
 * {@link #serveShell}; the control channel and the heartbeat have threads of
 * their own. Each request goes to the handler registered for its type,
 * between a "busy" and an "idle" status on iopub; a type that none handles
 * gets an error reply.
 */
final class MessageLoop {
    /** What a request of one type does: it replies on the socket it came from, if at all. */
    interface Handler {
        void handle(ZMQ.Socket socket, Channels.Message m);
    }

    private final Channels channels;
    private final ZMQ.Context context = ZMQ.context(1);
    final ZMQ.Socket shell;
    final ZMQ.Socket control;
    private final ZMQ.Socket iopub;
    private final ZMQ.Socket stdin;
    private final ZMQ.Socket heartbeat;
    private final Map<String, Handler> handlers = new HashMap<>();
    private volatile boolean running = true;

    MessageLoop(JsonObject connection) {
        channels = new Channels(Json.string(connection, "key", ""),
                Json.string(connection, "signature_scheme", "hmac-sha256"));
        String base = Json.string(connection, "transport", "tcp") + "://" + Json.string(connection, "ip", "127.0.0.1")
                + ":";
        shell = bind(ZMQ.ROUTER, base, connection, "shell_port");
        control = bind(ZMQ.ROUTER, base, connection, "control_port");
        stdin = bind(ZMQ.ROUTER, base, connection, "stdin_port");
        iopub = bind(ZMQ.PUB, base, connection, "iopub_port");
        heartbeat = bind(ZMQ.REP, base, connection, "hb_port");
    }

    private ZMQ.Socket bind(int type, String base, JsonObject connection, String port) {
        ZMQ.Socket s = context.socket(type);
        s.setLinger(1000);
        s.bind(base + connection.get(port).getAsInt());
        return s;
    }

    /** Requests of this type go to the handler. */
    void on(String type, Handler handler) {
        handlers.put(type, handler);
    }

    /** Requests of this type get a reply whose content the function makes from theirs. */
    void answer(String type, UnaryOperator<JsonObject> content) {
        on(type, (socket, m) -> reply(socket, m, replyType(type), content.apply(m.content)));
    }

    private static String replyType(String type) {
        return type.endsWith("_request") ? type.substring(0, type.length() - "_request".length()) + "_reply"
                : type + "_reply";
    }

    boolean running() {
        return running;
    }

    /** Ends the loops: each returns within its poll's time. */
    void stop() {
        running = false;
    }

    /** Starts the heartbeat and the control channel, then serves the shell channel until the kernel ends. */
    void serveShell() {
        Thread hb = new Thread(this::beat, "vexel-heartbeat");
        hb.setDaemon(true);
        hb.start();
        Thread ctl = new Thread(() -> serve(control), "vexel-control");
        ctl.setDaemon(true);
        ctl.start();
        publishStatus("starting", null);
        serve(shell);
    }

    /** Answers the socket's requests, one at a time, until the kernel ends. */
    private void serve(ZMQ.Socket socket) {
        ZMQ.Poller poller = new ZMQ.Poller(1);
        poller.register(socket, ZMQ.Poller.POLLIN);
        while (running) {
            if (poller.poll(200) > 0 && poller.pollin(0)) {
                Channels.Message m = channels.receive(socket);
                if (m != null) {
                    handle(socket, m);
                }
            }
        }
    }

    private void beat() {
        while (running) {
            byte[] ping = heartbeat.recv(0);
            if (ping != null) {
                heartbeat.send(ping, 0);
            }
        }
    }

    void handle(ZMQ.Socket socket, Channels.Message m) {
        publishStatus("busy", m);
        try {
            handlers.getOrDefault(m.type(), this::unknown).handle(socket, m);
        } catch (RuntimeException e) {
            System.err.println("vexel kernel: " + m.type() + " failed: " + e);
        } finally {
            publishStatus("idle", m);
        }
    }

    private void unknown(ZMQ.Socket socket, Channels.Message m) {
        System.err.println("vexel kernel: unknown request type " + m.type());
        JsonObject c = new JsonObject();
        c.addProperty("status", "error");
        c.addProperty("ename", "UnknownRequest");
        c.addProperty("evalue", "unknown request type " + m.type());
        c.add("traceback", new JsonArray());
        reply(socket, m, replyType(m.type()), c);
    }

    void reply(ZMQ.Socket socket, Channels.Message to, String type, JsonObject content) {
        channels.send(socket, type, content, to, to.identities);
    }

    void publish(String type, JsonObject content, Channels.Message parent) {
        channels.send(iopub, type, content, parent, List.of(type.getBytes(StandardCharsets.UTF_8)));
    }

    void publishStatus(String state, Channels.Message parent) {
        JsonObject c = new JsonObject();
        c.addProperty("execution_state", state);
        publish("status", c, parent);
    }

    /** The requests already waiting on the shell socket. */
    List<Channels.Message> waiting() {
        List<Channels.Message> queued = new ArrayList<>();
        ZMQ.Poller poller = new ZMQ.Poller(1);
        poller.register(shell, ZMQ.Poller.POLLIN);
        while (poller.poll(0) > 0 && poller.pollin(0)) {
            Channels.Message q = channels.receive(shell);
            if (q != null) {
                queued.add(q);
            }
        }
        return queued;
    }

    /**
     * Asks the client of the request for a line of input on the stdin
     * channel and waits for it; null when the wait was given up (the kernel
     * ends, or {@code giveUp} says so).
     */
    String input(Channels.Message m, String prompt, BooleanSupplier giveUp) {
        JsonObject c = new JsonObject();
        c.addProperty("prompt", prompt);
        c.addProperty("password", false);
        channels.send(stdin, "input_request", c, m, m.identities);
        ZMQ.Poller poller = new ZMQ.Poller(1);
        poller.register(stdin, ZMQ.Poller.POLLIN);
        while (running && !giveUp.getAsBoolean()) {
            if (poller.poll(100) > 0 && poller.pollin(0)) {
                Channels.Message answer = channels.receive(stdin);
                if (answer != null && answer.type().equals("input_reply")) {
                    return Json.string(answer.content, "value", "");
                }
            }
        }
        return null;
    }
}
