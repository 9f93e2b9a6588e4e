package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.net.InetSocketAddress;
import java.net.URI;
import java.nio.ByteBuffer;
import java.nio.channels.SocketChannel;
import java.time.Duration;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.function.Function;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * The pool against broken and hostile peers over TCP: strangers at its
 * listener, a stopped worker, a worker whose answers are malformed, an
 * interrupt storm, a statement too large for a worker, a worker whose
 * connection resets. Workers run on this machine but connect as remote ones
 * do (a launcher that says it is remote), so that the TCP listener, the
 * handshake and the heartbeats are the real ones. Every wait is bounded, so
 * that a fault fails in seconds with what did not happen.
 */
@Timeout(value = 120, unit = TimeUnit.SECONDS)
class PeerTest {
    /** Local worker processes that connect over TCP; it keeps each launch's command. */
    static final class TcpLocal implements Launcher {
        final List<Launch> launches = new java.util.concurrent.CopyOnWriteArrayList<>();

        @Override
        public Launched launch(Launch launch) throws IOException {
            launches.add(launch);
            return Launcher.local().launch(launch);
        }

        /** The address the pool gave its workers: host and port. */
        InetSocketAddress address() {
            List<String> c = launches.get(0).command();
            URI uri = URI.create(c.get(c.indexOf(WorkerMain.class.getName()) + 1));
            return new InetSocketAddress(uri.getHost().replace("[", "").replace("]", ""), uri.getPort());
        }
    }

    static <T> T within(CompletableFuture<T> f, int seconds, String what) throws Exception {
        try {
            return f.get(seconds, TimeUnit.SECONDS);
        } catch (TimeoutException e) {
            throw new AssertionError("not within " + seconds + " s: " + what);
        }
    }

    static Throwable failure(CompletableFuture<?> f, int seconds, String what) throws Exception {
        try {
            f.get(seconds, TimeUnit.SECONDS);
        } catch (ExecutionException e) {
            return e.getCause();
        } catch (TimeoutException e) {
            throw new AssertionError("did not fail within " + seconds + " s: " + what);
        }
        throw new AssertionError("did not fail: " + what);
    }

    static void signal(String signal, long pid) throws Exception {
        assertEquals(0, new ProcessBuilder("kill", "-" + signal, Long.toString(pid)).start().waitFor());
    }

    static long threads(String name) {
        return Thread.getAllStackTraces().keySet().stream().filter(t -> t.getName().equals(name)).count();
    }

    /** Strangers that connect and say nothing, or connect and leave, cost bounded threads and log lines. */
    @Test
    void strangersAtTheListenerCostBoundedThreadsAndLinesAndStopNoWorker() throws Exception {
        TcpLocal launcher = new TcpLocal();
        java.util.logging.Logger log = java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool");
        PoolTest.LogRecords records = new PoolTest.LogRecords();
        log.addHandler(records);
        List<SocketChannel> idle = new ArrayList<>();
        try (EnginePool p = EnginePool.builder().workers(1).launcher(launcher).build()) {
            assertTrue(p.awaitWorkers(1, Duration.ofSeconds(60)), "no worker connected");
            InetSocketAddress at = launcher.address();
            for (int i = 0; i < 400; i++) {
                idle.add(SocketChannel.open(at));
            }
            Thread.sleep(500);
            long handshakes = threads("ambrix-pool-handshake");
            assertTrue(handshakes <= 4, handshakes + " handshake threads for 400 idle connections");
            for (SocketChannel c : idle) {
                c.close();
            }
            int before = records.messages.size();
            for (int i = 0; i < 1000; i++) {
                SocketChannel.open(at).close();
            }
            Thread.sleep(500);
            long refusals = records.messages.subList(before, records.messages.size()).stream()
                    .filter(m -> m.contains("refused a connection") || m.contains("more like it")).count();
            assertTrue(refusals <= 3, refusals + " log lines for 1000 refused connections");
            // The listener still admits workers: a killed one is replaced.
            long pid = p.workerPids().get(0);
            signal("KILL", pid);
            long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
            while (System.nanoTime() < end && (p.workerPids().contains(pid) || !p.awaitWorkers(1, Duration.ZERO))) {
                Thread.sleep(50);
            }
            assertFalse(p.workerPids().contains(pid), "the killed worker was not taken for lost");
            assertTrue(p.awaitWorkers(1, Duration.ZERO), "no worker replaced the killed one");
            assertEquals(2L, within(p.submit("1 + 1;"), 30, "a task after the strangers").value());
            // Each refused connection is told, in a line of its own or in an interval's count.
            long told = 0;
            end = System.nanoTime() + Refusals.INTERVAL_NANOS + TimeUnit.SECONDS.toNanos(5);
            while (told < 1000 && System.nanoTime() < end) {
                Thread.sleep(100);
                told = records.messages.subList(before, records.messages.size()).stream()
                        .mapToLong(PeerTest::refusalsTold).sum();
            }
            assertTrue(told >= 1000, told + " refusals told of 1000: " + records.messages.subList(before,
                    records.messages.size()));
        } finally {
            log.removeHandler(records);
            for (SocketChannel c : idle) {
                c.close();
            }
        }
    }

