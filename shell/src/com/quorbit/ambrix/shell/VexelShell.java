package com.quorbit.ambrix.shell;

import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.KernelErrorException;
import com.quorbit.ambrix.pool.EnginePool;
import com.quorbit.ambrix.pool.Result;
import com.quorbit.ambrix.pool.Session;
import com.quorbit.ambrix.pool.WorkerLostException;
import com.quorbit.externalcall.VexelException;
import java.io.File;
import java.io.IOException;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * The Vexel shell: an interactive console for the Vexel kernel.
 *
 * <pre>
 * vexel [--isolated] [kernel options] [file ...]
 * </pre>
 *
 * <p>{@code --isolated} runs the kernel in a worker process: a crash of the
 * kernel ends only that process, and the shell goes on with a new kernel.
 *
 * <p>Arguments starting with {@code -} are start options for the kernel
 * ({@code -q} for no banner, {@code --gcthreshold=N}); {@code --} ends them.
 * {@code --version} prints the versions of ambrix and of the kernel.
 * Without files the shell reads statements from standard input, prompting
 * when it is a terminal. With files it runs their statements in order.
 *
 * <p>The banner follows one rule, with the kernel in process or isolated:
 * it is shown when the shell reads a terminal, never for files or input
 * from a pipe, and never with {@code -q}. The shell prints it (the kernel
 * always starts quiet), so both modes show the same one.
 *
 * <p>The exit status: reading anything but a terminal (files, or standard
 * input from a pipe or a file), the shell exits with status 1 if any
 * statement failed, 0 otherwise (130 when Ctrl-C ended a file's run); an
 * interactive session at a terminal exits with 0.
 *
 * <p>At the prompt:
 * <ul>
 * <li>a statement ends with {@code ;} (its value is printed) or {@code :}
 * (silent), and may span several lines;
 * <li>{@code ?topic} shows help on a topic, {@code ??topic} its usage only,
 * {@code ???topic} its examples only;
 * <li>{@code quit}, {@code done} or {@code stop} ends the shell, as does the
 * end of input;
 * <li>Ctrl-C stops the running statement, or drops the partly typed one.
 * </ul>
 *
 * <p>At a terminal, lines are read with JLine: they can be edited, and the
 * history is kept in {@code ~/.vexel_history} (Ctrl-R searches it); Ctrl-D
 * on an empty line ends the shell. Input from a pipe or a file is read as
 * plain lines.
 */
public final class VexelShell {
    private static final java.util.logging.Logger POOL_LOG =
            java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool");
    private static final String PROMPT = "> ";
    private static final String CONTINUATION_PROMPT = ">> ";
    private static final Pattern STOP_WORD = Pattern.compile("(quit|done|stop)\\s*[;:]?");

    private final PrintStream out = System.out;
    private final Interrupts interrupts = new Interrupts();
    private LineInput input;
    private ShellCallBacks callbacks;
    private Engine engine;
    /** With --isolated: the pool of one worker, and the session on it. */
    private EnginePool pool;
    private volatile Session session;
    private boolean stopped;
    /** A file run was ended by Ctrl-C. */
    private boolean interrupted;

    private VexelShell() {
    }

    /**
     * Runs the shell.
     *
     * @param args kernel options and files to run
     */
    public static void main(String[] args) {
        System.exit(new VexelShell().run(args));
    }

    private int run(String[] args) {
        boolean isolated = false;
        java.util.List<String> kernelArgs = new ArrayList<>();
        java.util.List<String> files = new ArrayList<>();
        boolean options = true;
        for (String a : args) {
            if (options && a.equals("--")) {
                options = false;
            } else if (options && a.equals("--isolated")) {
                isolated = true;
            } else if (options && (a.equals("-h") || a.equals("--help"))) {
                usage(out);
                return 0;
            } else if (options && a.equals("--version")) {
                return version();
            } else if (options && a.startsWith("-") && a.length() > 1) {
                kernelArgs.add(a);
            } else {
                files.add(a);
            }
        }
        // Read the files first, so that a missing one fails before the kernel starts.
        java.util.List<SourceFile> sources = new ArrayList<>();
        for (String name : files) {
            try {
                sources.add(new SourceFile(new File(name).getName(),
                        Files.readAllLines(Path.of(name), StandardCharsets.UTF_8)));
            } catch (NoSuchFileException e) {
                System.err.println("vexel: " + name + ": no such file");
                return 2;
            } catch (IOException | RuntimeException e) {
                System.err.println("vexel: cannot read " + name + ": " + e);
                return 2;
            }
        }
        boolean terminal = sources.isEmpty() && System.console() != null;
        boolean banner = terminal && !kernelArgs.contains("-q");
        if (!kernelArgs.contains("-q")) {
            // The shell shows its own banner, in both modes alike: the kernel starts quiet.
            kernelArgs.add(0, "-q");
        }
        input = terminal ? openTerminal() : null;
        if (input == null) {
            input = new InputLines(System.in);
            interrupts.install();
        }
        interrupts.setInput(input);
        callbacks = new ShellCallBacks(out, input, interrupts);
        try {
            if (isolated) {
                startIsolated(kernelArgs);
            } else {
                engine = new Engine(kernelArgs.toArray(new String[0]), callbacks, null);
                interrupts.setEngine(engine);
            }
        } catch (VexelException e) {
            System.err.println("vexel: the kernel did not start: " + e.getMessage());
            return 2;
        } catch (LinkageError e) {
            System.err.println("vexel: cannot load the native library: " + e.getMessage());
            input.close();
            return 2;
        }
        int status;
        try {
            if (banner) {
                banner();
            }
            status = sources.isEmpty() ? interactive(terminal) : runFiles(sources);
        } finally {
            try {
                if (pool != null) {
                    pool.close();
                } else {
                    engine.stop();
                }
            } catch (VexelException e) {
                System.err.println("vexel: " + e.getMessage());
            }
            callbacks.close();
            input.close();
        }
        return status;
    }

    /** The kernel in a worker process, behind a session of a pool of one. */
    private void startIsolated(java.util.List<String> kernelArgs) {
        // The shell says itself what happened to its kernel.
        POOL_LOG.setLevel(java.util.logging.Level.OFF);
        java.time.Duration grace = java.time.Duration.ofSeconds(1);
        pool = EnginePool.builder().workers(1).kernelArguments(kernelArgs.toArray(new String[0])).graceTime(grace)
                .build();
        session = pool.session();
        interrupts.setIsolated(() -> session.interrupt(), () -> session.kill());
    }

    /** A statement in the worker: its output, then its value, as the kernel would print them here. */
    private void evaluateIsolated(String text) {
        try {
            Result r = session.evaluate(text);
            r.output().forEach(out::println);
            r.plots().forEach(svg -> callbacks.out(callbacks.plotFile(svg)));
            if (!r.text().isEmpty()) {
                out.println(r.text());
            }
        } catch (KernelErrorException e) {
            // What the statement printed before its error, as it shows in process.
            e.output().forEach(out::println);
            throw e;
        } catch (WorkerLostException e) {
            out.flush();
            callbacks.newLineAfterEcho(System.err);
            System.err.println("kernel process ended: " + e.reason() + "; a new kernel was started"
                    + " (definitions are lost)");
            callbacks.countFailure();
            session = pool.session();
        }
    }

    /**
     * The names the kernel knows that start with the prefix, for Tab: the
     * same list the notebook completes from. None while a statement runs.
     */
    private java.util.List<String> knownNames(String prefix) {
        String query = StatementScanner.knownNamesQuery(prefix);
        if (query == null) {
            return java.util.List.of();
        }
        try {
            Algebraic here = session != null || engine == null ? null : engine.evaluate(query);
            Object names = session != null ? session.evaluate(query).value() : here == null ? null : here.toJava();
            if (names instanceof java.util.List<?> list) {
                return list.stream().map(String::valueOf).toList();
            }
        } catch (VexelException e) {
            // no names
        }
        return java.util.List.of();
    }

    /** The terminal with line editing, or null (with a note) when JLine cannot open it. */
    private LineInput openTerminal() {
        try {
            return TerminalInput.open(interrupts::signalled, this::knownNames);
        } catch (IOException | LinkageError e) {
            System.err.println("vexel: no line editing (" + e + ")");
            return null;
        }
    }

    /** The read-evaluate loop on standard input, prompting at a terminal. */
    private int interactive(boolean terminal) {
        StatementScanner scanner = new StatementScanner();
        while (!stopped) {
            interrupts.enter(Interrupts.Mode.PROMPT);
            Object item = input.take(terminal ? (scanner.isEmpty() ? PROMPT : CONTINUATION_PROMPT) : null);
            boolean newLine = terminal && !input.endsLine();
            if (item == LineInput.EOF) {
                if (newLine) {
                    out.println();
                }
                StatementScanner.Statement rest = scanner.takeRest();
                if (rest != null) {
                    evaluate(rest, "");
                }
                break;
            }
            if (item == LineInput.INTERRUPT) {
                scanner.clear();
                if (newLine) {
                    out.println();
                }
                continue;
            }
            String line = (String) item;
            if (scanner.isEmpty()) {
                String trimmed = line.strip();
                StatementScanner.HelpLine help = StatementScanner.helpLine(trimmed);
                if (help != null) {
                    help(help.topic(), help.level());
                    continue;
                }
                if (STOP_WORD.matcher(trimmed).matches()) {
                    // A bare "quit" needs no terminator.
                    evaluate(new StatementScanner.Statement(trimmed, 1), "");
                    continue;
                }
            }
            for (StatementScanner.Statement s : scanner.addLine(line)) {
                evaluate(s, "");
                if (stopped) {
                    break;
                }
            }
        }
        // Input that is not a terminal is a script: its failures are the exit status, as for files.
        return terminal ? 0 : exitStatus();
    }

    /** A file of statements: its name for messages, and its lines. */
    private record SourceFile(String label, java.util.List<String> lines) {
    }

    /** Runs the statements of the files in order. */
    private int runFiles(java.util.List<SourceFile> files) {
        for (SourceFile file : files) {
            StatementScanner scanner = new StatementScanner();
            for (String line : file.lines()) {
                for (StatementScanner.Statement s : scanner.addLine(line)) {
                    if (!runStatement(s, file.label())) {
                        return exitStatus();
                    }
                }
            }
            StatementScanner.Statement rest = scanner.takeRest();
            if (rest != null && !runStatement(rest, file.label())) {
                return exitStatus();
            }
        }
        return exitStatus();
    }

    /** Evaluates one statement of a file; false when the run must end. */
    private boolean runStatement(StatementScanner.Statement s, String label) {
        evaluate(s, label);
        if (interrupts.takeAny()) {
            System.err.println("vexel: interrupted");
            interrupted = true;
            return false;
        }
        return !stopped;
    }

    private int exitStatus() {
        if (interrupted) {
            return 130;
        }
        return callbacks.errorCount() > 0 ? 1 : 0;
    }

    /**
     * Evaluates one statement. Kernel output and errors arrive through the
     * callbacks; an exception from the library is shown like a kernel error.
     */
    private void evaluate(StatementScanner.Statement s, String file) {
        String text = s.text();
        Matcher stop = STOP_WORD.matcher(text);
        if (stop.matches()) {
            text = stop.group(1) + ":"; // silent: the kernel would print "quit"
        }
        callbacks.beginStatement(text, file, s.line());
        interrupts.enter(Interrupts.Mode.RUNNING);
        try {
            if (session != null) {
                if (stop.matches()) {
                    stopped = true;
                } else {
                    evaluateIsolated(text);
                }
            } else {
                Algebraic result = engine.evaluate(text);
                if (result != null && result.isStop()) {
                    stopped = true;
                }
            }
        } catch (VexelException e) {
            // A kernel error from a worker says where it is, as the kernel says it here through the callbacks.
            callbacks.reportError(e.getMessage(), e instanceof KernelErrorException k ? k.offset() : -1);
        } catch (RuntimeException e) {
            callbacks.reportError(e.toString(), -1);
        } finally {
            interrupts.enter(Interrupts.Mode.PROMPT);
            interrupts.poll();
            input.clearInterrupts();
            out.flush();
        }
    }

    /**
     * The banner: the kernel's name and version, and how to go on. The same
     * with the kernel in process and in a worker.
     */
    private void banner() {
        String ambrix = Engine.class.getPackage().getImplementationVersion();
        String kernel = "Vexel";
        try {
            Algebraic here = session != null ? null : engine.evaluate(VERSION_QUERY);
            Object v = session != null ? session.evaluate(VERSION_QUERY).value() : here == null ? null : here.toJava();
            if (v instanceof String name && !name.isEmpty()) {
                kernel = name;
            }
        } catch (VexelException e) {
            // a kernel without a version: its plain name
        }
        out.println(kernel + ", in the Vexel shell of ambrix " + (ambrix == null ? "(unknown version)" : ambrix));
        out.println("A statement ends with ; (its value is printed) or : (silent). ? lists the help topics;"
                + " quit leaves.");
        out.flush();
    }

    private static final String VERSION_QUERY = "kernelopts(version):";
    /** The kernel's help page that lists its topics. */
    private static final String INDEX_TOPIC = "index";

    /**
     * Shows help on a topic; levels 1, 2, 3 are all sections, usage,
     * examples. No topic shows how to use the shell, then the kernel's index
     * of topics.
     */
    private void help(String topic, int level) {
        if (topic.isEmpty()) {
            usage(out);
            out.println();
            helpPage(INDEX_TOPIC, Engine.VEXEL_HELP_ALL, true);
            return;
        }
        helpPage(topic, StatementScanner.HelpLine.section(level), false);
    }

    /** Prints a help page; a missing one says so, unless it is to be left out quietly. */
    private void helpPage(String topic, int section, boolean quietlyMissing) {
        boolean ansi = System.console() != null && System.getenv("NO_COLOR") == null;
        HelpPrinter printer = new HelpPrinter(out, ansi, interrupts);
        interrupts.enter(Interrupts.Mode.RUNNING);
        try {
            if (session != null) {
                out.print(session.help(topic, section, terminalWidth()));
            } else {
                engine.getHelp(topic, section, printer, terminalWidth(), null);
            }
        } catch (VexelException e) {
            printer.finish();
            if (!quietlyMissing) {
                boolean missing = e.getMessage() != null && e.getMessage().startsWith("no help for");
                out.println(e.getMessage() + (missing ? " (? lists the topics)" : ""));
            }
        } finally {
            printer.finish();
            interrupts.enter(Interrupts.Mode.PROMPT);
            interrupts.poll();
        }
    }

    /** Prints the versions of ambrix and of the kernel it loads. */
    private int version() {
        String ambrix = Engine.class.getPackage().getImplementationVersion();
        out.println("ambrix " + (ambrix == null ? "(unknown version)" : ambrix));
        try {
            Engine e = new Engine(new String[] {"-q"}, new com.quorbit.ambrix.EngineCallBacksDefault(), null);
            try {
                Algebraic v = e.evaluate(VERSION_QUERY);
                out.println("kernel: " + (v == null ? "(no version)" : v.toJava()));
            } finally {
                e.stop();
            }
        } catch (VexelException | LinkageError e) {
            out.println("kernel: not loaded (" + e.getMessage() + ")");
            return 2;
        }
        return 0;
    }

    private static void usage(PrintStream out) {
        out.println("Usage: vexel [--isolated] [kernel options] [file ...]   or   vexel --version");
        out.println();
        out.println("  Statements end with ';' (the value is printed) or ':' (silent).");
        out.println("  ?topic     help on a topic, for example ?print");
        out.println("  ??topic    usage only;  ???topic  examples only");
        out.println("  Ctrl-C     stop the running statement");
        out.println("  quit       leave (also done, stop, or the end of input)");
        out.println();
        out.println("  Kernel options: -q (no banner), --gcthreshold=N. The banner shows only at a terminal.");
        out.println("  --isolated runs the kernel in a worker process, which a crash cannot take down.");
        out.println("  With files, runs their statements and exits.");
        out.println("  Reading files or a pipe, the exit status is 1 if any statement failed.");
        out.println("  --version prints the versions of ambrix and of the kernel.");
        out.flush();
    }

    /** The terminal's width for help text: $COLUMNS, else stty, else 80. */
    private static int terminalWidth() {
        String columns = System.getenv("COLUMNS");
        if (columns != null) {
            try {
                int c = Integer.parseInt(columns.trim());
                if (c > 0) {
                    return c;
                }
            } catch (NumberFormatException e) {
                // fall through to stty
            }
        }
        File tty = new File("/dev/tty");
        if (System.console() != null && tty.exists()) {
            try {
                Process p = new ProcessBuilder("stty", "size")
                        .redirectInput(ProcessBuilder.Redirect.from(tty))
                        .redirectError(ProcessBuilder.Redirect.DISCARD)
                        .start();
                String answer = new String(p.getInputStream().readAllBytes(), StandardCharsets.US_ASCII).trim();
                if (p.waitFor(2, TimeUnit.SECONDS) && p.exitValue() == 0) {
                    String[] parts = answer.split("\\s+");
                    if (parts.length == 2) {
                        int c = Integer.parseInt(parts[1]);
                        if (c > 0) {
                            return c;
                        }
                    }
                }
            } catch (IOException | NumberFormatException e) {
                // fall back to the default
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
        }
        return 80;
    }
}
