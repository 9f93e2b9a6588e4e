package com.quorbit.ambrix.bench;

import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.pool.EnginePool;
import com.quorbit.ambrix.pool.WorkerMain;
import java.io.File;
import java.io.IOException;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.ByteBuffer;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;

/**
 * The pool's figures: a task's round trip against a raw echo of a frame of
 * the same size to an idle child JVM over the same kind of channel, the
 * reset between tasks, a large table coming back, parallel throughput, the
 * time a worker takes to start or be replaced, and its idle memory.
 */
final class PoolBench {
    private PoolBench() {
    }

    /** An idle child JVM that sends back every frame, over a Unix-domain socket like a worker's. */
    private static final class Echo implements AutoCloseable {
        final Process process;
        final SocketChannel channel;
        final Path dir;

        Echo() throws IOException {
            dir = Files.createTempDirectory("ambrix-bench-echo");
            Path socket = dir.resolve("echo.sock");
            try (ServerSocketChannel server = ServerSocketChannel.open(StandardProtocolFamily.UNIX)) {
                server.bind(UnixDomainSocketAddress.of(socket));
                process = new ProcessBuilder(javaCommand(), "-Xmx64m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1",
                        "-cp", jarOf(WorkerMain.class), WorkerMain.class.getName(), socket.toString(), "--echo")
                        .redirectErrorStream(true).redirectOutput(ProcessBuilder.Redirect.DISCARD).start();
                channel = server.accept();
            } finally {
                Files.deleteIfExists(socket);
            }
        }

        long roundTrip(ByteBuffer frame) throws IOException {
            return PoolBench.roundTrip(channel, frame);
        }

        static ByteBuffer frame(int size) {
            ByteBuffer b = ByteBuffer.allocate(size);
            b.putInt(size - 4).put((byte) 6).putLong(1);
            return b;
        }

        @Override
        public void close() throws IOException {
            channel.close();
            process.destroyForcibly();
            Files.deleteIfExists(dir);
        }
    }

    /** One round trip of the frame through an echo on the channel; nanoseconds. */
    static long roundTrip(SocketChannel channel, ByteBuffer frame) throws IOException {
        long start = System.nanoTime();
        frame.rewind();
        while (frame.hasRemaining()) channel.write(frame);
        ByteBuffer back = ByteBuffer.allocate(frame.capacity());
        while (back.hasRemaining()) {
            if (channel.read(back) < 0) throw new IOException("the echo ended");
        }
        return System.nanoTime() - start;
    }

    static String javaCommand() {
        return System.getProperty("java.home") + File.separator + "bin" + File.separator + "java";
    }

    static String jarOf(Class<?> c) {
        try {
            return new File(c.getProtectionDomain().getCodeSource().getLocation().toURI()).getPath();
        } catch (Exception e) {
            return System.getProperty("java.class.path");
        }
    }

    static double median(long[] t) {
        long[] s = t.clone();
        Arrays.sort(s);
        return s[s.length / 2];
    }

    static double percentile99(long[] t) {
        long[] s = t.clone();
        Arrays.sort(s);
        return s[Math.min(s.length - 1, (int) Math.ceil(s.length * 0.99) - 1)];
    }

    interface Trip {
        long run() throws Exception;
    }

    static long[] trips(int n, int warmups, Trip trip) throws Exception {
        for (int i = 0; i < warmups; i++) trip.run();
        long[] t = new long[n];
        for (int i = 0; i < n; i++) t[i] = trip.run();
        return t;
    }