    /** How many refused connections a log line tells of: one, or the count it sums up. */
    static long refusalsTold(String line) {
        java.util.regex.Matcher m = java.util.regex.Pattern.compile("(\\d+) more like it").matcher(line);
        return m.find() ? Long.parseLong(m.group(1)) : line.contains("refused a connection") ? 1 : 0;
    }

    /**
     * The main of a JVM whose pool's listener runs out of descriptors: it
     * breaks the pool's log, as running out does to a log formatter that has
     * yet to load a class, takes every descriptor left, lets strangers knock
     * for two seconds, gives
     * them back, kills its worker, and says whether a replacement connected.
     */
    public static final class Starved {
        public static void main(String[] args) throws Exception {
            TcpLocal launcher = new TcpLocal();
            try (EnginePool p = EnginePool.builder().workers(1).launcher(launcher).build()) {
                if (!p.awaitWorkers(1, Duration.ofSeconds(60))) {
                    System.out.println("no worker");
                    return;
                }
                long pid = p.workerPids().get(0);
                InetSocketAddress at = launcher.address();
                // Out of descriptors, a log formatter cannot load what it wants, and stays broken after.
                java.util.logging.Logger.getLogger("com.quorbit.ambrix.pool").addHandler(new java.util.logging.Handler() {
                    @Override
                    public void publish(java.util.logging.LogRecord r) {
                        throw new NoClassDefFoundError("a formatter that could not load its time zones");
                    }

                    @Override
                    public void flush() {}

                    @Override
                    public void close() {}
                });
                List<java.io.FileInputStream> hoard = new ArrayList<>();
                try {
                    while (true) {
                        hoard.add(new java.io.FileInputStream("/dev/null"));
                    }
                } catch (IOException e) {
                    // no descriptor left
                }
                System.out.println("starved " + at.getHostString() + " " + at.getPort());
                System.out.flush();
                Thread.sleep(2000);
                for (java.io.FileInputStream f : hoard) {
                    f.close();
                }
                ProcessHandle.of(pid).ifPresent(ProcessHandle::destroyForcibly);
                long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
                boolean replaced = false;
                while (!replaced && System.nanoTime() < end) {
                    Thread.sleep(100);
                    replaced = p.awaitWorkers(1, Duration.ZERO) && !p.workerPids().contains(pid);
                }
                System.out.println("replaced " + replaced);
            }
        }
    }

    /** A listener that runs out of descriptors waits and accepts again: a killed worker is still replaced. */
    @Test
    void theListenerOutlivesRunningOutOfDescriptors() throws Exception {
        List<String> command = new ArrayList<>(List.of("prlimit", "--nofile=4096:4096", "--"));
        command.addAll(PoolTest.javaCommand(Starved.class));
        Process child = new ProcessBuilder(command).redirectErrorStream(true).start();
        try {
            java.io.BufferedReader out = new java.io.BufferedReader(new java.io.InputStreamReader(child.getInputStream()));
            StringBuilder seen = new StringBuilder();
            String line;
            while ((line = out.readLine()) != null && !line.startsWith("starved ")) {
                seen.append(line).append('\n');
            }
            assertTrue(line != null, "the starved pool said nothing: " + seen);
            String[] f = line.split(" ");
            List<SocketChannel> knocks = new ArrayList<>();
            for (int i = 0; i < 3; i++) {
                knocks.add(SocketChannel.open(new InetSocketAddress(f[1], Integer.parseInt(f[2]))));
            }
            // Its end, or its crash; the pool's own log lines (an accept that failed) go by.
            CompletableFuture<String> rest = CompletableFuture.supplyAsync(() -> out.lines()
                    .filter(l -> l.startsWith("replaced ") || l.startsWith("Exception in thread"))
                    .findFirst().orElse("(no end)"));
            String tail = within(rest, 90, "the starved pool's end");
            for (SocketChannel c : knocks) {
                c.close();
            }
            assertTrue(tail.contains("replaced true"), tail);
        } finally {
            child.destroyForcibly();
        }
    }

