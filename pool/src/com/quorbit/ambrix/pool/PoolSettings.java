package com.quorbit.ambrix.pool;

import java.io.File;
import java.net.URISyntaxException;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;

/**
 * A pool's settings, as its {@link EnginePool.Builder} validated them: every
 * part of the pool reads them, and none changes them.
 *
 * @param minWorkers       the workers the pool keeps, however idle
 * @param maxWorkers       the workers it may have, each in a slot of its own
 * @param idleTimeout      how long a worker beyond the minimum may go without a task before it is ended
 * @param maxTasksPerWorker the tasks after which a worker is ended and replaced, 0 for no limit
 * @param retries          how many more runs a task gets whose worker was lost through no fault of its own
 * @param kernelArguments  each kernel's start arguments
 * @param initialize       statements run at each kernel's start and after each reset
 * @param timeLimit        a task's default time limit, or null for none
 * @param graceTime        how long an interrupted task may take to end before its worker is killed
 * @param memoryLimit      a worker's resident memory limit in bytes, 0 for none
 * @param javaOptions      options for each worker's JVM, after the defaults
 * @param resetEveryTask   whether a submitted task runs in a fresh kernel
 * @param launcher         how workers are started
 * @param listenAddress    the address remote workers connect to, or null for this host's name
 * @param heartbeatTimeout how long a remote worker, or the pool, may stay silent
 */
record PoolSettings(int minWorkers, int maxWorkers, Duration idleTimeout, int maxTasksPerWorker, int retries,
        List<String> kernelArguments, List<String> initialize, Duration timeLimit,
        Duration graceTime, long memoryLimit, List<String> javaOptions, boolean resetEveryTask, Launcher launcher,
        String listenAddress, Duration heartbeatTimeout) {

    /** The worker JVM's options unless javaOptions adds its own after them. */
    static final List<String> DEFAULT_JAVA_OPTIONS = List.of("-Xmx64m", "-Xss1m", "-XX:+UseSerialGC",
            "-XX:TieredStopAtLevel=1", "-XX:CICompilerCount=1", "-XX:ReservedCodeCacheSize=16m",
            "-XX:MaxMetaspaceSize=64m", "-XX:+DisplayVMOutputToStderr", "-XX:-CreateCoredumpOnCrash",
            "-XX:-UsePerfData");
    /** This JVM's settings that a worker's JVM takes over. */
    private static final String[] FORWARDED = {"ambrix.library.path", "ambrix.kernel", "ambrix.tmpdir",
        "java.library.path", "java.io.tmpdir"};

    PoolSettings {
        kernelArguments = List.copyOf(kernelArguments);
        initialize = List.copyOf(initialize);
        javaOptions = List.copyOf(javaOptions);
    }

    /** The command of a worker's JVM, before where it connects to. */
    List<String> workerCommand() {
        List<String> c = new ArrayList<>();
        c.add(LocalLauncher.javaCommand());
        c.addAll(DEFAULT_JAVA_OPTIONS);
        for (String p : FORWARDED) {
            String v = System.getProperty(p);
            if (v != null) {
                c.add("-D" + p + "=" + v);
            }
        }
        c.addAll(javaOptions);
        c.add("-cp");
        c.add(classPath());
        c.add(WorkerMain.class.getName());
        return c;
    }

    /** The heap of a worker's JVM in bytes: its last -Xmx, the pool's default unless javaOptions set one. */
    long workerHeap() {
        long heap = 0;
        for (String o : workerCommandOptions()) {
            if (o.startsWith("-Xmx")) {
                heap = bytes(o.substring(4), heap);
            }
        }
        return heap;
    }

    private List<String> workerCommandOptions() {
        List<String> all = new ArrayList<>(DEFAULT_JAVA_OPTIONS);
        all.addAll(javaOptions);
        return all;
    }

    /** A JVM size such as "64m" in bytes; the fallback when it does not read as one. */
    private static long bytes(String size, long fallback) {
        if (size.isEmpty()) {
            return fallback;
        }
        int shift = switch (Character.toLowerCase(size.charAt(size.length() - 1))) {
            case 'k' -> 10;
            case 'm' -> 20;
            case 'g' -> 30;
            case 't' -> 40;
            default -> 0;
        };
        try {
            return Long.parseLong(shift == 0 ? size : size.substring(0, size.length() - 1)) << shift;
        } catch (NumberFormatException e) {
            return fallback;
        }
    }

    /**
     * The largest task a worker takes, its frame whole: an eighth of the
     * worker's heap, which holds the frame, the statement decoded from it
     * and the copy the kernel is given, with room to spare.
     */
    long taskLimit() {
        return Math.min(Wire.MAX_FRAME, workerHeap() / 8);
    }

    /** Where the pool's classes came from: ambrix.jar, or a folder of classes. */
    static String classPath() {
        try {
            return new File(EnginePool.class.getProtectionDomain().getCodeSource().getLocation().toURI()).getPath();
        } catch (URISyntaxException | RuntimeException e) {
            return System.getProperty("java.class.path");
        }
    }
}
