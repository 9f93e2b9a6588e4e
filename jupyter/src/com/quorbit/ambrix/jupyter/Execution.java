package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonArray;
import com.google.gson.JsonObject;
import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.shell.StatementScanner;
import com.quorbit.externalcall.VexelException;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Pattern;
import org.zeromq.ZMQ;

/**
 * execute_request: a cell's statements run in order, as the shell reads
 * its lines, each shown value going out as display data (the last as the
 * cell's result), the first error ending the cell. After an error the
 * execute requests queued behind it are aborted.
 */
final class Execution {
    /** Red, as a terminal shows it, for the lines of an error's traceback. */
    private static final String RED = "\u001b[0;31m", PLAIN = "\u001b[0m";
    private static final Pattern MAGIC = Pattern.compile("\\s*%\\S.*");
    private static final String OVERVIEW = String.join("\n",
            "Statements end with ';' (the value is shown) or ':' (silent), and may span lines.",
            "  ?topic     help on a topic, for example ?print",
            "  ??topic    usage only;  ???topic  examples only",
            "  Tab        completes names; Shift-Tab shows help on the name at the cursor");

    private final MessageLoop loop;
    private final Engine engine;
    private final CellOutput output;
    private final Display display;
    private final Introspection introspection;
    private final History history;
    private int executionCount;

    Execution(MessageLoop loop, Engine engine, CellOutput output, Display display, Introspection introspection,
            History history) {
        this.loop = loop;
        this.engine = engine;
        this.output = output;
        this.display = display;
        this.introspection = introspection;
        this.history = history;
    }

    void register(MessageLoop loop) {
        loop.on("execute_request", loop.withKernel(this::execute));
    }

    private void execute(ZMQ.Socket socket, Channels.Message m) {
        if (socket != loop.shell) {
            // A cell on the control thread would keep interrupts waiting behind it.
            loop.reply(socket, m, "execute_reply", Json.error("BadChannel", "cells run on the shell channel"));
            return;
        }
        String code = Json.string(m.content, "code", "");
        boolean silent = Json.bool(m.content, "silent", false);
        boolean store = Json.bool(m.content, "store_history", true) && !silent;
        boolean stopOnError = Json.bool(m.content, "stop_on_error", true);
        output.allowStdin = Json.bool(m.content, "allow_stdin", true);
        if (store) {
            executionCount++;
        }
        int count = executionCount;
        JsonObject input = new JsonObject();
        input.addProperty("code", code);
        input.addProperty("execution_count", count);
        loop.publish("execute_input", input, m);
        output.current = m;
        output.silent = silent;
        output.text.setLength(0);
        JsonObject error = null;
        loop.running(m);
        try {
            error = runCell(code, count, m, silent);
        } finally {
            loop.running(null);
            output.current = null;
        }
        // An interrupt that came during the cell has ended it; it ends the cells waiting now too.
        loop.takeInterrupt(true);
        if (store) {
            history.add(count, code, output.text.toString());
        }
        JsonObject c;
        if (error == null) {
            c = Json.ok();
            c.add("user_expressions", new JsonObject());
            c.add("payload", new JsonArray());
        } else {
            if (!silent) {
                loop.publish("error", error, m);
            }
            c = error.deepCopy();
            c.addProperty("status", "error");
        }
        c.addProperty("execution_count", count);
        // The requests to abort are those that arrived before the error's reply went out: one sent
        // after the client saw the error is meant to run.
        List<Channels.Message> queued = error != null && stopOnError ? loop.waiting() : List.of();
        loop.reply(socket, m, "execute_reply", c);
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
                if (m.interrupted || loop.interruptPending(m)) {
                    throw new VexelException("computation interrupted");
                }
                boolean last = i == steps.size() - 1;
                if (step.magic()) {
                    magic(step.text());
                } else if (step.help()) {
                    String text = helpOrError(step.text(), step.helpLevel());
                    if (!silent) {
                        show(step.text().isEmpty() ? Display.plain(text) : Display.help(text), false, count, m);
                    }
                } else {
                    Algebraic value = evaluate(step.text());
                    JsonObject data = value == null || silent ? null : display.value(value);
                    if (data != null) {
                        show(data, last, count, m);
                    }
                }
            } catch (VexelException e) {
                return error(e, step);
            }
        }
        return null;
    }

    /** An error's content: its message in red, and for a statement's parse error the user's line and a caret. */
    private JsonObject error(VexelException e, Step step) {
        JsonObject error = new JsonObject();
        error.addProperty("ename", "Error");
        error.addProperty("evalue", String.valueOf(e.getMessage()));
        JsonArray traceback = new JsonArray();
        traceback.add(RED + "Error, " + e.getMessage() + PLAIN);
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
            display.typeset(words[1].equals("latex"));
            return;
        }
        throw new VexelException("unknown notebook command " + line + "; %display plain and %display latex are known");
    }

    /** A help line's text: levels 1, 2, 3 are all sections, usage, examples; no topic gives an overview. */
    private String helpOrError(String topic, int level) {
        if (topic.isEmpty()) {
            return OVERVIEW;
        }
        String text = introspection.help(topic, StatementScanner.HelpLine.section(level));
        if (text == null) {
            throw new VexelException("no help for " + topic);
        }
        return text;
    }

    /** A value shown: display data, or the cell's result when it is its last step. */
    private void show(JsonObject data, boolean last, int count, Channels.Message m) {
        String shown = data.get("text/plain").getAsString();
        JsonObject c = new JsonObject();
        c.add("data", data);
        c.add("metadata", new JsonObject());
        output.text.append(shown).append('\n');
        if (last) {
            c.addProperty("execution_count", count);
            loop.publish("execute_result", c, m);
        } else {
            loop.publish("display_data", c, m);
        }
    }

    /**
     * After an error, the execute requests that were queued are answered
     * "aborted", as the protocol says. The reply has no execution count, as
     * the Python kernel's: a cell that never ran shows no number.
     */
    private void abort(List<Channels.Message> queued) {
        for (Channels.Message q : queued) {
            if (!q.type().equals("execute_request")) {
                loop.handle(loop.shell, q);
                continue;
            }
            loop.publishStatus("busy", q);
            JsonObject c = new JsonObject();
            c.addProperty("status", "aborted");
            loop.reply(loop.shell, q, "execute_reply", c);
            loop.publishStatus("idle", q);
        }
    }
}