    @Test
    void anIpv6ListenAddressReachesItsWorkers() throws Exception {
        try (EnginePool p = EnginePool.builder().workers(1).launcher(new TcpLocal()).listenAddress("::1").build()) {
            assertTrue(p.awaitWorkers(1, Duration.ofSeconds(60)), "no worker connected to [::1]");
            assertEquals(2L, within(p.submit("1 + 1;"), 30, "a task over IPv6").value());
        }
    }

    /**
     * A stopped worker whose socket is full holds no thread of the pool:
     * submit returns at once, the heartbeats go on, and the worker that a
     * session holds is never taken for silent.
     */
    @Test
    void aStoppedWorkerStopsNoOtherWorkerAndNoCaller() throws Exception {
        try (EnginePool p = EnginePool.builder().workers(2).launcher(new TcpLocal()).javaOptions("-Xmx256m")
                .heartbeatTimeout(Duration.ofSeconds(4)).build()) {
            assertTrue(p.awaitWorkers(2, Duration.ofSeconds(60)), "the workers did not connect");
            try (Session held = p.session()) {
                held.evaluate("x := 41:");
                // The free worker is stopped: the one whose slot is READY, not the session's BUSY one.
                List<Long> pids = p.workerPids();
                List<WorkerState> states = p.workerStates();
                long stopped = pids.get(states.get(0).status() == WorkerState.Status.READY ? 0 : 1);
                signal("STOP", stopped);
                try {
                    String big = "\"" + "a".repeat(16 << 20) + "\":";
                    CompletableFuture<CompletableFuture<Result>> submitted = CompletableFuture.supplyAsync(
                            () -> p.submit(big));
                    CompletableFuture<Result> task = within(submitted, 5, "submit returned");
                    // Whether the task met the stopped worker or waits in line, the held worker lives on.
                    Thread.sleep(10_000);
                    assertEquals(42L, held.evaluate("x + 1;").value(), "the session's worker was lost");
                    assertFalse(p.workerPids().contains(stopped), "the stopped worker was not taken for lost");
                    task.cancel(false);
                } finally {
                    // It was killed as lost already, or is now.
                    new ProcessBuilder("kill", "-CONT", Long.toString(stopped)).start().waitFor();
                }
            }
        }
    }

    /**
     * A local worker sends no heartbeats: when it is stopped, only its
     * stalled write tells. A task larger than its socket takes is written in
     * part; the worker is lost once the write makes no progress for the
     * heartbeat timeout, and the task fails with that reason.
     */
    @Test
    void aWriteThatStallsLosesALocalWorkerWithTheReason() throws Exception {
        try (EnginePool p = EnginePool.builder().workers(1).retries(0).heartbeatTimeout(Duration.ofSeconds(2))
                .build()) {
            assertTrue(p.awaitWorkers(1, Duration.ofSeconds(60)), "no worker started");
            long pid = p.workerPids().get(0);
            signal("STOP", pid);
            try {
                CompletableFuture<Result> task = p.submit("\"" + "a".repeat(4 << 20) + "\":");
                WorkerLostException e = assertInstanceOf(WorkerLostException.class,
                        failure(task, 20, "the task written to a stopped worker"));
                assertTrue(e.reason().contains("made no progress for 2 s"), e.reason());
            } finally {
                new ProcessBuilder("kill", "-CONT", Long.toString(pid)).start().waitFor();
            }
        }
    }

