package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonObject;
import java.nio.charset.StandardCharsets;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.atomic.AtomicBoolean;
import java.util.concurrent.locks.ReentrantLock;
import java.util.function.BooleanSupplier;
import java.util.function.UnaryOperator;
import org.zeromq.ZMQ;

/**
 * The kernel's five sockets and the loops that read them. The shell
 * channel's requests run one at a time on the thread that calls
 * {@link #serveShell}; the control channel and the heartbeat have threads of
 * their own. Each request goes to the handler registered for its type,
 * between a "busy" and an "idle" status on iopub; a type that none handles,
 * and a request whose handler fails before it replies, get an error reply.
 *
 * <p>The control thread never waits for the kernel: a request that needs it
 * ({@link #withKernel}) is answered there only while the kernel is idle,
 * and with an error status while a cell holds it. The kernel is one
 * evaluator behind one lock, so nothing that needs it can be served beside
 * a running cell; an immediate "busy" keeps interrupt and shutdown, which
 * come behind on the same channel, answered at once.
 *
 * <p>An interrupt ({@link #interrupt}) ends the running cell and every
 * execute request that waits on the shell socket when the shell thread
 * takes it, at once (a socket of its own wakes that thread). ZeroMQ orders
 * no messages across two connections: an execute request sent just before
 * the interrupt may arrive after it. So an interrupt that finds no cell
 * running and none waiting also ends those that arrive within
 * {@link #INTERRUPT_GRACE_NANOS}, unless their client sent them after its
 * interrupt request (its own time stamps say so).
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
    /** Wakes the shell thread when an interrupt comes: read by it, written by the others, under its lock. */
    private final ZMQ.Socket wakeIn;
    private final ZMQ.Socket wakeOut;
    private final Map<String, Handler> handlers = new HashMap<>();
    private volatile boolean running = true;
    /** Held by whoever uses the kernel: a cell for its whole run, an introspection for its query. */
    private final ReentrantLock kernel = new ReentrantLock();
    /** An interrupt that the shell thread has not taken yet. */
    private final AtomicBoolean interrupt = new AtomicBoolean();
    /**
     * How long an interrupt that found nothing to end still ends an execute
     * request that arrives: one sent before it may still be on its way, on a
     * connection of its own.
     */
    static final long INTERRUPT_GRACE_NANOS = 100_000_000L;
    /** Until when an execute request taken off the shell socket is ended as it starts (System.nanoTime). */
    private long graceEnds = System.nanoTime();
    /** The last interrupt's request; null before the first, and for a signal. */
    private volatile Channels.Message lastInterrupt;
    /** When the last interrupt came (System.nanoTime): the grace counts from then, not from when it is taken. */
    private volatile long interruptedAt;
    /** The execute request whose cell runs now, null between cells; guarded by the lock {@link #cells}. */
    private Channels.Message cell;
    private final Object cells = new Object();
    /** Requests taken off the shell socket and not handled yet, oldest first; the shell thread's alone. */
    private final Deque<Channels.Message> backlog = new ArrayDeque<>();

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
        wakeIn = context.socket(ZMQ.PAIR);
        wakeIn.bind("inproc://vexel-wake");
        wakeOut = context.socket(ZMQ.PAIR);
        wakeOut.connect("inproc://vexel-wake");
    }

    private ZMQ.Socket bind(int type, String base, JsonObject connection, String port) {
        ZMQ.Socket s = context.socket(type);
        s.setLinger(1000);
        s.setMaxMsgSize(Channels.MAX_MESSAGE_SIZE);
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

    /** As {@link #answer}, for a request that needs the kernel. */
    void answerWithKernel(String type, UnaryOperator<JsonObject> content) {
        on(type, withKernel((socket, m) -> reply(socket, m, replyType(type), content.apply(m.content))));
    }

    /**
     * The handler, run holding the kernel: on the shell channel after any
     * introspection on control ends, on the control channel only when the
     * kernel is free at once; otherwise the reply says it is busy.
     */
    Handler withKernel(Handler handler) {
        return (socket, m) -> {
            if (socket != control) {
                kernel.lock();
            } else if (!kernel.tryLock()) {
                reply(socket, m, replyType(m.type()),
                        Json.error("KernelBusy", "the kernel is running a cell; ask again when it is idle"));
                return;
            }
            try {
                handler.handle(socket, m);
            } finally {
                kernel.unlock();
            }
        };
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
        Thread ctl = new Thread(this::serveControl, "vexel-control");
        ctl.setDaemon(true);
        ctl.start();
        publishStatus("starting", null);
        ZMQ.Poller poller = new ZMQ.Poller(2);
        poller.register(shell, ZMQ.Poller.POLLIN);
        poller.register(wakeIn, ZMQ.Poller.POLLIN);
        while (running) {
            if (backlog.isEmpty() && poller.poll(200) > 0 && poller.pollin(1)) {
                while (wakeIn.recv(ZMQ.DONTWAIT) != null) {
                    // one byte per interrupt: the flag says the rest
                }
            }
            takeInterrupt(false);
            if (backlog.isEmpty()) {
                pull();
            }
            Channels.Message m = backlog.poll();
            if (m != null) {
                handleSafely(shell, m);
            }
        }
    }

    /** Answers the control socket's requests, one at a time, until the kernel ends. */
    private void serveControl() {
        ZMQ.Poller poller = new ZMQ.Poller(1);
        poller.register(control, ZMQ.Poller.POLLIN);
        while (running) {
            if (poller.poll(200) > 0 && poller.pollin(0)) {
                Channels.Message m = channels.receive(control);
                if (m != null) {
                    handleSafely(control, m);
                }
            }
        }
    }

    /** Handles the request; nothing that goes wrong in it ends the thread that serves its channel. */
    private void handleSafely(ZMQ.Socket socket, Channels.Message m) {
        try {
            handle(socket, m);
        } catch (Throwable e) {
            System.err.println("vexel kernel: " + m.type() + " failed: " + e);
        }
    }

    /**
     * Raises an interrupt, from any thread: the running cell ends at its next
     * statement or interrupt query ({@code stopKernel} ends the kernel call
     * running now), and the shell thread wakes to end the execute requests
     * waiting. A cell that its client sent after the interrupt request, and
     * that overtook it, runs on. The request that asks, or null for a
     * signal.
     */
    void interrupt(Channels.Message request, Runnable stopKernel) {
        lastInterrupt = request;
        interruptedAt = System.nanoTime();
        interrupt.set(true);
        synchronized (cells) {
            if (reaches(request, cell)) {
                stopKernel.run();
            }
        }
        synchronized (wakeOut) {
            wakeOut.send(new byte[1], ZMQ.DONTWAIT);
        }
    }

    /** Whether an interrupt is to end this execute request (null: a request of no cell). */
    private static boolean reaches(Channels.Message interrupt, Channels.Message request) {
        return interrupt == null || request == null || !request.sentAfter(interrupt);
    }

    /** Marks the cell of this request as the one running, or none (null). */
    void running(Channels.Message request) {
        synchronized (cells) {
            cell = request;
        }
    }

    /**
     * Whether an interrupt that the shell thread has not taken yet ends this
     * request's cell (null: whatever uses the kernel outside a cell).
     */
    boolean interruptPending(Channels.Message request) {
        return interrupt.get() && reaches(lastInterrupt, request);
    }

    /**
     * On the shell thread: takes an interrupt raised since the last look,
     * marking every request waiting now to end as it starts, except those
     * that their client sent after its interrupt request (a busy machine can
     * keep this thread from looking until they are here). When it marks
     * none, and no cell was running ({@code cellEnded} false), those that
     * arrive within the grace of the interrupt are ended too.
     */
    void takeInterrupt(boolean cellEnded) {
        if (interrupt.getAndSet(false)) {
            pull();
            Channels.Message last = lastInterrupt;
            boolean marked = false;
            for (Channels.Message q : backlog) {
                if (reaches(last, q)) {
                    q.interrupted = marked = true;
                }
            }
            if (!marked && !cellEnded) {
                graceEnds = interruptedAt + INTERRUPT_GRACE_NANOS;
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
        } catch (RuntimeException | StackOverflowError e) {
            System.err.println("vexel kernel: " + m.type() + " failed: " + e);
            if (!m.replied && m.type().endsWith("_request")) {
                reply(socket, m, replyType(m.type()), Json.error("BadRequest", m.type() + ": " + e.getMessage()));
            }
        } finally {
            publishStatus("idle", m);
        }
    }

    private void unknown(ZMQ.Socket socket, Channels.Message m) {
        System.err.println("vexel kernel: unknown request type " + m.type());
        reply(socket, m, replyType(m.type()), Json.error("UnknownRequest", "unknown request type " + m.type()));
    }

    void reply(ZMQ.Socket socket, Channels.Message to, String type, JsonObject content) {
        to.replied = true;
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

    /** The requests already waiting on the shell socket, taken off it. */
    List<Channels.Message> waiting() {
        pull();
        List<Channels.Message> queued = new ArrayList<>(backlog);
        backlog.clear();
        return queued;
    }

    /** Moves the requests waiting on the shell socket to the backlog. */
    private void pull() {
        ZMQ.Poller poller = new ZMQ.Poller(1);
        poller.register(shell, ZMQ.Poller.POLLIN);
        while (poller.poll(0) > 0 && poller.pollin(0)) {
            Channels.Message q = channels.receive(shell);
            if (q != null) {
                q.interrupted = System.nanoTime() - graceEnds < 0 && reaches(lastInterrupt, q);
                backlog.add(q);
            }
        }
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