    static void run(Engine engine, boolean smoke) throws Exception {
        int trips = smoke ? 20 : 2000;
        int warmups = smoke ? 5 : 500;
        int elements = smoke ? 1000 : 1_000_000;
        int cores = Runtime.getRuntime().availableProcessors();
        Bench.section("pool: kernels in worker processes, against a raw echo to an idle child JVM over a"
                + " Unix-domain socket");
        // The frame of submit("1:") is 20 bytes. The echo and the round trip take turns, in rounds, so that
        // both meet the same phases of a shared machine.
        int rounds = 10;
        long[] echoes = new long[trips];
        long[] t = new long[trips];
        double echoLarge;
        try (Echo echo = new Echo(); EnginePool pool = EnginePool.builder().workers(1).resetEveryTask(false).build()) {
            ByteBuffer small = Echo.frame(20);
            Trip echoTrip = () -> echo.roundTrip(small);
            Trip task = () -> {
                long start = System.nanoTime();
                pool.submit("1:").join();
                return System.nanoTime() - start;
            };
            trips(0, warmups, echoTrip);
            trips(0, warmups, task);
            for (int r = 0; r < rounds; r++) {
                int n = trips / rounds;
                System.arraycopy(trips(n, 0, echoTrip), 0, echoes, r * n, n);
                System.arraycopy(trips(n, 0, task), 0, t, r * n, n);
            }
            ByteBuffer large = Echo.frame(13 + 1 + 1 + 4 + 8 * elements);
            echoLarge = median(trips(smoke ? 3 : 9, 2, () -> echo.roundTrip(large))) / 1000.0;
        }
        double echoMedian = median(echoes) / 1000.0;
        double echoP99 = percentile99(echoes) / 1000.0;
        Bench.floorRow("echo of a 20-byte frame, median", echoMedian, "us");
        Bench.floorRow("echo of a 20-byte frame, 99th percentile", echoP99, "us");
        Bench.row("round trip of submit(\"1:\"), median", median(t) / 1000.0, "us", echoMedian,
                Bench.Target.ratioAtMost(3));
        Bench.row("round trip of submit(\"1:\"), 99th percentile", percentile99(t) / 1000.0, "us", echoP99,
                Bench.Target.NONE);
        try (EnginePool pool = EnginePool.builder().workers(1).resetEveryTask(false).build()) {
            double plain = median(t);
            try (EnginePool resetting = EnginePool.builder().workers(1).build()) {
                long[] r = trips(smoke ? 10 : 200, smoke ? 2 : 50, () -> {
                    long start = System.nanoTime();
                    resetting.submit("1:").join();
                    return System.nanoTime() - start;
                });
                Bench.row("reset between tasks (added to a round trip)", (median(r) - plain) / 1000.0, "us",
                        Double.NaN, Bench.Target.NONE);
            }
            String table = "Array(1.." + elements + ", datatype = float[8], fill = 1.5):";
            double here = median(trips(smoke ? 3 : 7, 2, () -> {
                long start = System.nanoTime();
                double[] d = (double[]) engine.evaluate(table).toJava();
                if (d.length != elements) throw new IllegalStateException();
                return System.nanoTime() - start;
            })) / 1000.0;
            double there = median(trips(smoke ? 3 : 7, 2, () -> {
                long start = System.nanoTime();
                double[] d = (double[]) pool.submit(table).join().value();
                if (d.length != elements) throw new IllegalStateException();
                return System.nanoTime() - start;
            })) / 1000.0;
            Bench.floorRow("in-process evaluate + toJava of that table", here, "us");
            Bench.floorRow("echo of a frame of its 8 bytes per element", echoLarge, "us");
            Bench.row("a " + elements + "-element float[8] table as double[]", there, "us", here + echoLarge,
                    Bench.Target.ratioAtMost(3));
        }
        throughput(engine, smoke, cores);
        starts(smoke, cores);
        SlurmBench.run(engine, smoke, cores);
        SizingBench.run(smoke, cores);
    }

    /** A kernel loop of about 50 ms on this machine (a short one for smoke runs). */
    static String busyTask(Engine engine, boolean smoke) {
        long n = 1000;
        String loop = "for i to " + n + " do end do:";
        if (!smoke) {
            while (true) {
                long start = System.nanoTime();
                engine.evaluate(loop);
                long took = System.nanoTime() - start;
                if (took > 40_000_000L) {
                    n = n * 50_000_000L / took;
                    break;
                }
                n *= 4;
                loop = "for i to " + n + " do end do:";
            }
            loop = "for i to " + n + " do end do:";
        }
        return loop;
    }