    /** What a hostile worker answers to its first task: the frame's kind and payload. */
    static Stream<Arguments> hostileAnswers() {
        return Stream.of(
                Arguments.of("an answer of an unknown kind", (Function<Long, Wire.Writer>) id ->
                        new Wire.Writer((byte) 99, id), "an answer of kind 99"),
                Arguments.of("a table of 2^31-1 rows of no columns", (Function<Long, Wire.Writer>) id -> {
                    Wire.Writer w = new Wire.Writer(Wire.RESULT, id).string("");
                    w.room(10).put(Wire.MATRIX).put((byte) 'D').putInt(Integer.MAX_VALUE).putInt(0);
                    return w;
                }, "exceeds the frame"),
                Arguments.of("a result cut off", (Function<Long, Wire.Writer>) id ->
                        new Wire.Writer(Wire.RESULT, id).string("text"), "a value is cut off"),
                Arguments.of("an error at offset -2", (Function<Long, Wire.Writer>) id ->
                        new Wire.Writer(Wire.ERROR, id).string("e").strings(List.of()).number(-2),
                        "an error at offset -2"));
    }

    /**
     * A worker that holds the secret and answers its task with a bad frame
     * fails that task with its loss and the reason; it never leaves the task
     * waiting, nor gives the caller a null.
     */
    @ParameterizedTest(name = "{0}")
    @MethodSource("hostileAnswers")
    void aMalformedAnswerFailsItsTaskWithTheWorkersLoss(String what, Function<Long, Wire.Writer> answer,
            String reason) throws Exception {
        Launcher hostile = launch -> Hostile.start(launch, answer);
        try (EnginePool p = EnginePool.builder().workers(1).launcher(hostile).build()) {
            assertTrue(p.awaitWorkers(1, Duration.ofSeconds(30)), "the hostile worker did not connect");
            Throwable e = failure(p.submit("1;"), 10, what);
            WorkerLostException lost = assertInstanceOf(WorkerLostException.class, e);
            assertTrue(lost.reason().contains(reason), lost.reason());
        }
    }

    /** A worker in this JVM that speaks the protocol, and answers its first task as it is told. */
    static final class Hostile implements Launcher.Launched {
        final CompletableFuture<String> ended = new CompletableFuture<>();
        final List<SocketChannel> channels = new ArrayList<>();

        static Launcher.Launched start(Launcher.Launch launch, Function<Long, Wire.Writer> answer) {
            Hostile h = new Hostile();
            List<String> c = launch.command();
            int at = c.indexOf(WorkerMain.class.getName());
            URI uri = URI.create(c.get(at + 1));
            long token = Long.parseLong(c.get(at + 2));
            byte[] secret = java.util.HexFormat.of().parseHex(launch.environment().get(Handshake.SECRET_VARIABLE));
            Thread t = new Thread(() -> {
                try {
                    InetSocketAddress to = new InetSocketAddress(uri.getHost(), uri.getPort());
                    for (byte channel = 1; channel <= 2; channel++) {
                        SocketChannel s = SocketChannel.open(to);
                        Handshake.connect(s.socket(), secret, token, channel, 5000);
                        h.channels.add(s);
                    }
                    Wire.Assembler frames = new Wire.Assembler();
                    java.io.OutputStream out = Wire.output(h.channels.get(0));
                    for (Wire.Frame f = frames.read(h.channels.get(0)); f != null; f = frames.read(h.channels.get(0))) {
                        if (f.kind() == Wire.INIT) {
                            new Wire.Writer(Wire.READY, f.task()).send(out);
                        } else {
                            answer.apply(f.task()).send(out);
                        }
                    }
                } catch (IOException e) {
                    // the pool ended the connection
                } finally {
                    h.kill();
                }
            }, "hostile-worker");
            t.setDaemon(true);
            t.start();
            return h;
        }

        @Override
        public String host() {
            return "localhost";
        }

        @Override
        public String job() {
            return "hostile";
        }

        @Override
        public CompletableFuture<String> ended() {
            return ended;
        }

        @Override
        public void kill() {
            for (SocketChannel c : channels) {
                try {
                    c.close();
                } catch (IOException e) {
                    // closed
                }
            }
            ended.complete("killed");
        }
    }

