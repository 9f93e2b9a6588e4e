package com.quorbit.ambrix.shell;

import java.util.ArrayList;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Splits input lines into complete statements.
 *
 * <p>A statement ends with {@code ;} or {@code :} (but not the {@code :} of
 * {@code :=}) at nesting depth 0: outside string literals {@code "..."},
 * quotes {@code '...'}, back-quoted names, comments ({@code #} to the end of
 * the line), brackets, and blocks opened by {@code proc}, {@code if} or
 * {@code do} and closed by {@code end} (with its optional {@code end proc},
 * {@code end if}, {@code end do}), {@code fi} or {@code od}. So a {@code ;} inside a procedure body does
 * not end the input. Unbalanced closers count as depth 0, so that a stray
 * {@code end} or {@code )} still lets the statement through to the kernel,
 * which reports it. For the same reason a terminator at the end of a line
 * inside an open bracket (not inside a block in it) ends the statement, as
 * in {@code x := (1 + ;}: the kernel reports the syntax error at once, where
 * waiting for the bracket to close would swallow every later line.
 */
public final class StatementScanner {
    /** One complete statement and the input line it starts on (from 1). */
    public record Statement(String text, int line) {
    }

    private static final Pattern HELP = Pattern.compile("(\\?{1,3})\\s*(.*?)\\s*;?\\s*");

    /**
     * A help line, read where a statement would start: {@code ?topic} (level
     * 1, all of the help), {@code ??topic} (2, usage) or {@code ???topic}
     * (3, examples).
     */
    public record HelpLine(String topic, int level) {
        /**
         * The help section a level asks for: 1 all, 2 the usage, 3 the examples.
         *
         * @param level the number of question marks
         * @return one of {@code Engine}'s {@code VEXEL_HELP_*} constants
         */
        public static int section(int level) {
            return switch (level) {
                case 2 -> com.quorbit.ambrix.Engine.VEXEL_HELP_USAGE;
                case 3 -> com.quorbit.ambrix.Engine.VEXEL_HELP_EXAMPLES;
                default -> com.quorbit.ambrix.Engine.VEXEL_HELP_ALL;
            };
        }
    }

    /** The help line this line is, white space around it aside; null when it is none. */
    public static HelpLine helpLine(String line) {
        Matcher m = HELP.matcher(line.strip());
        return m.matches() ? new HelpLine(m.group(2), m.group(1).length()) : null;
    }

    /**
     * The line of the statement that an error's offset falls on, and under it
     * a caret at the offset; none when the offset is outside the statement.
     */
    public static java.util.List<String> caretLines(String statement, int offset) {
        if (offset < 0 || offset > statement.length() || statement.isEmpty()) {
            return java.util.List.of();
        }
        int from = statement.lastIndexOf('\n', offset - 1) + 1;
        int to = statement.indexOf('\n', offset);
        StringBuilder caret = new StringBuilder();
        for (int i = from; i < offset; i++) {
            caret.append(statement.charAt(i) == '\t' ? '\t' : ' ');
        }
        return java.util.List.of(statement.substring(from, to < 0 ? statement.length() : to), caret.append('^').toString());
    }

    /**
     * The statement that asks the kernel for the names it knows (its
     * built-ins and the names assigned so far) that start with the prefix,
     * as a list of strings; null when the prefix cannot start a name, so that
     * nothing but name characters ever becomes statement text.
     */
    public static String knownNamesQuery(String prefix) {
        for (int i = 0; i < prefix.length(); i++) {
            if (!isNameChar(prefix.charAt(i))) {
                return null;
            }
        }
        return "knownnames(\"" + prefix + "\"):";
    }

    /** A character of a name: an ASCII letter, digit or underscore. */
    public static boolean isNameChar(char c) {
        return c < 128 && (Character.isLetterOrDigit(c) || c == '_');
    }

    /** Whether a piece of code is ready to run. */
    public enum Completeness {
        /** Every statement in it is ended (or it holds none). */
        COMPLETE,
        /** A statement, string, bracket or block is still open: more lines would continue it. */
        INCOMPLETE,
        /** A bracket or block is closed that was never opened. */
        INVALID
    }

    /** Whether the code is complete, as a front end that reads lines asks. */
    public static Completeness completeness(String code) {
        StatementScanner scanner = new StatementScanner();
        for (String line : code.split("\n", -1)) {
            scanner.addLine(line);
            if (scanner.unbalanced) {
                return Completeness.INVALID;
            }
        }
        return scanner.isEmpty() ? Completeness.COMPLETE : Completeness.INCOMPLETE;
    }

    /** Set when a closer met no opener. */
    private boolean unbalanced;

    /** A scanner with nothing pending. */
    public StatementScanner() {
    }

    private final StringBuilder pending = new StringBuilder();
    /** Line number of the first line in {@code pending}. */
    private int pendingLine = 1;
    /** Line number of the next line to be added. */
    private int nextLine = 1;

    /**
     * Adds one line of input.
     *
     * @param line the line, without its terminator
     * @return the statements completed by this line, in order, leading white
     *         space removed
     */
    public java.util.List<Statement> addLine(String line) {
        if (pending.length() == 0) {
            pendingLine = nextLine;
        } else {
            pending.append('\n');
        }
        pending.append(line);
        nextLine++;
        return scan();
    }

    /** True when no partial statement is waiting for more lines. */
    public boolean isEmpty() {
        return pending.length() == 0;
    }

    /** Forgets the partial statement. */
    void clear() {
        pending.setLength(0);
    }

    /**
     * Takes the unfinished rest of the input (at the end of input, where a
     * missing terminator counts as {@code ;}).
     *
     * @return the rest, or null when there is none
     */
    public Statement takeRest() {
        if (pending.length() == 0) {
            return null;
        }
        Statement s = statement(0, pending.length());
        pending.setLength(0);
        return s;
    }

    private java.util.List<Statement> scan() {
        java.util.List<Statement> done = new ArrayList<>();
        String text = pending.toString();
        int n = text.length();
        int start = 0;
        int brackets = 0;
        int blocks = 0;
        // The brackets and blocks open here, innermost last: '(' for a bracket, 'b' for a block.
        StringBuilder open = new StringBuilder();
        boolean afterEnd = false; // the previous word was "end"
        int i = 0;
        while (i < n) {
            char c = text.charAt(i);
            if (c == '"' || c == '\'' || c == '`') {
                i = skipQuoted(text, i, c);
                afterEnd = false;
                continue;
            }
            if (c == '#') {
                int eol = text.indexOf('\n', i);
                i = eol < 0 ? n : eol;
                continue;
            }
            if (Character.isLetter(c) || c == '_') {
                int j = i + 1;
                while (j < n && (Character.isLetterOrDigit(text.charAt(j)) || text.charAt(j) == '_')) {
                    j++;
                }
                String word = text.substring(i, j);
                if (word.equals("end") || word.equals("fi") || word.equals("od")) {
                    unbalanced |= blocks == 0;
                    blocks = Math.max(0, blocks - 1);
                    close(open, 'b');
                    afterEnd = word.equals("end");
                } else {
                    if (!afterEnd && (word.equals("proc") || word.equals("if") || word.equals("do"))) {
                        blocks++;
                        open.append('b');
                    }
                    afterEnd = false;
                }
                i = j;
                continue;
            }
            if (Character.isDigit(c)) {
                // Numbers such as 1e5 must not be read as words.
                int j = i + 1;
                while (j < n && Character.isLetterOrDigit(text.charAt(j))) {
                    j++;
                }
                i = j;
                afterEnd = false;
                continue;
            }
            if (!Character.isWhitespace(c)) {
                afterEnd = false;
            }
            switch (c) {
                case '(', '[', '{' -> {
                    brackets++;
                    open.append('(');
                }
                case ')', ']', '}' -> {
                    unbalanced |= brackets == 0;
                    brackets = Math.max(0, brackets - 1);
                    close(open, '(');
                }
                case ';', ':' -> {
                    boolean assignment = c == ':' && i + 1 < n
                            && (text.charAt(i + 1) == '=' || text.charAt(i + 1) == ':');
                    boolean inBracket = open.length() > 0 && open.charAt(open.length() - 1) == '(';
                    if (assignment) {
                        i++; // skip the second character of := or ::
                    } else if (brackets == 0 && blocks == 0 || inBracket && endsLine(text, i + 1)) {
                        brackets = 0;
                        blocks = 0;
                        open.setLength(0);
                        Statement s = statement(start, i + 1);
                        if (s != null) {
                            done.add(s);
                        }
                        start = i + 1;
                    }
                }
                default -> {
                }
            }
            i++;
        }
        pending.delete(0, start);
        if (start > 0) {
            pendingLine += countNewlines(text, 0, start);
        }
        if (isBlank(pending)) {
            pending.setLength(0);
        }
        return done;
    }

    /** Closes the innermost open construct of a kind ('(' or 'b'), and any left open inside it. */
    private static void close(StringBuilder open, char kind) {
        int at = open.lastIndexOf(String.valueOf(kind));
        if (at >= 0) {
            open.setLength(at);
        }
    }

    /** True when only blanks, or blanks and a comment, follow position i on its line. */
    private static boolean endsLine(String text, int i) {
        while (i < text.length() && (text.charAt(i) == ' ' || text.charAt(i) == '\t' || text.charAt(i) == '\r')) {
            i++;
        }
        return i == text.length() || text.charAt(i) == '\n' || text.charAt(i) == '#';
    }

    /** The statement text[from, to) with leading white space removed, or null if that is all it has. */
    private Statement statement(int from, int to) {
        String text = pending.toString();
        int s = from;
        while (s < to && Character.isWhitespace(text.charAt(s))) {
            s++;
        }
        if (s == to) {
            return null;
        }
        return new Statement(text.substring(s, to), pendingLine + countNewlines(text, 0, s));
    }

    /** Returns the index after the closing quote, or the end of the text. */
    private static int skipQuoted(String text, int open, char quote) {
        int i = open + 1;
        while (i < text.length()) {
            char c = text.charAt(i);
            if (c == '\\' && quote == '"') {
                i += 2;
                continue;
            }
            if (c == quote) {
                return i + 1;
            }
            i++;
        }
        return text.length();
    }

    private static int countNewlines(String text, int from, int to) {
        int count = 0;
        for (int i = from; i < to; i++) {
            if (text.charAt(i) == '\n') {
                count++;
            }
        }
        return count;
    }

    /** True when the text holds only white space and comments. */
    private static boolean isBlank(CharSequence text) {
        boolean comment = false;
        for (int i = 0; i < text.length(); i++) {
            char c = text.charAt(i);
            if (comment) {
                comment = c != '\n';
            } else if (c == '#') {
                comment = true;
            } else if (!Character.isWhitespace(c)) {
                return false;
            }
        }
        return true;
    }
}
