package com.quorbit.ambrix.pool;

import java.io.BufferedReader;
import java.io.File;
import java.io.IOException;
import java.io.InputStreamReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Workers as child processes of this JVM: each in a session of its own, so
 * that a terminal's signals never reach it, its output drained and its end
 * told by its exit status, or by HotSpot's report of a fatal signal.
 */
final class LocalLauncher implements Launcher {
    static final LocalLauncher INSTANCE = new LocalLauncher();

    /** HotSpot's first report of a fatal signal, on the standard error it was told to use. */
    private static final Pattern FATAL_SIGNAL = Pattern.compile("^#\\s+(SIG[A-Z]+) \\(0x([0-9a-fA-F]+)\\)");
    private static final int LAST_LINES = 20;
    private static final Path SETSID = Path.of("/usr/bin/setsid");
    /** Where a worker's JVM writes its crash report (%p: its process id). */
    static final Path ERROR_FILE = Path.of(System.getProperty("java.io.tmpdir"), "ambrix-worker-%p.log");

    private LocalLauncher() {
    }

    @Override
    public boolean remote() {
        return false;
    }

    @Override
    public Launched launch(Launch launch) throws IOException {
        List<String> command = new ArrayList<>(launch.command());
        command.add(1, "-XX:ErrorFile=" + ERROR_FILE);
        // Standard output carries nothing of the protocol: both streams are drained as one.
        ProcessBuilder builder = new ProcessBuilder(detached(command)).redirectErrorStream(true)
                .redirectInput(ProcessBuilder.Redirect.PIPE);
        builder.environment().putAll(launch.environment());
        return new Child(builder.start());
    }

    /**
     * The command that starts a worker's JVM in a session of its own, so that
     * the signals a terminal sends its foreground process group (Ctrl-C,
     * Ctrl-\) never reach it: only the pool interrupts or kills a worker.
     */
    static List<String> detached(List<String> command) {
        if (!Files.isExecutable(SETSID)) {
            return command;
        }
        List<String> c = new ArrayList<>(command.size() + 1);
        c.add(SETSID.toString());
        c.addAll(command);
        return c;
    }

    static String javaCommand() {
        String home = System.getProperty("java.home");
        return home + File.separator + "bin" + File.separator + "java";
    }

    /**
     * The resident memory of a process ("self" for this one) in bytes, from
     * /proc; -1 when it cannot be read (ended, or no /proc).
     */
    static long residentBytes(String pid) {
        try {
            for (String line : Files.readAllLines(Path.of("/proc", pid, "status"))) {
                if (line.startsWith("VmRSS:")) {
                    return Long.parseLong(line.substring(6).trim().split("\\s+")[0]) * 1024;
                }
            }
        } catch (IOException | RuntimeException e) {
            // ended, or no /proc
        }
        return -1;
    }

    /** "signal 11 (SIGSEGV)" for a death by signal (status 128 + n), else "exit status n". */
    static String exitReason(int status) {
        if (status > 128 && status < 128 + 32) {
            int signal = status - 128;
            String name = switch (signal) {
                case 4 -> "SIGILL";
                case 6 -> "SIGABRT";
                case 7 -> "SIGBUS";
                case 8 -> "SIGFPE";
                case 9 -> "SIGKILL";
                case 11 -> "SIGSEGV";
                case 15 -> "SIGTERM";
                default -> null;
            };
            return "signal " + signal + (name == null ? "" : " (" + name + ")");
        }
        return "exit status " + status;
    }

    /** One child process. */
    private static final class Child implements Launched {
        private final Process process;
        private final ArrayDeque<String> lastLines = new ArrayDeque<>();
        private final CompletableFuture<String> ended = new CompletableFuture<>();
        private final Thread drain;
        /** A fatal signal that HotSpot reported, which names the cause better than the exit status. */
        private volatile String fatal;

        Child(Process process) {
            this.process = process;
            drain = new Thread(this::drainOutput, "ambrix-worker-output-" + process.pid());
            drain.setDaemon(true);
            drain.start();
            process.onExit().thenRun(this::exited);
        }

        private void exited() {
            // The output is read to its end first: a fatal signal's report in it names the cause.
            try {
                drain.join(2000);
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
            }
            try {
                Files.deleteIfExists(ERROR_FILE.resolveSibling(
                        ERROR_FILE.getFileName().toString().replace("%p", Long.toString(process.pid()))));
            } catch (IOException e) {
                // a report left behind
            }
            String why = fatal;
            ended.complete(why != null ? why : exitReason(process.exitValue()));
        }

        /**
         * Drains the process's output (standard error, with standard output
         * joined to it) all the time, keeping the last lines and watching
         * for a fatal signal.
         */
        private void drainOutput() {
            try (BufferedReader err = new BufferedReader(
                    new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8))) {
                for (String line = err.readLine(); line != null; line = err.readLine()) {
                    synchronized (lastLines) {
                        if (lastLines.size() == LAST_LINES) {
                            lastLines.removeFirst();
                        }
                        lastLines.addLast(line);
                    }
                    Matcher m = FATAL_SIGNAL.matcher(line);
                    if (m.find() && fatal == null) {
                        // The JVM would go on to write its report: the task fails now.
                        fatal = "signal " + Integer.parseInt(m.group(2), 16) + " (" + m.group(1) + ")";
                        process.destroyForcibly();
                    }
                }
            } catch (IOException e) {
                // the process ended
            }
        }

        @Override
        public String host() {
            return "localhost";
        }

        @Override
        public String job() {
            return null;
        }

        @Override
        public long pid() {
            return process.pid();
        }

        @Override
        public CompletableFuture<String> ended() {
            return ended;
        }

        @Override
        public void kill() {
            process.destroyForcibly();
        }

        @Override
        public long residentBytes() {
            return LocalLauncher.residentBytes(Long.toString(process.pid()));
        }

        @Override
        public List<String> lastLines() {
            synchronized (lastLines) {
                return new ArrayList<>(lastLines);
            }
        }
    }
}