    /**
     * Interrupts of a task that ignores them come in a storm: the worker
     * still reads the pool's heartbeats and lives on.
     */
    @Test
    void anInterruptStormDoesNotSilenceTheWorker() throws Exception {
        try (EnginePool p = EnginePool.builder().workers(1).launcher(new TcpLocal())
                .kernelArguments("-q", "--test-hooks").heartbeatTimeout(Duration.ofSeconds(2)).build()) {
            assertTrue(p.awaitWorkers(1, Duration.ofSeconds(60)), "no worker connected");
            long pid = p.workerPids().get(0);
            try (Session s = p.session()) {
                CompletableFuture<Throwable> spinning = CompletableFuture.supplyAsync(() ->
                        assertThrows(VexelException.class, () -> s.evaluate("spin();")));
                Thread.sleep(500);
                for (int i = 0; i < 8; i++) {
                    s.interrupt();
                    Thread.sleep(50);
                }
                Thread.sleep(4000);
                assertTrue(p.workerPids().contains(pid), "the worker was lost during the storm");
                assertFalse(spinning.isDone(), "the spinning task ended: " + spinning.getNow(null));
                s.kill();
                assertInstanceOf(WorkerLostException.class, within(spinning, 10, "the kill ended the task"));
            }
        }
    }

    /** A statement larger than a worker's heap can take is refused at submit, naming the limit. */
    @Test
    void aStatementTooLargeForAWorkerIsRefusedAtSubmit() throws Exception {
        String big = "\"" + "a".repeat(9 << 20) + "\": 1;";
        try (EnginePool p = EnginePool.builder().workers(1).build()) {
            VexelException e = assertThrows(VexelException.class, () -> p.submit(big));
            assertTrue(e.getMessage().contains("at most 8388608"), e.getMessage());
            assertEquals(1L, within(p.submit("1;"), 30, "a task after the refusal").value());
        }
        try (EnginePool p = EnginePool.builder().workers(1).javaOptions("-Xmx256m").build()) {
            assertEquals(1L, within(p.submit(big), 60, "the statement on a larger heap").value());
        }
    }

    /** A remote worker whose connection resets is lost at once, and the reason says so. */
    @Test
    void aResetConnectionIsALossAtOnceThatSaysSo() throws Exception {
        try (EnginePool p = EnginePool.builder().workers(1).launcher(new TcpLocal()).retries(0)
                .kernelArguments("-q", "--test-hooks").build()) {
            assertTrue(p.awaitWorkers(1, Duration.ofSeconds(60)), "no worker connected");
            CompletableFuture<Result> spinning = p.submit("spin();");
            Thread.sleep(300);
            signal("KILL", p.workerPids().get(0));
            WorkerLostException e = assertInstanceOf(WorkerLostException.class,
                    failure(spinning, 5, "the task of the killed worker"));
            assertTrue(e.reason().startsWith("the connection to the worker on "), e.reason());
            assertTrue(e.reason().contains(" was lost"), e.reason());
        }
    }

    /** An announced frame costs what arrives, not what it announces; a table no frame can hold is refused. */
    @Test
    void theWiresBoundsFollowTheBytes() throws Exception {
        ByteBuffer announced = ByteBuffer.allocate(4 + 9 + 1024).putInt(Wire.MAX_FRAME).put(Wire.RESULT).putLong(1);
        Wire.Assembler a = new Wire.Assembler();
        WireTest.Trickle in = new WireTest.Trickle(announced.array(), 512);
        try {
            while (a.next(in) == null) {
                assertTrue(a.room() < (1 << 20), a.room() + " bytes held for a frame of 1 KiB so far");
            }
        } catch (Wire.WireException end) {
            assertTrue(end.getMessage().startsWith("truncated frame"), end.getMessage());
        }
        Wire.Writer w = new Wire.Writer(Wire.ECHO, 1);
        w.room(10).put(Wire.MATRIX).put((byte) 'D').putInt(Integer.MAX_VALUE).putInt(0);
        Wire.WireException e = assertThrows(Wire.WireException.class,
                () -> WireTest.read(WireTest.frame(w)).values().value());
        assertTrue(e.getMessage().contains("exceeds the frame"), e.getMessage());
        double[][] empty = (double[][]) WireTest.read(WireTest.frame(new Wire.Writer(Wire.ECHO, 1)
                .value(new double[3][0]))).values().value();
        assertEquals(3, empty.length);
    }
}
