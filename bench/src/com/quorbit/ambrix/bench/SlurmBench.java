package com.quorbit.ambrix.bench;

import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.pool.EnginePool;
import com.quorbit.ambrix.pool.SlurmLauncher;
import java.io.IOException;
import java.net.InetSocketAddress;
import java.net.StandardSocketOptions;
import java.nio.ByteBuffer;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.time.Duration;

/**
 * The pool on Slurm (when SLURM_CONF names a cluster, as bench/run.sh
 * starts one): a task's round trip through a Slurm worker over TCP against
 * a TCP echo between two JVMs, busy tasks on as many Slurm workers as cores
 * against as many local ones, and the time from submission to a new
 * worker's first answer.
 */
final class SlurmBench {
    private SlurmBench() {
    }

    /** An idle child JVM that sends back every byte over TCP, as a worker's channel would carry them. */
    private static final class Echo implements AutoCloseable {
        final Process process;
        final SocketChannel channel;

        Echo() throws IOException {
            try (ServerSocketChannel server = ServerSocketChannel.open()) {
                server.bind(new InetSocketAddress("127.0.0.1", 0));
                int port = ((InetSocketAddress) server.getLocalAddress()).getPort();
                process = new ProcessBuilder(PoolBench.javaCommand(), "-Xmx64m", "-XX:+UseSerialGC",
                        "-XX:TieredStopAtLevel=1", "-cp", PoolBench.jarOf(TcpEcho.class), TcpEcho.class.getName(),
                        Integer.toString(port)).redirectErrorStream(true)
                        .redirectOutput(ProcessBuilder.Redirect.DISCARD).start();
                channel = server.accept();
                channel.setOption(StandardSocketOptions.TCP_NODELAY, true);
            }
        }

        long roundTrip(ByteBuffer frame) throws IOException {
            return PoolBench.roundTrip(channel, frame);
        }

        @Override
        public void close() throws IOException {
            channel.close();
            process.destroyForcibly();
        }
    }

    private static EnginePool.Builder slurm(int workers) {
        return EnginePool.builder().workers(workers).launcher(SlurmLauncher.builder().build())
                .listenAddress("127.0.0.1").resetEveryTask(false);
    }

    static void run(Engine engine, boolean smoke, int cores) throws Exception {
        if (System.getenv("SLURM_CONF") == null) {
            Bench.section("pool on Slurm: skipped (no cluster: SLURM_CONF is unset)");
            return;
        }
        Bench.section("pool on Slurm: workers as jobs of a single-node cluster on this machine, over TCP");
        int trips = smoke ? 20 : 2000;
        int warmups = smoke ? 5 : 500;
        int rounds = 10;
        long[] echoes = new long[trips];
        long[] t = new long[trips];
        long submitted = System.nanoTime();
        double firstAnswer;
        try (Echo echo = new Echo(); EnginePool pool = slurm(1).build()) {
            pool.submit("1:").join();
            firstAnswer = (System.nanoTime() - submitted) / 1e6;
            ByteBuffer small = ByteBuffer.allocate(20).putInt(16).put((byte) 6).putLong(1);
            PoolBench.Trip echoTrip = () -> echo.roundTrip(small);
            PoolBench.Trip task = () -> {
                long start = System.nanoTime();
                pool.submit("1:").join();
                return System.nanoTime() - start;
            };
            PoolBench.trips(0, warmups, echoTrip);
            PoolBench.trips(0, warmups, task);
            for (int r = 0; r < rounds; r++) {
                int n = trips / rounds;
                System.arraycopy(PoolBench.trips(n, 0, echoTrip), 0, echoes, r * n, n);
                System.arraycopy(PoolBench.trips(n, 0, task), 0, t, r * n, n);
            }
        }
        double echoMedian = PoolBench.median(echoes) / 1000.0;
        Bench.floorRow("TCP echo of a 20-byte frame between JVMs", echoMedian, "us");
        Bench.row("round trip of submit(\"1:\"), Slurm worker", PoolBench.median(t) / 1000.0, "us", echoMedian,
                Bench.Target.ratioAtMost(3));

        String busy = PoolBench.busyTask(engine, smoke);
        int tasks = smoke ? 4 : 8 * cores;
        double local;
        double onSlurm;
        try (EnginePool pool = EnginePool.builder().workers(cores).resetEveryTask(false).build()) {
            local = PoolBench.tasksPerSecond(pool, busy, tasks);
        }
        try (EnginePool pool = slurm(cores).build()) {
            if (!pool.awaitWorkers(cores, Duration.ofSeconds(120))) throw new IllegalStateException("no workers");
            onSlurm = PoolBench.tasksPerSecond(pool, busy, tasks);
        }
        Bench.floorRow("tasks of 50 ms per second, " + cores + " local workers", local, "tasks/s");
        Bench.row("the same on " + cores + " Slurm workers", onSlurm, "tasks/s", local,
                Bench.Target.ratioAtLeast(0.9));
        Bench.row("submit to a new Slurm worker's first answer", firstAnswer, "ms", Double.NaN, Bench.Target.NONE);
    }
}
