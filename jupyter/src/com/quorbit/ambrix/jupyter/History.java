package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonArray;
import com.google.gson.JsonObject;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.regex.Pattern;

/** The executed cells, and history_request: the last n, a range of lines, or a search. */
final class History {
    private record Entry(int line, String input, String output) {
    }

    private final List<Entry> entries = new ArrayList<>();

    void register(MessageLoop loop) {
        loop.answer("history_request", this::request);
    }

    void add(int line, String input, String output) {
        entries.add(new Entry(line, input, output));
    }

    private JsonObject request(JsonObject content) {
        String type = Json.string(content, "hist_access_type", "tail");
        boolean withOutput = Json.bool(content, "output", false);
        List<Entry> chosen = new ArrayList<>();
        switch (type) {
            case "tail" -> {
                int n = Json.integer(content, "n", 10);
                chosen.addAll(entries.subList(Math.max(0, entries.size() - n), entries.size()));
            }
            case "range" -> {
                int start = Json.integer(content, "start", 1);
                int stop = Json.integer(content, "stop", Integer.MAX_VALUE);
                for (Entry e : entries) {
                    if (e.line() >= start && e.line() < stop) {
                        chosen.add(e);
                    }
                }
            }
            case "search" -> {
                String pattern = Json.string(content, "pattern", "*");
                Pattern glob = glob(pattern);
                Set<String> seen = new HashSet<>();
                boolean unique = Json.bool(content, "unique", false);
                for (int i = entries.size() - 1; i >= 0; i--) {
                    Entry e = entries.get(i);
                    if (glob.matcher(e.input()).matches() && (!unique || seen.add(e.input()))) {
                        chosen.add(0, e);
                    }
                }
                int n = Json.integer(content, "n", Integer.MAX_VALUE);
                chosen = new ArrayList<>(chosen.subList(Math.max(0, chosen.size() - n), chosen.size()));
            }
            default -> {
            }
        }
        JsonArray list = new JsonArray();
        for (Entry e : chosen) {
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
        JsonObject c = Json.ok();
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
}
