package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.lang.System.Logger.Level;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.time.Duration;
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
 * and the running of Slurm's commands, each bounded in time. A job whose
 * worker could not reach the pool ends with the worker's words, which it
 * left in the job's comment ({@link Unreachable}).
 *
 * <p>A running worker ends by itself when its pool's JVM ends, but a job
 * still waiting in the queue cannot: while any job is not over, a
 * {@link Reaper} outside this JVM knows them, and cancels those that are
 * left when this JVM ends, however it ends.
 */
final class SlurmJobs {
    /** How often a failing squeue is logged again, at most. */
    private static final long SQUEUE_LOG_NANOS = TimeUnit.SECONDS.toNanos(30);

    /** Where jobs write their output ({@code %j} for the job's id). */
    private final String output;
    /** How long any Slurm command may take. */
    private final Duration limit;
    private final Map<String, Job> jobs = new ConcurrentHashMap<>();
    /** The reaper while jobs are not over (guarded by the map's additions and removals, under this). */
    private Reaper reaper;
    private Thread watcher;
    /** The watcher's failed squeue polls since it last answered, and since the last line logged. */
    private int failedPolls;
    private int unloggedPolls;
    private long loggedAt;

    SlurmJobs(String output, Duration limit) {
        this.output = output;
        this.limit = limit;
    }

    /** What a command answered: its exit status, its output and its error output. */
    record Answer(int status, String out, String err) {
        /** The error output, or else the status, as one would report the failure. */
        String failure(String command) {
            return err.isBlank() ? command + " failed with status " + status : err.strip();
        }
    }

    /**
     * Runs a command with this input, for that long at most. Its input,
     * output and error output are files, so that a command that stops
     * reading, or never ends, holds up nothing but this wait; one that
     * passes the time is killed with whatever it started.
     *
     * @throws IOException when it cannot run, or did not end in time: "sbatch did not answer within 60 s"
     */
    static Answer run(ProcessBuilder builder, String input, Duration limit) throws IOException {
        String name = builder.command().get(0);
        Path in = Files.createTempFile("ambrix-slurm-", ".in");
        Path out = null;
        Path err = null;
        try {
            out = Files.createTempFile("ambrix-slurm-", ".out");
            err = Files.createTempFile("ambrix-slurm-", ".err");
            Files.writeString(in, input, StandardCharsets.UTF_8);
            Process p = builder.redirectInput(in.toFile()).redirectOutput(out.toFile()).redirectError(err.toFile())
                    .start();
            try {
                if (!p.waitFor(limit.toNanos(), TimeUnit.NANOSECONDS)) {
                    end(p);
                    throw new IOException(name + " did not answer within " + Task.seconds(limit));
                }
            } catch (InterruptedException e) {
                end(p);
                Thread.currentThread().interrupt();
                throw new IOException("interrupted while running " + name);
            }
            return new Answer(p.exitValue(), Files.readString(out, StandardCharsets.UTF_8),
                    Files.readString(err, StandardCharsets.UTF_8));
        } finally {
            for (Path f : new Path[] {in, out, err}) {
                if (f != null) {
                    Files.deleteIfExists(f);
                }
            }
        }
    }

    /** Kills a command that passed its time, and what it started. */
    private static void end(Process p) {
        p.descendants().forEach(ProcessHandle::destroyForcibly);
        p.destroyForcibly();
    }

    private Answer run(String... command) throws IOException {
        return run(new ProcessBuilder(command), "", limit);
    }

    /** A job just submitted, watched from now on, and cancelled by the reaper if this JVM ends first. */
    Launcher.Launched watch(String id) {
        Job job = new Job(id);
        synchronized (this) {
            jobs.put(id, job);
            if (reaper == null || !reaper.tell("+" + id)) {
                reaper = Reaper.start(jobs.keySet());
            }
        }
        startWatcher();
        return job;
    }

    /** A job that is over: the reaper forgets it, and ends once no job is left. */
    private synchronized void forget(String id) {
        if (jobs.remove(id) == null || reaper == null) {
            return;
        }
        if (jobs.isEmpty()) {
            reaper.end();
            reaper = null;
        } else if (!reaper.tell("-" + id)) {
            reaper = Reaper.start(jobs.keySet());
        }
    }

    /**
     * A process that cancels the jobs it was told of and not told are over,
     * when its input ends: at the end of this JVM, however it ends (SIGKILL
     * included, when the kernel closes the pipe), or when the launcher has
     * no job left (it then cancels nothing). It reads a line "+ID" for each
     * job submitted and "-ID" for each job over. It is a shell, in a session
     * of its own where setsid is found, and ignores the signals of a
     * terminal and of a process group's end, so that what ends this JVM
     * does not end it too.
     */
    static final class Reaper {
        static final String SCRIPT = """
                trap '' HUP INT TERM
                ids=' '
                while read -r line; do
                  id=${line#?}
                  case $line in
                    +*) ids="$ids$id " ;;
                    -*) case $ids in *" $id "*) ids="${ids%% $id *} ${ids#* $id }" ;; esac ;;
                  esac
                done
                [ "$ids" = ' ' ] || exec scancel $ids
                """;
        private final Process process;
        private final java.io.Writer input;

        private Reaper(Process process) {
            this.process = process;
            input = new java.io.OutputStreamWriter(process.getOutputStream(), StandardCharsets.US_ASCII);
        }

