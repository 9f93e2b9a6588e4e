package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.util.List;
import java.util.Map;
import java.util.concurrent.CompletableFuture;

/**
 * How a pool starts its workers: one call of {@link #launch} starts one
 * worker process, somewhere, and the handle it returns tells the pool how
 * that worker ended. The pool does everything else: the worker connects back
 * to it, and the pool sends it tasks, interrupts it, and ends it through the
 * handle when a limit passes or the pool closes.
 *
 * <p>{@link #local()} starts workers as child processes of this JVM, and is
 * the default. {@link SlurmLauncher} submits each worker as a job of a Slurm
 * cluster. A launcher for another scheduler runs {@link Launch#command()}
 * with {@link Launch#environment()} added to the worker's environment (the
 * pool's secret is in it: never put it on a command line or in a file others
 * can read), and completes {@link Launched#ended()} when the worker has
 * ended, with the reason.
 */
public interface Launcher {
    /**
     * Starts one worker.
     *
     * @param launch the worker's command and environment
     * @return the handle of the started (or queued) worker
     * @throws IOException when it cannot be started, with the reason the
     *         pool reports (a scheduler's own error text, for example); a
     *         {@link RefusedException} when no retry can start it
     */
    Launched launch(Launch launch) throws IOException;

    /**
     * A launch that no retry can mend, such as a scheduler's refusal of a
     * partition or an option it does not know: the pool launches no more
     * for that slot, and {@code build()} fails at once with the message.
     */
    final class RefusedException extends IOException {
        private static final long serialVersionUID = 1L;

        /**
         * A refusal.
         *
         * @param message the reason, as the scheduler gave it
         */
        public RefusedException(String message) {
            super(message);
        }
    }

    /**
     * Whether workers of this launcher connect over TCP, authenticated with
     * the pool's secret, rather than over a Unix-domain socket on this
     * machine; true unless the launcher starts workers on this machine.
     *
     * @return whether the pool listens on TCP for these workers
     */
    default boolean remote() {
        return true;
    }

    /**
     * Workers as child processes of this JVM, each in a session of its own,
     * connected over Unix-domain sockets: the default.
     *
     * @return the local launcher
     */
    static Launcher local() {
        return LocalLauncher.INSTANCE;
    }

    /**
     * What to start: a worker JVM's command, and what its environment needs.
     *
     * @param command     the command, the {@code java} executable first; it
     *                    holds {@code -cp} followed by the class path, and
     *                    the worker's main class with its arguments last
     * @param environment variables to add to the worker's environment
     * @param memoryLimit the memory a worker may take in bytes, 0 for no limit
     * @param name        a name for the worker, for a scheduler's listing
     */
    record Launch(List<String> command, Map<String, String> environment, long memoryLimit, String name) {
        /**
         * A launch, its lists copied.
         *
         * @param command     the command
         * @param environment the variables to add
         * @param memoryLimit bytes, 0 for none
         * @param name        the worker's name
         */
        public Launch {
            command = List.copyOf(command);
            environment = Map.copyOf(environment);
        }
    }

    /** A started worker, as its launcher sees it. */
    interface Launched {
        /**
         * The host the worker runs on, once known.
         *
         * @return the host's name, or null while it is not known
         */
        String host();

        /**
         * The scheduler's job of the worker.
         *
         * @return the job's id, or null for a worker that is no job
         */
        String job();

        /**
         * The worker's process id on this machine.
         *
         * @return the id, or -1 for a worker elsewhere
         */
        default long pid() {
            return -1;
        }

        /**
         * Whether the worker still waits to run, as in a scheduler's queue.
         *
         * @return true while it waits
         */
        default boolean queued() {
            return false;
        }

        /**
         * Completes once the worker has ended, with why: "signal 11
         * (SIGSEGV)", "Slurm job 1234 ended (CANCELLED)".
         *
         * @return the future of the reason
         */
        CompletableFuture<String> ended();

        /** Ends the worker at once (SIGKILL, or the scheduler's equivalent). */
        void kill();

        /** Ends the worker as a pool's close does; by default as {@link #kill()}. */
        default void cancel() {
            kill();
        }

        /**
         * The worker's resident memory, where the launcher can see it.
         *
         * @return bytes, or -1 when the launcher cannot tell
         */
        default long residentBytes() {
            return -1;
        }

        /**
         * The last lines the worker wrote to its standard error, where the
         * launcher can see them.
         *
         * @return the lines, none when it cannot tell
         */
        default List<String> lastLines() {
            return List.of();
        }
    }
}