    /** Tasks of about 50 ms of kernel loop: one worker, as many as cores, and one in-process engine. */
    private static void throughput(Engine engine, boolean smoke, int cores) throws Exception {
        int tasks = smoke ? 4 : 8 * cores;
        String task = busyTask(engine, smoke);
        double one;
        double all;
        try (EnginePool pool = EnginePool.builder().workers(1).resetEveryTask(false).build()) {
            one = tasksPerSecond(pool, task, tasks);
        }
        try (EnginePool pool = EnginePool.builder().workers(cores).resetEveryTask(false).build()) {
            all = tasksPerSecond(pool, task, tasks);
        }
        ExecutorService threads = Executors.newFixedThreadPool(cores);
        long start = System.nanoTime();
        java.util.List<Future<?>> done = new ArrayList<>();
        for (int i = 0; i < tasks; i++) done.add(threads.submit(() -> engine.evaluate(task)));
        for (Future<?> f : done) f.get();
        double inProcess = tasks / ((System.nanoTime() - start) / 1e9);
        threads.shutdown();
        Bench.row("tasks of 50 ms per second, 1 worker", one, "tasks/s", Double.NaN, Bench.Target.NONE);
        Bench.row("tasks of 50 ms per second, " + cores + " workers", all, "tasks/s", cores * one,
                Bench.Target.ratioAtLeast(0.85));
        Bench.row("the same on one in-process engine, " + cores + " threads", inProcess, "tasks/s", cores * one,
                Bench.Target.NONE);
    }

    static double tasksPerSecond(EnginePool pool, String task, int tasks) {
        for (int i = 0; i < 2; i++) pool.submit(task).join();
        long start = System.nanoTime();
        java.util.List<CompletableFuture<?>> all = new ArrayList<>();
        for (int i = 0; i < tasks; i++) all.add(pool.submit(task));
        CompletableFuture.allOf(all.toArray(new CompletableFuture<?>[0])).join();
        return tasks / ((System.nanoTime() - start) / 1e9);
    }

    /** A worker's start, its replacement after a crash, and its idle memory. */
    private static void starts(boolean smoke, int cores) throws Exception {
        int rounds = smoke ? 1 : 5;
        long[] start = new long[rounds];
        long[] replace = new long[rounds];
        for (int i = 0; i < rounds; i++) {
            long t0 = System.nanoTime();
            try (EnginePool pool = EnginePool.builder().workers(1).kernelArguments("-q", "--test-hooks").build()) {
                start[i] = System.nanoTime() - t0;
                long t1 = System.nanoTime();
                pool.submit("crashkernel();").exceptionally(e -> null).join();
                pool.submit("1:").join();
                replace[i] = System.nanoTime() - t1;
            }
        }
        Bench.row("worker start to ready", median(start) / 1e6, "ms", Double.NaN, Bench.Target.valueAtMost(1000));
        Bench.row("crash to a replacement's first answer", median(replace) / 1e6, "ms", Double.NaN,
                Bench.Target.valueAtMost(1500));
        try (EnginePool pool = EnginePool.builder().workers(cores).build()) {
            Thread.sleep(smoke ? 100 : 1000);
            long max = 0;
            for (long pid : pool.workerPids()) {
                for (String line : Files.readAllLines(Path.of("/proc", Long.toString(pid), "status"))) {
                    if (line.startsWith("VmRSS:")) {
                        max = Math.max(max, Long.parseLong(line.substring(6).trim().split("\\s+")[0]));
                    }
                }
            }
            Bench.row("idle resident memory of a worker (largest)", max / 1024.0, "MiB", Double.NaN,
                    Bench.Target.valueAtMost(80));
        }
    }

    /** Quiet: the pool logs every start and the crashes made on purpose (held, so that the setting stays). */
    private static final java.util.logging.Logger POOL_LOG = java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool");

    static {
        POOL_LOG.setLevel(java.util.logging.Level.OFF);
    }
}
