package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonArray;
import com.google.gson.JsonObject;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.List;
import java.util.Set;

/**
 * The executed cells, and history_request: the last n, a range of lines, or
 * a search. Served on either channel: the shell thread adds, any may read.
 */
final class History {
    private record Entry(int line, String input, String output) {
    }

    private final List<Entry> entries = new ArrayList<>();

    void register(MessageLoop loop) {
        loop.answer("history_request", this::request);
    }

    synchronized void add(int line, String input, String output) {
        entries.add(new Entry(line, input, output));
    }

    /** The entries asked for; a request that cannot be met throws, and its reply is an error. */
    private synchronized JsonObject request(JsonObject content) {
        String type = Json.string(content, "hist_access_type", "tail");
        boolean withOutput = Json.bool(content, "output", false);
        List<Entry> chosen = new ArrayList<>();
        switch (type) {
            case "tail" -> chosen.addAll(last(entries, count(content, 10)));
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
                int[] glob = Json.string(content, "pattern", "*").codePoints().toArray();
                int n = count(content, Integer.MAX_VALUE);
                Set<String> seen = new HashSet<>();
                boolean unique = Json.bool(content, "unique", false);
                for (int i = entries.size() - 1; i >= 0; i--) {
                    Entry e = entries.get(i);
                    if (globMatches(glob, e.input().codePoints().toArray()) && (!unique || seen.add(e.input()))) {
                        chosen.add(0, e);
                    }
                }
                chosen = last(chosen, n);
            }
            default -> throw new IllegalArgumentException("unknown hist_access_type " + type
                    + "; tail, range and search are known");
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

    private static int count(JsonObject content, int otherwise) {
        int n = Json.integer(content, "n", otherwise);
        if (n < 0) {
            throw new IllegalArgumentException("n is " + n + "; it must be 0 or more");
        }
        return n;
    }

    private static List<Entry> last(List<Entry> list, int n) {
        return new ArrayList<>(list.subList(Math.max(0, list.size() - n), list.size()));
    }

    /**
     * Whether the text matches the glob pattern: * any text, ? any one
     * character, everything else itself. The pieces between stars have fixed
     * lengths, so each is taken at its leftmost place after the one before:
     * the first at the start, the last at the end. Nothing is tried twice,
     * and the time is at most the text's length times the pattern's.
     */
    static boolean globMatches(int[] pattern, int[] text) {
        List<int[]> pieces = new ArrayList<>();
        int from = 0;
        for (int i = 0; i <= pattern.length; i++) {
            if (i == pattern.length || pattern[i] == '*') {
                pieces.add(Arrays.copyOfRange(pattern, from, i));
                from = i + 1;
            }
        }
        int[] first = pieces.get(0);
        if (pieces.size() == 1) {
            return first.length == text.length && matchesAt(first, text, 0);
        }
        int[] lastPiece = pieces.get(pieces.size() - 1);
        int end = text.length - lastPiece.length;
        if (end < first.length || !matchesAt(first, text, 0) || !matchesAt(lastPiece, text, end)) {
            return false;
        }
        int at = first.length;
        for (int[] piece : pieces.subList(1, pieces.size() - 1)) {
            while (at + piece.length <= end && !matchesAt(piece, text, at)) {
                at++;
            }
            if (at + piece.length > end) {
                return false;
            }
            at += piece.length;
        }
        return true;
    }

    private static boolean matchesAt(int[] piece, int[] text, int at) {
        for (int k = 0; k < piece.length; k++) {
            if (piece[k] != '?' && piece[k] != text[at + k]) {
                return false;
            }
        }
        return true;
    }
}
