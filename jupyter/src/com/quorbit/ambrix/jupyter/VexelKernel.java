package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonArray;
import com.google.gson.JsonElement;
import com.google.gson.JsonObject;
import com.google.gson.JsonParser;
import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.EngineCallBacksDefault;
import com.quorbit.ambrix.shell.StatementScanner;
import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Pattern;
import org.zeromq.ZMQ;

/**
 * Vexel in Jupyter: a kernel that speaks the Jupyter messaging protocol
 * (version 5.3) over ZeroMQ, on one {@link Engine}.
 *
 * <pre>
 * java -cp ambrix.jar:vexelshell.jar:vexeljupyter.jar:jeromq.jar:gson.jar \
 *     com.quorbit.ambrix.jupyter.VexelKernel CONNECTION_FILE
 * </pre>
 *
 * <p>The shell channel's requests run one at a time on the main thread,
 * which alone evaluates; the control channel (interrupt, shutdown) and the
 * heartbeat have threads of their own, so that an interrupt reaches a
 * running cell. SIGINT interrupts as an interrupt request does.
 */
public final class VexelKernel {

    private final Channels channels;
    private final ZMQ.Context context = ZMQ.context(1);
    private final ZMQ.Socket shell;
    private final ZMQ.Socket control;
    private final ZMQ.Socket iopub;
    private final ZMQ.Socket stdin;
    private final ZMQ.Socket heartbeat;
    private final Engine engine;
    /** The kernel's version, as kernel_info reports it; asked once. */
    private final String version;
    private final Output output = new Output();
    private int executionCount;
    /** Executed cells: line number, input, output text. */
    private final List<HistoryEntry> history = new ArrayList<>();
    /** Whether shown values go out as text/latex too; "%display plain" turns it off. */
    private boolean typeset = true;
    /** Rectangular tables with more entries than this stay plain. */
    static final int TYPESET_MAX_ENTRIES = 400;
    /** Red, as a terminal shows it, for the lines of an error's traceback. */
    private static final String RED = "\u001b[0;31m", PLAIN = "\u001b[0m";
    /** Set by an interrupt; the running cell runs no further statement. */
    private volatile boolean interrupted;
    private volatile boolean running = true;

    private record HistoryEntry(int line, String input, String output) {
    }

    /** The request being executed, for output, and for input requests. */
    private volatile Channels.Message current;
    private volatile boolean allowStdin;

    private VexelKernel(JsonObject connection) {
        channels = new Channels(string(connection, "key", ""), string(connection, "signature_scheme", "hmac-sha256"));
        String base = string(connection, "transport", "tcp") + "://" + string(connection, "ip", "127.0.0.1") + ":";
        shell = bind(ZMQ.ROUTER, base, connection, "shell_port");
        control = bind(ZMQ.ROUTER, base, connection, "control_port");
        stdin = bind(ZMQ.ROUTER, base, connection, "stdin_port");
        iopub = bind(ZMQ.PUB, base, connection, "iopub_port");
        heartbeat = bind(ZMQ.REP, base, connection, "hb_port");
        engine = new Engine(new String[] {"-q"}, output, null);
        version = kernelVersion();
    }

    private ZMQ.Socket bind(int type, String base, JsonObject connection, String port) {
        ZMQ.Socket s = context.socket(type);
        s.setLinger(1000);
        s.bind(base + connection.get(port).getAsInt());
        return s;
    }

    private static String string(JsonObject o, String name, String otherwise) {
        JsonElement e = o.get(name);
        return e == null || e.isJsonNull() ? otherwise : e.getAsString();
    }

    public static void main(String[] args) throws IOException {
        if (args.length != 1) {
            System.err.println("usage: VexelKernel CONNECTION_FILE");
            System.exit(2);
        }
        JsonObject connection = JsonParser.parseString(Files.readString(Path.of(args[0]), StandardCharsets.UTF_8))
                .getAsJsonObject();
        new VexelKernel(connection).run();
    }