        /** A reaper that knows these jobs; null (logged) when none could be started. */
        static Reaper start(java.util.Collection<String> ids) {
            Reaper r;
            try {
                r = new Reaper(start("setsid", "sh", "-c", SCRIPT));
            } catch (IOException noSetsid) {
                try {
                    r = new Reaper(start("sh", "-c", SCRIPT));
                } catch (IOException e) {
                    PoolLog.log(Level.WARNING, "no process could be started to cancel the pool's Slurm jobs "
                            + "if this JVM is killed (" + e.getMessage() + "); a job still queued then would wait on");
                    return null;
                }
            }
            for (String id : ids) {
                if (!r.tell("+" + id)) {
                    return null;
                }
            }
            return r;
        }

        private static Process start(String... command) throws IOException {
            return new ProcessBuilder(command).redirectOutput(ProcessBuilder.Redirect.DISCARD)
                    .redirectError(ProcessBuilder.Redirect.DISCARD).start();
        }

        /** Sends a line; false, the process ended, when it cannot. */
        boolean tell(String line) {
            try {
                input.write(line + "\n");
                input.flush();
                return true;
            } catch (IOException e) {
                process.destroyForcibly();
                return false;
            }
        }

        /** Ends the reaper with nothing to cancel. */
        void end() {
            try {
                input.close();
            } catch (IOException e) {
                process.destroyForcibly();
            }
        }
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
     * Every half second: the state and node of each live job, from squeue.
     * A job squeue no longer lists has ended, and scontrol tells its last
     * state; but only a poll that began after the job was submitted can miss
     * it, and while squeue does not answer, no job is judged.
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
            long began = System.nanoTime();
            Answer r;
            try {
                // The comment last, whole: a worker that could not reach the pool leaves its reason there.
                r = run("squeue", "-h", "-t", "all", "-o", "%i|%T|%N|%k", "-n", "ambrix-worker");
            } catch (IOException e) {
                squeueFailed(e.getMessage());
                continue;
            }
            if (r.status() != 0) {
                squeueFailed(r.failure("squeue"));
                continue;
            }
            squeueAnswered();
            Map<String, String[]> listed = new HashMap<>();
            for (String line : r.out().split("\n")) {
                String[] f = line.strip().split("\\|", 4);
                if (f.length == 4) {
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
                } else if (f != null) {
                    job.ended(new Final(f[1], f[3]));
                } else if (job.submitted - began < 0) {
                    job.ended(lastState(job.id));
                }
            }
        }
    }

    /**
     * A poll that failed: logged at once, then at most once per interval
     * with the count of failures since, while squeue goes on failing.
     */
    private void squeueFailed(String why) {
        failedPolls++;
        unloggedPolls++;
        long now = System.nanoTime();
        if (failedPolls == 1 || now - loggedAt >= SQUEUE_LOG_NANOS) {
            PoolLog.log(Level.WARNING, "squeue failed"
                    + (unloggedPolls > 1 ? " " + unloggedPolls + " times" : "") + " (" + why
                    + "); the pool's Slurm jobs are not judged until it answers");
            unloggedPolls = 0;
            loggedAt = now;
        }
    }

    private void squeueAnswered() {
        if (failedPolls > 0) {
            PoolLog.log(Level.INFO, "squeue answers again, after " + failedPolls
                    + " failed polls");
        }
        failedPolls = 0;
        unloggedPolls = 0;
    }

    private static boolean finished(String state) {
        return !(state.equals("PENDING") || state.equals("RUNNING") || state.equals("CONFIGURING")
                || state.equals("SUSPENDED") || state.equals("REQUEUED") || state.equals("RESIZING")
                || state.equals("COMPLETING") || state.equals("SIGNALING") || state.equals("STAGE_OUT"));
    }

    /**
     * A finished job's state and comment, as scontrol gives them for some
     * minutes after its end: the comment on a line of its own, whole.
     */
    private Final lastState(String id) {
        String state = "state unknown";
        String comment = null;
        try {
            for (String line : run("scontrol", "show", "job", id).out().split("\n")) {
                String l = line.strip();
                if (l.startsWith("Comment=")) {
                    comment = l.substring(8);
                }
                for (String word : l.split("\\s+")) {
                    if (word.startsWith("JobState=")) {
                        state = word.substring(9);
                    }
                }
            }
        } catch (IOException e) {
            // unknown
        }
        return new Final(state, comment);
    }

    /** A job's last state, and its comment: null, "(null)" or any text for none of a worker's. */
    private record Final(String state, String comment) {
    }

    /** One job, as squeue last saw it. */
    private final class Job implements Launcher.Launched {
        final String id;
        volatile String state = "PENDING";
        volatile String host;
        /** When sbatch had returned its id. */
        final long submitted = System.nanoTime();
        private final CompletableFuture<String> ended = new CompletableFuture<>();

        Job(String id) {
            this.id = id;
        }

        void ended(Final last) {
            forget(id);
            state = last.state();
            String said = Unreachable.fromComment(last.comment());
            ended.complete("Slurm job " + id + " ended (" + state + ")" + (said == null ? "" : ": " + said));
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
                PoolLog.log(Level.WARNING, "scancel of Slurm job " + id + " failed: " + e);
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
