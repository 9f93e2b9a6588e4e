package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonArray;
import com.google.gson.JsonObject;
import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.shell.StatementScanner;
import com.quorbit.externalcall.VexelException;
import java.util.ArrayList;
import java.util.List;
import java.util.Locale;

/**
 * What the notebook asks about code without running it: whether it is
 * complete (is_complete), the names that complete it (complete), and help
 * on the name at the cursor (inspect). Cursors count code points.
 */
final class Introspection {
    private final Engine engine;

    Introspection(Engine engine) {
        this.engine = engine;
    }

    void register(MessageLoop loop) {
        loop.answer("is_complete_request", Introspection::isComplete);
        loop.answerWithKernel("complete_request", this::complete);
        loop.answerWithKernel("inspect_request", this::inspect);
    }

    private static JsonObject isComplete(JsonObject content) {
        String code = Json.string(content, "code", "");
        JsonObject c = new JsonObject();
        // A help line ("?name") is whole by itself, as in the shell.
        StatementScanner.Completeness state = !code.strip().contains("\n") && StatementScanner.helpLine(code) != null
                ? StatementScanner.Completeness.COMPLETE : StatementScanner.completeness(code);
        c.addProperty("status", state.name().toLowerCase(Locale.ROOT));
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
        String code = Json.string(content, "code", "");
        int cursor = Json.integer(content, "cursor_pos", code.codePointCount(0, code.length()));
        int at = charIndex(code, cursor);
        int[] name = nameAt(code, at, false);
        String prefix = code.substring(name[0], at);
        JsonArray matches = new JsonArray();
        for (String n : knownNames(prefix)) {
            matches.add(n);
        }
        JsonObject c = Json.ok();
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
        String code = Json.string(content, "code", "");
        int cursor = Json.integer(content, "cursor_pos", 0);
        int at = charIndex(code, cursor);
        int[] name = nameAt(code, at, true);
        String topic = code.substring(name[0], name[1]);
        if (topic.isEmpty()) {
            topic = calledName(code, at);
        }
        JsonObject c = Json.ok();
        c.add("metadata", new JsonObject());
        String help = help(topic, Engine.VEXEL_HELP_ALL);
        c.addProperty("found", help != null);
        c.add("data", help != null ? Display.help(help) : new JsonObject());
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
    String help(String topic, int section) {
        if (topic.isEmpty()) {
            return null;
        }
        try {
            return engine.getHelpText(topic, section, 80);
        } catch (VexelException e) {
            return null;
        }
    }
}
