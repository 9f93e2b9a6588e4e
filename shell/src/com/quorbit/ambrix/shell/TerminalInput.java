package com.quorbit.ambrix.shell;

import java.io.IOException;
import java.nio.file.Path;
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

    private TerminalInput(Terminal terminal, Path history) {
        this.terminal = terminal;
        this.statements = reader(terminal, history);
        this.answers = reader(terminal, null);
    }

    private static LineReader reader(Terminal terminal, Path history) {
        // A quote or a backslash never holds the line open: the statement
        // scanner decides where a statement ends.
        DefaultParser parser = new DefaultParser();
        parser.setEofOnUnclosedQuote(false);
        parser.setEofOnEscapedNewLine(false);
        LineReaderBuilder builder = LineReaderBuilder.builder().terminal(terminal).appName("vexel").parser(parser);
        if (history != null) {
            builder.variable(LineReader.HISTORY_FILE, history);
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
     * @throws IOException when the terminal cannot be opened
     */
    static TerminalInput open(Runnable onInterrupt) throws IOException {
        Terminal terminal = TerminalBuilder.builder().system(true).nativeSignals(true).build();
        terminal.handle(Terminal.Signal.INT, signal -> onInterrupt.run());
        String home = System.getenv("HOME");
        if (home == null || home.isEmpty()) {
            home = System.getProperty("user.home");
        }
        return new TerminalInput(terminal, Path.of(home, HISTORY_FILE));
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
