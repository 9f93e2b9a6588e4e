package com.quorbit.ambrix.shell;

import java.io.IOException;
import java.nio.file.Path;
import java.util.List;
import java.util.function.Function;
import org.jline.reader.Candidate;
import org.jline.reader.EndOfFileException;
import org.jline.reader.LineReader;
import org.jline.reader.LineReaderBuilder;
import org.jline.reader.UserInterruptException;
import org.jline.reader.impl.DefaultParser;
import org.jline.terminal.Terminal;
import org.jline.terminal.TerminalBuilder;

/**
 * Lines typed at a terminal, with JLine's line editing and history. The
 * history is kept in {@code ~/.vexel_history}; Ctrl-R searches it. Ctrl-C
 * clears the line being typed ({@link #INTERRUPT}), Ctrl-D on an empty line
 * ends the input ({@link #EOF}). Between reads, Ctrl-C goes to the handler
 * given to {@link #open}, which stops the running statement.
 */
final class TerminalInput implements LineInput {
    static final String HISTORY_FILE = ".vexel_history";

    private final Terminal terminal;
    /** Statement lines, kept in the history. */
    private final LineReader statements;
    /** Lines the kernel asks for, not kept. */
    private final LineReader answers;

    private TerminalInput(Terminal terminal, Path history, Function<String, List<String>> names) {
        this.terminal = terminal;
        this.statements = reader(terminal, history, names);
        this.answers = reader(terminal, null, null);
    }

    /**
     * Words end at anything that is no name character, so that Tab completes
     * the name under the cursor in "f(pri" as in "pri".
     */
    private static final class NameParser extends DefaultParser {
        @Override
        public boolean isDelimiterChar(CharSequence buffer, int pos) {
            return !StatementScanner.isNameChar(buffer.charAt(pos));
        }
    }

    private static LineReader reader(Terminal terminal, Path history, Function<String, List<String>> names) {
        // A quote or a backslash never holds the line open: the statement
        // scanner decides where a statement ends.
        DefaultParser parser = new NameParser();
        parser.setEofOnUnclosedQuote(false);
        parser.setEofOnEscapedNewLine(false);
        LineReaderBuilder builder = LineReaderBuilder.builder().terminal(terminal).appName("vexel").parser(parser);
        if (history != null) {
            builder.variable(LineReader.HISTORY_FILE, history);
        }
        if (names != null) {
            // Tab: the names the kernel knows that start with the word at the cursor.
            builder.completer((reader, line, candidates) -> {
                String word = line.word().substring(0, line.wordCursor());
                for (String name : names.apply(word)) {
                    candidates.add(new Candidate(name, name, null, null, null, null, false));
                }
            });
        }
        LineReader reader = builder.build();
        // "!" belongs to the statement, not to the history.
        reader.setOpt(LineReader.Option.DISABLE_EVENT_EXPANSION);
        return reader;
    }

    /**
     * Opens the process's terminal.
     *
     * @param onInterrupt runs on each Ctrl-C that arrives while no line is being read
     * @param names       the names to complete a prefix with
     * @throws IOException when the terminal cannot be opened
     */
    static TerminalInput open(Runnable onInterrupt, Function<String, List<String>> names) throws IOException {
        Terminal terminal = TerminalBuilder.builder().system(true).nativeSignals(true).build();
        terminal.handle(Terminal.Signal.INT, signal -> onInterrupt.run());
        String home = System.getenv("HOME");
        if (home == null || home.isEmpty()) {
            home = System.getProperty("user.home");
        }
        return new TerminalInput(terminal, Path.of(home, HISTORY_FILE), names);
    }

    @Override
    public Object take(String prompt) {
        return read(statements, prompt);
    }

    @Override
    public Object answer() {
        return read(answers, null);
    }

    private static Object read(LineReader reader, String prompt) {
        try {
            return reader.readLine(prompt);
        } catch (UserInterruptException e) {
            return INTERRUPT;
        } catch (EndOfFileException e) {
            return EOF;
        }
    }

    @Override
    public boolean endsLine() {
        return true;
    }

    /** JLine itself ends a read on Ctrl-C. */
    @Override
    public void interrupt() {
    }

    @Override
    public void clearInterrupts() {
    }

    @Override
    public void close() {
        try {
            statements.getHistory().save();
        } catch (IOException e) {
            System.err.println("vexel: cannot save the history: " + e.getMessage());
        }
        try {
            terminal.close();
        } catch (IOException e) {
            // the process ends anyway
        }
    }
}
