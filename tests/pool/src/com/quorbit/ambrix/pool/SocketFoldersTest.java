package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.Assumptions;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;

/**
 * Which socket folders a new pool removes: those whose lock no process
 * holds. A pool in another PID namespace that shares the temporary folder
 * keeps its folder while it lives, though its process id names no process
 * here, and loses it once killed.
 */
@Timeout(value = 90, unit = TimeUnit.SECONDS)
class SocketFoldersTest {
    static final Path TEMP = Path.of(System.getProperty("java.io.tmpdir"));

    /** Holds the lock of the file it is given until killed. */
    public static final class LockHolder {
        public static void main(String[] args) throws Exception {
            try (FileChannel c = FileChannel.open(Path.of(args[0]), StandardOpenOption.CREATE,
                    StandardOpenOption.WRITE)) {
                c.lock();
                System.out.println("locked");
                System.out.flush();
                Thread.sleep(60_000);
            }
        }
    }

    /**
     * A pool of one worker that prints its process id, crashes its worker
     * when a line comes, prints what the pool answers then, and waits to be
     * killed.
     */
    public static final class CrashOnCue {
        public static void main(String[] args) throws Exception {
            BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.UTF_8));
            try (EnginePool p = EnginePool.builder().workers(1).kernelArguments("-q", "--test-hooks").build()) {
                System.out.println("ready " + ProcessHandle.current().pid());
                System.out.flush();
                in.readLine();
                p.submit("crashkernel();").exceptionally(e -> null).join();
                System.out.println("after a crash: " + (p.awaitWorkers(1, Duration.ofSeconds(15))
                        ? p.submit("1 + 1;").join().text() : "no worker, " + p.workerStates()));
                System.out.flush();
                in.readLine();
            }
        }
    }

    /** A process id that names no process here, nor does the one after it. */
    static long freePid() throws Exception {
        long max = Long.parseLong(Files.readAllLines(Path.of("/proc/sys/kernel/pid_max")).get(0).trim());
        for (long pid = max / 2; pid < max - 1; pid++) {
            if (!PoolTest.alive(pid) && !PoolTest.alive(pid + 1)) {
                return pid;
            }
        }
        throw new AssertionError("no free process id");
    }

    /** A process's lines of output, read as they come. */
    static final class Lines {
        private final BlockingQueue<String> lines = new LinkedBlockingQueue<>();

        Lines(Process p) {
            Thread reader = new Thread(() -> {
                try (BufferedReader out = new BufferedReader(
                        new InputStreamReader(p.getInputStream(), StandardCharsets.UTF_8))) {
                    for (String l = out.readLine(); l != null; l = out.readLine()) {
                        lines.add(l);
                    }
                } catch (java.io.IOException e) {
                    // the process ended
                }
            });
            reader.setDaemon(true);
            reader.start();
        }

        /** The next line that starts so, waited for 30 s at most. */
        String next(String start) throws InterruptedException {
            long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(30);
            while (true) {
                String l = lines.poll(end - System.nanoTime(), TimeUnit.NANOSECONDS);
                if (l == null) {
                    throw new AssertionError("the process printed no line starting with " + start);
                }
                if (l.startsWith(start)) {
                    return l;
                }
            }
        }
    }

    static void newPoolHere() {
        EnginePool.builder().workers(1).build().close();
    }

    /** A folder whose lock a live process holds stays, whatever process id its name carries. */
    @Test
    void aFolderWhoseLockIsHeldStaysAndGoesOnceItsHolderIsKilled() throws Exception {
        Path folder = Files.createDirectory(TEMP.resolve("ambrix-pool-" + freePid() + "-77"));
        Process holder = PoolTest.javaMain(LockHolder.class, folder.resolve(SocketFolders.LOCK).toString());
        try {
            new Lines(holder).next("locked");
            newPoolHere();
            assertTrue(Files.isDirectory(folder), "a folder whose lock is held was removed");
        } finally {
            holder.destroyForcibly().waitFor();
        }
        newPoolHere();
        assertFalse(Files.exists(folder), "a folder whose holder was killed stayed");
    }

    /**
     * A pool in another PID namespace, sharing this temporary folder, with a
     * process id that names no process here: a new pool here leaves its
     * folder, so that it still replaces a crashed worker; once it is killed,
     * the next pool here removes its folder.
     */
    @Test
    void aPoolInAnotherPidNamespaceKeepsItsFolderWhileItLives() throws Exception {
        Assumptions.assumeTrue(new ProcessBuilder("unshare", "--pid", "--fork", "--mount-proc", "true")
                .redirectErrorStream(true).start().waitFor() == 0, "no PID namespace can be made here");
        long before = freePid();
        List<String> command = new ArrayList<>(List.of("unshare", "--pid", "--fork", "--mount-proc", "--kill-child",
                "/bin/sh", "-c", "echo $1 > /proc/sys/kernel/ns_last_pid && shift && \"$@\"; exit $?", "sh",
                Long.toString(before)));
        command.addAll(PoolTest.javaCommand(CrashOnCue.class));
        Process contained = new ProcessBuilder(command).redirectErrorStream(true).start();
        Lines lines = new Lines(contained);
        try {
            long pid = Long.parseLong(lines.next("ready ").substring(6));
            assertFalse(PoolTest.alive(pid), "the contained pool's id " + pid + " names a process here");
            assertEquals(1, PoolTest.socketFolders(pid).size());
            newPoolHere();
            assertEquals(1, PoolTest.socketFolders(pid).size(), "the live folder of another namespace's pool");
            contained.getOutputStream().write('\n');
            contained.getOutputStream().flush();
            assertEquals("after a crash: 2", lines.next("after a crash: "));
            // Its namespace ends with it: then no process holds the lock.
            List<ProcessHandle> inside = contained.toHandle().descendants().toList();
            contained.destroyForcibly().waitFor();
            long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(10);
            while (System.nanoTime() < end && inside.stream().anyMatch(ProcessHandle::isAlive)) {
                Thread.sleep(20);
            }
            newPoolHere();
            assertEquals(List.of(), PoolTest.socketFolders(pid));
        } finally {
            contained.destroyForcibly().waitFor();
        }
    }
}