    private void run() {
        Thread hb = new Thread(this::beat, "vexel-heartbeat");
        hb.setDaemon(true);
        hb.start();
        Thread ctl = new Thread(() -> serve(control), "vexel-control");
        ctl.setDaemon(true);
        ctl.start();
        try {
            sun.misc.Signal.handle(new sun.misc.Signal("INT"), signal -> interrupt());
        } catch (IllegalArgumentException e) {
            System.err.println("vexel kernel: SIGINT cannot be handled: " + e.getMessage());
        }
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

    private void interrupt() {
        interrupted = true;
        try {
            engine.interrupt();
        } catch (VexelException e) {
            // stopped: nothing runs
        }
    }

    // ---- requests ----

    private void handle(ZMQ.Socket socket, Channels.Message m) {
        publishStatus("busy", m);
        try {
            switch (m.type()) {
                case "kernel_info_request" -> reply(socket, m, "kernel_info_reply", kernelInfo());
                case "execute_request" -> execute(socket, m);
                case "is_complete_request" -> reply(socket, m, "is_complete_reply", isComplete(m.content));
                case "complete_request" -> reply(socket, m, "complete_reply", complete(m.content));
                case "inspect_request" -> reply(socket, m, "inspect_reply", inspect(m.content));
                case "history_request" -> reply(socket, m, "history_reply", history(m.content));
                case "comm_info_request" -> {
                    JsonObject c = ok();
                    c.add("comms", new JsonObject());
                    reply(socket, m, "comm_info_reply", c);
                }
                case "interrupt_request" -> {
                    interrupt();
                    reply(socket, m, "interrupt_reply", ok());
                }
                case "shutdown_request" -> shutdown(socket, m);
                // No widgets here: comm messages are ignored, as the protocol allows.
                case "comm_open", "comm_msg", "comm_close" -> {
                }
                default -> unknown(socket, m);
            }
        } catch (RuntimeException e) {
            System.err.println("vexel kernel: " + m.type() + " failed: " + e);
        } finally {
            publishStatus("idle", m);
        }
    }

    private void unknown(ZMQ.Socket socket, Channels.Message m) {
        System.err.println("vexel kernel: unknown request type " + m.type());
        String type = m.type().endsWith("_request") ? m.type().replaceAll("_request$", "_reply") : m.type() + "_reply";
        JsonObject c = new JsonObject();
        c.addProperty("status", "error");
        c.addProperty("ename", "UnknownRequest");
        c.addProperty("evalue", "unknown request type " + m.type());
        c.add("traceback", new JsonArray());
        reply(socket, m, type, c);
    }

    private static JsonObject ok() {
        JsonObject c = new JsonObject();
        c.addProperty("status", "ok");
        return c;
    }

    private void reply(ZMQ.Socket socket, Channels.Message to, String type, JsonObject content) {
        channels.send(socket, type, content, to, to.identities);
    }

    private void publish(String type, JsonObject content, Channels.Message parent) {
        channels.send(iopub, type, content, parent, List.of(type.getBytes(StandardCharsets.UTF_8)));
    }

    private void publishStatus(String state, Channels.Message parent) {
        JsonObject c = new JsonObject();
        c.addProperty("execution_state", state);
        publish("status", c, parent);
    }

    private JsonObject kernelInfo() {
        JsonObject c = ok();
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

    // ---- execute ----

    private void execute(ZMQ.Socket socket, Channels.Message m) {
        String code = string(m.content, "code", "");
        boolean silent = bool(m.content, "silent", false);
        boolean store = bool(m.content, "store_history", true) && !silent;
        boolean stopOnError = bool(m.content, "stop_on_error", true);
        allowStdin = bool(m.content, "allow_stdin", true);
        if (store) {
            executionCount++;
        }
        int count = executionCount;
        JsonObject input = new JsonObject();
        input.addProperty("code", code);
        input.addProperty("execution_count", count);
        publish("execute_input", input, m);
        current = m;
        output.silent = silent;
        output.text.setLength(0);
        interrupted = false;
        JsonObject error = null;
        try {
            error = runCell(code, count, m, silent);
        } finally {
            current = null;
        }
        if (store) {
            history.add(new HistoryEntry(count, code, output.text.toString()));
        }
        JsonObject c;
        if (error == null) {
            c = ok();
            c.add("user_expressions", new JsonObject());
            c.add("payload", new JsonArray());
        } else {
            if (!silent) {
                publish("error", error, m);
            }
            c = error.deepCopy();
            c.addProperty("status", "error");
        }
        c.addProperty("execution_count", count);
        // The requests to abort are those that arrived before the error's reply went out: one sent
        // after the client saw the error is meant to run.
        List<Channels.Message> queued =
                error != null && stopOnError && socket == shell ? waiting() : List.of();
        reply(socket, m, "execute_reply", c);
        abort(queued);
    }

    /**
     * One step of a cell: a statement, a help line ("?name") as the shell
     * reads it, with its level, or a line of the notebook's own ("%display
     * plain"), which never reaches the kernel.
     */
    private record Step(String text, int helpLevel, boolean magic) {
        Step(String text, int helpLevel) {
            this(text, helpLevel, false);
        }

        boolean help() {
            return helpLevel > 0;
        }
    }

    private static final Pattern MAGIC = Pattern.compile("\\s*%\\S.*");

    /** The cell's steps, as the shell reads its lines. */
    private static List<Step> steps(String code) {
        StatementScanner scanner = new StatementScanner();
        List<Step> steps = new ArrayList<>();
        for (String line : code.split("\n", -1)) {
            if (scanner.isEmpty() && MAGIC.matcher(line).matches()) {
                steps.add(new Step(line.strip(), 0, true));
                continue;
            }
            StatementScanner.HelpLine help = scanner.isEmpty() ? StatementScanner.helpLine(line) : null;
            if (help != null) {
                steps.add(new Step(help.topic(), help.level()));
                continue;
            }
            for (StatementScanner.Statement st : scanner.addLine(line)) {
                steps.add(new Step(st.text(), 0));
            }
        }
        StatementScanner.Statement rest = scanner.takeRest();
        if (rest != null) {
            steps.add(new Step(rest.text(), 0));
        }
        return steps;
    }

    /** Runs a cell's steps in order; the error content of the first that fails, or null. */
    private JsonObject runCell(String code, int count, Channels.Message m, boolean silent) {
        List<Step> steps = steps(code);
        for (int i = 0; i < steps.size(); i++) {
            Step step = steps.get(i);
            try {
                if (interrupted) {
                    throw new VexelException("computation interrupted");
                }
                boolean last = i == steps.size() - 1;
                if (step.magic()) {
                    magic(step.text());
                } else if (step.help()) {
                    String text = helpOrError(step.text(), step.helpLevel());
                    if (!silent) {
                        show(step.text().isEmpty() ? plainData(text) : helpData(text), false, count, m);
                    }
                } else {
                    Algebraic value = evaluate(step.text());
                    JsonObject data = value == null || silent ? null : valueData(value);
                    if (data != null) {
                        show(data, last, count, m);
                    }
                }
            } catch (VexelException e) {
                JsonObject error = new JsonObject();
                error.addProperty("ename", "Error");
                error.addProperty("evalue", String.valueOf(e.getMessage()));
                JsonArray traceback = new JsonArray();
                traceback.add(RED + "Error, " + e.getMessage() + PLAIN);
                // A parse error points into the statement as the user wrote it: its line, and a caret.
                if (!step.help() && !step.magic()) {
                    List<String> caret = StatementScanner.caretLines(step.text(), output.errorOffset);
                    if (!caret.isEmpty()) {
                        traceback.add(caret.get(0));
                        traceback.add(RED + caret.get(1) + PLAIN);
                    }
                }
                error.add("traceback", traceback);
                return error;
            }
        }
        return null;
    }

    /**
     * Evaluates one statement silently: its value is shown here, apart from
     * what the kernel prints itself. Null for a statement ending in ":", and
     * for one with no value.
     */
    private Algebraic evaluate(String text) {
        boolean shows = !text.endsWith(":");
        String silentText = text.endsWith(";") || text.endsWith(":") ? text.substring(0, text.length() - 1) + ":"
                : text + ":";
        Algebraic value;
        output.errorOffset = -1;
        try {
            value = engine.evaluate(silentText);
        } catch (VexelException e) {
            if (output.errorOffset >= 0 && !silentText.equals(text)) {
                // A parse error: nothing ran. The statement as typed fails the same way, and the
                // kernel's message and offset then speak of the user's own text.
                output.errorOffset = -1;
                engine.evaluate(text);
            }
            throw e;
        }
        return value == null || !shows || value.isStop() ? null : value;
    }

    /** "%display plain" and "%display latex": whether values are typeset. */
    private void magic(String line) {
        String[] words = line.substring(1).strip().split("\\s+");
        if (words.length == 2 && words[0].equals("display") && (words[1].equals("plain") || words[1].equals("latex"))) {
            typeset = words[1].equals("latex");
            return;
        }
        throw new VexelException("unknown notebook command " + line + "; %display plain and %display latex are known");
    }

    /**
     * A value's display data: its printed form, and its LaTeX when values are
     * typeset and the kernel gives it. A kernel without latex, or one that
     * fails on the value, leaves the text alone. Null for a value that prints
     * as nothing (NULL).
     */
    private JsonObject valueData(Algebraic value) {
        String text = value.toString();
        if (text.isEmpty()) {
            return null;
        }
        JsonObject data = new JsonObject();
        data.addProperty("text/plain", text);
        if (!typeset || tooLargeToTypeset(value)) {
            return data;
        }
        for (int attempt = 0; attempt < 2; attempt++) {
            try {
                if (latexOf(value) instanceof String latex && !latex.isEmpty()) {
                    data.addProperty("text/latex", "$\\displaystyle " + latex + "$");
                }
                break;
            } catch (VexelException e) {
                // A restart statement disposed the procedure: made again once; otherwise plain text alone.
                latexProcedure = null;
            }
        }
        return data;
    }

    /**
     * The procedure that asks the kernel for a value's LaTeX: held here, never
     * assigned to a name, so the user's names stay as they are.
     */
    private com.quorbit.ambrix.Procedure latexProcedure;

    private Object latexOf(Algebraic value) {
        if (latexProcedure == null) {
            latexProcedure = (com.quorbit.ambrix.Procedure) engine.evaluate("proc(e) latex(e) end proc:");
        }
        Algebraic latex = latexProcedure.execute(new Algebraic[] {value});
        return latex == null ? null : latex.toJava();
    }

    private static boolean tooLargeToTypeset(Algebraic value) {
        try {
            return value instanceof com.quorbit.ambrix.RTable t && t.numElements() > TYPESET_MAX_ENTRIES;
        } catch (VexelException e) {
            return true;
        }
    }

    /** A help line's text: levels 1, 2, 3 are all sections, usage, examples; no topic gives an overview. */
    private String helpOrError(String topic, int level) {
        if (topic.isEmpty()) {
            return OVERVIEW;
        }
        String text = help(topic, StatementScanner.HelpLine.section(level));
        if (text == null) {
            throw new VexelException("no help for " + topic);
        }
        return text;
    }

    private static JsonObject plainData(String text) {
        JsonObject data = new JsonObject();
        data.addProperty("text/plain", text);
        return data;
    }

    /**
     * A help page as display data: the plain text for consoles, and HTML for
     * notebooks, with the page's sections as headings and its "See Also"
     * entries as links that run ?entry.
     */
    static JsonObject helpData(String text) {
        JsonObject data = plainData(text);
        StringBuilder html = new StringBuilder("<div class=\"vexel-help\">");
        for (String block : text.strip().split("\n\\s*\n")) {
            String[] lines = block.split("\n", 2);
            String heading = lines[0].strip();
            String body = lines.length > 1 ? lines[1].strip() : "";
            html.append("<h4>").append(html(heading)).append("</h4>");
            if (heading.equals("See Also")) {
                html.append("<p>");
                String[] entries = body.split("[,\\s]+");
                for (int i = 0; i < entries.length; i++) {
                    if (entries[i].isEmpty()) {
                        continue;
                    }
                    String run = "?" + entries[i];
                    html.append(i > 0 ? ", " : "").append("<a href=\"#\" title=\"run ").append(html(run))
                            .append("\" onclick=\"var nb = window.Jupyter && Jupyter.notebook; if (nb) {"
                                    + " var c = nb.insert_cell_below('code'); c.set_text('").append(html(run))
                            .append("'); c.execute(); } return false;\"><code>").append(html(entries[i]))
                            .append("</code></a>");
                }
                html.append("</p>");
            } else if (heading.equals("Description")) {
                html.append("<p>").append(html(body).replace("\n", " ")).append("</p>");
            } else {
                html.append("<pre>").append(html(body)).append("</pre>");
            }
        }
        data.addProperty("text/html", html.append("</div>").toString());
        return data;
    }

    private static String html(String s) {
        return s.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;").replace("\"", "&quot;")
                .replace("'", "&#39;");
    }

    private static final String OVERVIEW = String.join("\n",
            "Statements end with ';' (the value is shown) or ':' (silent), and may span lines.",
            "  ?topic     help on a topic, for example ?print",
            "  ??topic    usage only;  ???topic  examples only",
            "  Tab        completes names; Shift-Tab shows help on the name at the cursor");

    /** A value shown: display data, or the cell's result when it is its last step. */
    private void show(JsonObject data, boolean last, int count, Channels.Message m) {
        String shown = data.get("text/plain").getAsString();
        JsonObject c = new JsonObject();
        c.add("data", data);
        c.add("metadata", new JsonObject());
        output.text.append(shown).append('\n');
        if (last) {
            c.addProperty("execution_count", count);
            publish("execute_result", c, m);
        } else {
            publish("display_data", c, m);
        }
    }

    /** The requests already waiting on the shell socket. */
    private List<Channels.Message> waiting() {
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

    /** After an error, the execute requests that were queued are answered "aborted", as the protocol says. */
    private void abort(List<Channels.Message> queued) {
        for (Channels.Message q : queued) {
            if (!q.type().equals("execute_request")) {
                handle(shell, q);
                continue;
            }
            publishStatus("busy", q);
            JsonObject c = new JsonObject();
            c.addProperty("status", "aborted");
            c.addProperty("execution_count", executionCount);
            reply(shell, q, "execute_reply", c);
            publishStatus("idle", q);
        }
    }

    private static boolean bool(JsonObject o, String name, boolean otherwise) {
        JsonElement e = o.get(name);
        return e == null || e.isJsonNull() ? otherwise : e.getAsBoolean();
    }

    private static int integer(JsonObject o, String name, int otherwise) {
        JsonElement e = o.get(name);
        return e == null || e.isJsonNull() ? otherwise : e.getAsInt();
    }

    /** The kernel's output, as stream messages of the request being executed. */
    private final class Output extends EngineCallBacksDefault {
        volatile boolean silent;
        /** The offset of the last error into the statement, or -1 when it has none. */
        volatile int errorOffset = -1;

        @Override
        public void errorCallBack(Object data, int offset, String message) {
            errorOffset = offset;
            super.errorCallBack(data, offset, message);
        }

        final StringBuilder text = new StringBuilder();

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
            publish("stream", c, m);
        }

        @Override
        public void statusCallBack(Object data, long used, long alloc, double time) {
            textCallBack(data, VEXEL_TEXT_STATUS, statusLine(used, alloc, time));
        }

        @Override
        public String readLineCallBack(Object data, boolean debug) {
            Channels.Message m = current;
            if (m == null || !allowStdin) {
                throw new VexelException("no input: this client does not allow input requests");
            }
            JsonObject c = new JsonObject();
            c.addProperty("prompt", "");
            c.addProperty("password", false);
            channels.send(stdin, "input_request", c, m, m.identities);
            // Waits for the answer; an interrupt ends the wait as it ends a computation.
            ZMQ.Poller poller = new ZMQ.Poller(1);
            poller.register(stdin, ZMQ.Poller.POLLIN);
            while (running) {
                if (interrupted) {
                    throw new VexelException("computation interrupted");
                }
                if (poller.poll(100) > 0 && poller.pollin(0)) {
                    Channels.Message answer = channels.receive(stdin);
                    if (answer != null && answer.type().equals("input_reply")) {
                        return string(answer.content, "value", "");
                    }
                }
            }
            throw new VexelException("computation interrupted");
        }

        @Override
        public boolean redirectCallBack(Object data, String name, boolean append) {
            return false;
        }

        /** A plot goes out as an SVG picture, in order with the cell's other outputs. */
        @Override
        public String streamCallBack(Object data, String name, String[] args) {
            Channels.Message m = current;
            if (name.equals("plot") && args != null && args.length == 1 && m != null && !silent) {
                JsonObject picture = new JsonObject();
                picture.addProperty("image/svg+xml", args[0]);
                picture.addProperty("text/plain", "<plot>");
                JsonObject c = new JsonObject();
                c.add("data", picture);
                c.add("metadata", new JsonObject());
                publish("display_data", c, m);
            }
            return "";
        }

        @Override
        public String callBackCallBack(Object data, String s) {
            return "";
        }
    }

    // ---- is_complete, complete, inspect, history ----

    private JsonObject isComplete(JsonObject content) {
        String code = string(content, "code", "");
        JsonObject c = new JsonObject();
        // A help line ("?name") is whole by itself, as in the shell.
        StatementScanner.Completeness state = !code.strip().contains("\n") && StatementScanner.helpLine(code) != null
                ? StatementScanner.Completeness.COMPLETE : StatementScanner.completeness(code);
        c.addProperty("status", state.name().toLowerCase(java.util.Locale.ROOT));
        if (state == StatementScanner.Completeness.INCOMPLETE) {
            c.addProperty("indent", "");
        }
        return c;
    }

    /** The char index of a cursor given in code points. */
    private static int charIndex(String code, int cursor) {
        int points = code.codePointCount(0, code.length());
        return code.offsetByCodePoints(0, Math.max(0, Math.min(cursor, points)));
    }

    /** The name around the char index: [start, end). */
    private static int[] nameAt(String code, int at, boolean through) {
        int start = at;
        while (start > 0 && StatementScanner.isNameChar(code.charAt(start - 1))) {
            start--;
        }
        int end = at;
        while (through && end < code.length() && StatementScanner.isNameChar(code.charAt(end))) {
            end++;
        }
        return new int[] {start, end};
    }

    private JsonObject complete(JsonObject content) {
        String code = string(content, "code", "");
        int cursor = integer(content, "cursor_pos", code.codePointCount(0, code.length()));
        int at = charIndex(code, cursor);
        int[] name = nameAt(code, at, false);
        String prefix = code.substring(name[0], at);
        JsonArray matches = new JsonArray();
        for (String n : knownNames(prefix)) {
            matches.add(n);
        }
        JsonObject c = ok();
        c.add("matches", matches);
        c.addProperty("cursor_start", code.codePointCount(0, name[0]));
        c.addProperty("cursor_end", cursor);
        c.add("metadata", new JsonObject());
        return c;
    }

    /** The names the kernel knows (built-in and assigned) that start with the prefix, a name's start. */
    private List<String> knownNames(String prefix) {
        List<String> names = new ArrayList<>();
        String query = StatementScanner.knownNamesQuery(prefix);
        try {
            Algebraic list = query == null ? null : engine.evaluate(query);
            if (list != null && list.toJava() instanceof List<?> l) {
                for (Object o : l) {
                    names.add(String.valueOf(o));
                }
            }
        } catch (VexelException e) {
            // no names
        }
        return names;
    }

    private JsonObject inspect(JsonObject content) {
        String code = string(content, "code", "");
        int cursor = integer(content, "cursor_pos", 0);
        int at = charIndex(code, cursor);
        int[] name = nameAt(code, at, true);
        String topic = code.substring(name[0], name[1]);
        if (topic.isEmpty()) {
            topic = calledName(code, at);
        }
        JsonObject c = ok();
        c.add("metadata", new JsonObject());
        String help = help(topic, Engine.VEXEL_HELP_ALL);
        c.addProperty("found", help != null);
        c.add("data", help != null ? helpData(help) : new JsonObject());
        return c;
    }

    /**
     * The name of the call whose arguments the cursor is in, as in "seq(" or
     * "seq(i, i = 1.." with the cursor at the end; empty when there is none.
     */
    static String calledName(String code, int at) {
        int depth = 0;
        for (int i = at - 1; i >= 0; i--) {
            char ch = code.charAt(i);
            if (ch == ')' || ch == ']' || ch == '}') {
                depth++;
            } else if (ch == '[' || ch == '{') {
                depth = Math.max(0, depth - 1);
            } else if (ch == '(') {
                if (depth > 0) {
                    depth--;
                    continue;
                }
                int end = i;
                while (end > 0 && Character.isWhitespace(code.charAt(end - 1))) {
                    end--;
                }
                int[] name = nameAt(code, end, false);
                if (name[0] < end) {
                    return code.substring(name[0], end);
                }
            } else if (ch == ';' || ch == ':' && !(i + 1 < code.length() && code.charAt(i + 1) == '=')) {
                break;
            }
        }
        return "";
    }

    /** The kernel's help on a topic as plain text, or null when it has none (or no topic is given). */
    private String help(String topic, int section) {
        if (topic.isEmpty()) {
            return null;
        }
        try {
            return engine.getHelpText(topic, section, 80);
        } catch (VexelException e) {
            return null;
        }
    }

    private JsonObject history(JsonObject content) {
        String type = string(content, "hist_access_type", "tail");
        boolean withOutput = bool(content, "output", false);
        List<HistoryEntry> chosen = new ArrayList<>();
        switch (type) {
            case "tail" -> {
                int n = integer(content, "n", 10);
                chosen.addAll(history.subList(Math.max(0, history.size() - n), history.size()));
            }
            case "range" -> {
                int start = integer(content, "start", 1);
                int stop = integer(content, "stop", Integer.MAX_VALUE);
                for (HistoryEntry e : history) {
                    if (e.line() >= start && e.line() < stop) {
                        chosen.add(e);
                    }
                }
            }
            case "search" -> {
                String pattern = string(content, "pattern", "*");
                Pattern glob = glob(pattern);
                java.util.Set<String> seen = new java.util.HashSet<>();
                boolean unique = bool(content, "unique", false);
                for (int i = history.size() - 1; i >= 0; i--) {
                    HistoryEntry e = history.get(i);
                    if (glob.matcher(e.input()).matches() && (!unique || seen.add(e.input()))) {
                        chosen.add(0, e);
                    }
                }
                int n = integer(content, "n", Integer.MAX_VALUE);
                chosen = new ArrayList<>(chosen.subList(Math.max(0, chosen.size() - n), chosen.size()));
            }
            default -> {
            }
        }
        JsonArray list = new JsonArray();
        for (HistoryEntry e : chosen) {
            JsonArray row = new JsonArray();
            row.add(1);
            row.add(e.line());
            if (withOutput) {
                JsonArray io = new JsonArray();
                io.add(e.input());
                io.add(e.output());
                row.add(io);
            } else {
                row.add(e.input());
            }
            list.add(row);
        }
        JsonObject c = ok();
        c.add("history", list);
        return c;
    }

    /** A history search's glob pattern: * any text, ? any one character, everything else itself. */
    private static Pattern glob(String pattern) {
        StringBuilder regex = new StringBuilder();
        StringBuilder literal = new StringBuilder();
        for (char ch : pattern.toCharArray()) {
            if (ch == '*' || ch == '?') {
                if (literal.length() > 0) {
                    regex.append(Pattern.quote(literal.toString()));
                    literal.setLength(0);
                }
                regex.append(ch == '*' ? ".*" : ".");
            } else {
                literal.append(ch);
            }
        }
        if (literal.length() > 0) {
            regex.append(Pattern.quote(literal.toString()));
        }
        return Pattern.compile(regex.toString(), Pattern.DOTALL);
    }

    // ---- shutdown ----

    /**
     * Answers and exits, whatever the restart flag says: the kernel manager
     * that asked for a restart starts a new process itself.
     */
    private void shutdown(ZMQ.Socket socket, Channels.Message m) {
        JsonObject c = ok();
        c.addProperty("restart", bool(m.content, "restart", false));
        interrupt();
        reply(socket, m, "shutdown_reply", c);
        publish("shutdown_reply", c, m);
        publishStatus("idle", m);
        running = false;
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
