package com.quorbit.ambrix.shell;

import com.quorbit.ambrix.EngineCallBacksDefault;
import com.quorbit.externalcall.VexelException;
import java.io.FileNotFoundException;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.PrintStream;

/**
 * The shell's side of the kernel's callbacks.
 *
 * <p>Text goes to the terminal, or to the file named by {@code writeto} /
 * {@code appendto} until {@code writeto(terminal)}. Errors are printed, with a
 * caret under the place of a parse error, and counted; they never end the
 * shell. {@code readline()} reads the next line of the shell's input. The
 * {@code callback(s)} call answers with its argument. Two streams are known:
 * {@code streamcall("echo", s1, ...)} answers with its arguments joined by
 * spaces and {@code streamcall("getenv", name)} with the value of an
 * environment variable (empty if unset); other stream names are an error.
 */
final class ShellCallBacks extends EngineCallBacksDefault {
    private final PrintStream terminal;
    private final LineInput input;
    private final Interrupts interrupts;

    /** Where text goes: the terminal, or a file while output is redirected. */
    private PrintStream sink;
    private PrintStream redirected;

    /** The statement being evaluated, for the caret under a parse error. */
    private String statement = "";
    /** Where that statement comes from ("file.vx:3: "), or "" at the prompt. */
    private String fileName = "";
    private int statementLine;
    private int errors;

    ShellCallBacks(PrintStream terminal, LineInput input, Interrupts interrupts) {
        this.terminal = terminal;
        this.sink = terminal;
        this.input = input;
        this.interrupts = interrupts;
    }

    /** Sets the statement that the next errors belong to. */
    void beginStatement(String text, String file, int line) {
        statement = text;
        fileName = file;
        statementLine = line;
    }

    /** The plots written so far; the next takes the first free number after them. */
    private int plots;

    /**
     * Writes a plot to vexel-plot-N.svg in the working folder, N the first
     * number whose file does not exist yet; its name, for the user.
     */
    String plotFile(String svg) {
        while (true) {
            java.nio.file.Path file = java.nio.file.Path.of("vexel-plot-" + ++plots + ".svg");
            try {
                java.nio.file.Files.writeString(file, svg, java.nio.charset.StandardCharsets.UTF_8,
                        java.nio.file.StandardOpenOption.CREATE_NEW, java.nio.file.StandardOpenOption.WRITE);
                return file.toString();
            } catch (java.nio.file.FileAlreadyExistsException e) {
                // taken: the next number
            } catch (IOException e) {
                throw new VexelException("cannot write the plot to %1: %2", file.toString(), String.valueOf(e));
            }
        }
    }

    /** Prints a line where the kernel's text goes. */
    void out(String line) {
        sink.println(line);
        sink.flush();
    }

    /** Counts a statement that failed without a kernel error (its kernel process ended). */
    void countFailure() {
        errors++;
    }

    /** The number of errors reported so far. */
    int errorCount() {
        return errors;
    }

    /** Ends any redirection and flushes the output. */
    void close() {
        endRedirection();
        terminal.flush();
    }

    /**
     * Prints an error: {@code Error, message}, and for an offset into the
     * current statement the line it falls on with a caret under it.
     */
    void reportError(String message, int offset) {
        errors++;
        sink.flush();
        newLineAfterEcho(terminal);
        String text = statement;
        boolean located = offset >= 0 && offset <= text.length();
        String where = "";
        if (!fileName.isEmpty()) {
            int line = statementLine + (located ? newlinesBefore(text, offset) : 0);
            where = fileName + ":" + line + ": ";
        }
        terminal.println(where + "Error, " + message);
        StatementScanner.caretLines(text, offset).forEach(terminal::println);
        terminal.flush();
    }

    /** Ends the line of a "^C" that the terminal echoed during a kernel call, so that a message starts a line. */
    void newLineAfterEcho(PrintStream where) {
        if (interrupts.takeEchoed() && System.console() != null) {
            where.println();
        }
    }

    @Override
    public void textCallBack(Object data, int tag, String output) {
        String text = shownText(tag, output);
        if (text.endsWith("\n")) {
            sink.print(text);
        } else {
            sink.println(text);
        }
        sink.flush();
    }

    @Override
    public void errorCallBack(Object data, int offset, String message) {
        reportError(message, offset);
    }

    @Override
    public void statusCallBack(Object data, long kilobytesUsed, long kilobytesAlloc, double cpuTime) {
        terminal.println(statusLine(kilobytesUsed, kilobytesAlloc, cpuTime));
        terminal.flush();
    }

    @Override
    public String readLineCallBack(Object data, boolean debug) {
        terminal.flush();
        Interrupts.Mode before = interrupts.mode();
        interrupts.enter(Interrupts.Mode.READING);
        Object item;
        try {
            item = input.answer();
        } finally {
            interrupts.enter(before);
        }
        if (item == LineInput.INTERRUPT) {
            throw new VexelException("computation interrupted");
        }
        return item instanceof String line ? line : "";
    }

    @Override
    public boolean redirectCallBack(Object data, String name, boolean append) {
        if (name == null) {
            endRedirection();
            return true;
        }
        PrintStream file;
        try {
            file = new PrintStream(new FileOutputStream(name, append), true);
        } catch (FileNotFoundException | SecurityException e) {
            return false;
        }
        endRedirection();
        redirected = file;
        sink = file;
        return true;
    }

    @Override
    public String callBackCallBack(Object data, String output) {
        return output;
    }

    @Override
    public boolean queryInterrupt(Object data) {
        return interrupts.poll();
    }

    @Override
    public String streamCallBack(Object data, String name, String[] args) {
        String[] a = args == null ? new String[0] : args;
        switch (name) {
            case "echo":
                return String.join(" ", a);
            case "getenv": {
                if (a.length != 1) {
                    throw new VexelException("getenv expects 1 argument, got %1", a.length);
                }
                String value = System.getenv(a[0]);
                return value == null ? "" : value;
            }
            case "plot":
                if (a.length != 1) {
                    throw new VexelException("plot expects 1 argument, got %1", a.length);
                }
                out(plotFile(a[0]));
                return "";
            default:
                throw new VexelException("unknown stream %1", name);
        }
    }

    private void endRedirection() {
        if (redirected != null) {
            redirected.close();
            redirected = null;
        }
        sink = terminal;
    }

    private static int newlinesBefore(String text, int offset) {
        int count = 0;
        for (int i = 0; i < offset; i++) {
            if (text.charAt(i) == '\n') {
                count++;
            }
        }
        return count;
    }
}
