package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.net.UnknownHostException;
import java.time.Duration;

/**
 * Why a worker could not reach its pool, told where the pool can read it.
 *
 * <p>A worker that cannot connect, or cannot prove the secret, says so in
 * one line on its standard error: "ambrix worker on c1: could not connect
 * to head:40123: No route to host; set listenAddress to an address the
 * nodes reach". A local worker's pool reads that line. A Slurm job's output
 * goes to {@code /dev/null} unless set, and even when set, the head need
 * not see the nodes' files: so a worker that runs as a job of a
 * {@link SlurmLauncher} also writes the line into its own job's comment
 * ({@code scontrol update JobId=$SLURM_JOB_ID Comment=...}, which Slurm
 * lets a user do for their own jobs), before it exits. The comment lives in
 * the controller, so the pool reads it back with the job's final state from
 * the same {@code squeue} it watches its jobs with (or from {@code scontrol
 * show job}, as long as the controller keeps the ended job), whatever the
 * file systems, and with no accounting database, which {@code sacct} would
 * need: a job that ends with such a comment ends with the worker's words.
 */
final class Unreachable {
    /** How every such line begins, and how the pool tells a comment of ours from a user's. */
    static final String MARK = "ambrix worker";
    /** The longest comment a worker leaves, and the longest error of its own in it. */
    static final int MAX_COMMENT = 400;
    private static final int MAX_ERROR = 200;
    /**
     * Set in the environment of the jobs of a {@link SlurmLauncher}, so
     * that only they write their comment: a worker of another launcher may
     * run inside a Slurm job that is not its own (a pool's own allocation).
     */
    static final String TELL_JOB = "AMBRIX_WORKER_IS_SLURM_JOB";
    /** How long the worker waits for scontrol before it exits all the same. */
    private static final Duration SCONTROL_LIMIT = Duration.ofSeconds(15);

    private Unreachable() {
    }

    /**
     * The worker's line: where it was told to connect, what failed, and what
     * to check, e.g. "ambrix worker on c1: could not connect to head:40123:
     * No route to host; set listenAddress to an address the nodes reach".
     *
     * @param host    the worker's host, null for a local worker
     * @param address the pool's address the worker was given
     * @param e       the worker's error
     */
    static String line(String host, String address, Exception e) {
        String error = error(e);
        String why;
        if (e instanceof Handshake.SecretException) {
            why = "could not prove the pool's secret to " + address + ": " + error
                    + "; check that the job gets " + Handshake.SECRET_VARIABLE + " from the pool's environment, unchanged";
        } else {
            why = "could not connect to " + address + ": " + error
                    + (host == null ? "" : "; set listenAddress to an address the nodes reach");
        }
        return oneLine(MARK + (host == null ? "" : " on " + host) + ": " + why, MAX_COMMENT);
    }

    /** The error's own words, short: "No route to host", "unknown host head". */
    private static String error(Exception e) {
        String m = e.getMessage();
        if (e instanceof UnknownHostException) {
            return "unknown host " + m;
        }
        return oneLine(m == null || m.isBlank() ? e.getClass().getSimpleName() : m, MAX_ERROR);
    }

    /** The text on one line of printable characters, cut to at most max. */
    static String oneLine(String text, int max) {
        String s = text.replaceAll("[\\p{Cntrl}]+", " ").strip();
        return s.length() <= max ? s : s.substring(0, max - 3) + "...";
    }

    /**
     * In a worker that runs as a job of a {@link SlurmLauncher}: leaves the
     * line as its job's comment. scontrol runs with no shell between, the line one argument of
     * it, so nothing in it is taken for anything but text; it is waited for
     * a bounded time, and a failure of it is only said.
     */
    static void tellJob(String line) {
        String job = System.getenv("SLURM_JOB_ID");
        if (System.getenv(TELL_JOB) == null || job == null || !job.matches("\\d+(_\\d+)?")) {
            return;
        }
        try {
            SlurmJobs.Answer a = SlurmJobs.run(
                    new ProcessBuilder("scontrol", "update", "JobId=" + job, "Comment=" + line), "", SCONTROL_LIMIT);
            if (a.status() != 0) {
                System.err.println(MARK + ": could not leave this on job " + job + ": " + a.failure("scontrol"));
            }
        } catch (IOException e) {
            System.err.println(MARK + ": could not leave this on job " + job + ": " + e.getMessage());
        }
    }

    /**
     * In the pool: what a finished job's comment says of why its worker did
     * not reach the pool, "the worker on c1 could not connect to ...", or
     * null when it is no comment of a worker.
     */
    static String fromComment(String comment) {
        String on = MARK + " on ";
        if (comment == null || !comment.startsWith(on)) {
            return null;
        }
        int colon = comment.indexOf(": ", on.length());
        if (colon < 0) {
            return null;
        }
        return "the worker on " + comment.substring(on.length(), colon) + " " + comment.substring(colon + 2).strip();
    }
}
