package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.io.OutputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.TimeUnit;

/**
 * A {@link SlurmLauncher}'s jobs as Slurm sees them: each job's state and
 * node, polled with {@code squeue} by one thread, its end told by the last
 * state {@code scontrol} gives, and its cancelling with {@code scancel};
 * and the running of Slurm's commands.
 */
final class SlurmJobs {
    /** Where jobs write their output ({@code %j} for the job's id). */
    private final String output;
    private final Map<String, Job> jobs = new ConcurrentHashMap<>();
    private Thread watcher;

    SlurmJobs(String output) {
        this.output = output;
    }

    /** Runs a command with this input: its status, its output and its error output. */
    static String[] run(ProcessBuilder builder, String input) throws IOException {
        Process p = builder.start();
        try (OutputStream in = p.getOutputStream()) {
            in.write(input.getBytes(StandardCharsets.UTF_8));
        }
        CompletableFuture<byte[]> err = CompletableFuture.supplyAsync(() -> {
            try {
                return p.getErrorStream().readAllBytes();
            } catch (IOException e) {
                return new byte[0];
            }
        });
        byte[] out = p.getInputStream().readAllBytes();
        try {
            if (!p.waitFor(60, TimeUnit.SECONDS)) {
                p.destroyForcibly();
                throw new IOException(builder.command().get(0) + " did not answer within 60 s");
            }
            return new String[] {Integer.toString(p.exitValue()), new String(out, StandardCharsets.UTF_8),
                new String(err.join(), StandardCharsets.UTF_8)};
        } catch (InterruptedException e) {
            p.destroyForcibly();
            Thread.currentThread().interrupt();
            throw new IOException("interrupted while running " + builder.command().get(0));
        }
    }

    private static String[] run(String... command) throws IOException {
        return run(new ProcessBuilder(command), "");
    }

    /** A job just submitted, watched from now on. */
    Launcher.Launched watch(String id) {
        Job job = new Job(id);
        jobs.put(id, job);
        startWatcher();
        return job;
    }

    /** Starts the thread that watches the jobs, once. */
    private synchronized void startWatcher() {
        if (watcher == null) {
            watcher = new Thread(this::watchJobs, "ambrix-slurm-jobs");
            watcher.setDaemon(true);
            watcher.start();
        }
    }

    /**
     * Every half second: the state and node of each live job, from squeue;
     * a job squeue no longer lists has ended, and scontrol tells its last state.
     */
    private void watchJobs() {
        while (true) {
            try {
                Thread.sleep(500);
            } catch (InterruptedException e) {
                return;
            }
            if (jobs.isEmpty()) {
                continue;
            }
            try {
                String[] r = run("squeue", "-h", "-t", "all", "-o", "%i|%T|%N", "-n", "ambrix-worker");
                if (!r[0].equals("0")) {
                    continue;
                }
                Map<String, String[]> listed = new HashMap<>();
                for (String line : r[1].split("\n")) {
                    String[] f = line.strip().split("\\|", -1);
                    if (f.length == 3) {
                        listed.put(f[0], f);
                    }
                }
                for (Job job : List.copyOf(jobs.values())) {
                    String[] f = listed.get(job.id);
                    if (f != null && !finished(f[1])) {
                        job.state = f[1];
                        if (!f[2].isBlank() && !f[2].equals("(null)")) {
                            job.host = f[2];
                        }
                    } else {
                        job.ended(f != null ? f[1] : lastState(job.id));
                    }
                }
            } catch (IOException | RuntimeException e) {
                // squeue did not answer: asked again at the next turn
            }
        }
    }

    private static boolean finished(String state) {
        return !(state.equals("PENDING") || state.equals("RUNNING") || state.equals("CONFIGURING")
                || state.equals("SUSPENDED") || state.equals("REQUEUED") || state.equals("RESIZING")
                || state.equals("COMPLETING") || state.equals("SIGNALING") || state.equals("STAGE_OUT"));
    }

    /** A finished job's state, as scontrol gives it for some minutes after its end. */
    private static String lastState(String id) {
        try {
            String[] r = run("scontrol", "show", "job", "-o", id);
            for (String word : r[1].split("\\s+")) {
                if (word.startsWith("JobState=")) {
                    return word.substring(9);
                }
            }
        } catch (IOException e) {
            // unknown
        }
        return "state unknown";
    }

    /** One job, as squeue last saw it. */
    private final class Job implements Launcher.Launched {
        final String id;
        volatile String state = "PENDING";
        volatile String host;
        private final CompletableFuture<String> ended = new CompletableFuture<>();

        Job(String id) {
            this.id = id;
        }

        void ended(String finalState) {
            jobs.remove(id);
            state = finalState;
            ended.complete("Slurm job " + id + " ended (" + finalState + ")");
        }

        @Override
        public String host() {
            return host;
        }

        @Override
        public String job() {
            return id;
        }

        @Override
        public boolean queued() {
            return state.equals("PENDING") || state.equals("CONFIGURING") || state.equals("REQUEUED");
        }

        @Override
        public CompletableFuture<String> ended() {
            return ended;
        }

        @Override
        public void kill() {
            scancel("--signal=KILL", id);
        }

        @Override
        public void cancel() {
            scancel(id);
        }

        private void scancel(String... args) {
            List<String> c = new ArrayList<>(List.of("scancel"));
            c.addAll(List.of(args));
            try {
                run(c.toArray(new String[0]));
            } catch (IOException e) {
                EnginePool.LOG.log(System.Logger.Level.WARNING, "scancel of Slurm job " + id + " failed: " + e);
            }
        }

        @Override
        public List<String> lastLines() {
            Path out = Path.of(output.replace("%j", id));
            try {
                if (!output.equals("/dev/null") && Files.isReadable(out)) {
                    List<String> all = Files.readAllLines(out, StandardCharsets.UTF_8);
                    return all.subList(Math.max(0, all.size() - 20), all.size());
                }
            } catch (IOException | RuntimeException e) {
                // not here to read
            }
            return List.of();
        }

        @Override
        public String toString() {
            return "Slurm job " + id;
        }
    }
}
