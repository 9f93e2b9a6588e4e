package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertInstanceOf;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.quorbit.ambrix.KernelErrorException;
import com.quorbit.externalcall.VexelException;
import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.math.BigInteger;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.ByteBuffer;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/** The frames between a pool and its workers, and what each side does with a bad one. */
@Timeout(value = 60, unit = TimeUnit.SECONDS)
class WireTest {
    static byte[] frame(Wire.Writer w) throws Exception {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        w.send(out);
        return out.toByteArray();
    }

    static Wire.Frame read(byte[] bytes) throws Exception {
        return new Wire.Assembler().read(java.nio.channels.Channels.newChannel(new ByteArrayInputStream(bytes)));
    }

    @Test
    void valuesSurviveTheTrip() throws Exception {
        Object[] values = {null, true, false, -5L, BigInteger.TWO.pow(100).negate(), -0.0, "text \u00e9\u20ac",
            java.util.List.of(1L, java.util.List.of("x")), java.util.Map.of("k", 2L),
            new double[] {1.5, Double.NaN}, new float[] {2f}, new long[] {Long.MIN_VALUE}, new int[] {7},
            new short[] {-3}, new byte[] {9}, new double[][] {{1, 2}, {3, 4}, {5, 6}}, new int[0][]};
        for (Object v : values) {
            Wire.Frame f = read(frame(new Wire.Writer(Wire.ECHO, 42).value(v)));
            assertEquals(Wire.ECHO, f.kind());
            assertEquals(42, f.task());
            Object back = f.values().value();
            if (v instanceof double[][] m) {
                assertArrayEquals(m, (double[][]) back);
            } else if (v instanceof int[][] m) {
                assertEquals(0, ((int[][]) back).length);
            } else if (v != null && v.getClass().isArray()) {
                assertTrue(java.util.Objects.deepEquals(new Object[] {v}, new Object[] {back}), v.toString());
            } else {
                assertEquals(v, back);
            }
        }
        assertEquals(3L, read(frame(new Wire.Writer(Wire.ECHO, 1).value(3))).values().value());
        assertEquals(java.util.List.of(1L, "a"),
                read(frame(new Wire.Writer(Wire.ECHO, 1).value(new Object[] {1L, "a"}))).values().value());
        assertThrows(com.quorbit.externalcall.VexelException.class, () -> new Wire.Writer(Wire.ECHO, 1)
                .value(new Object()));
    }

    /** A frame header: the length, then the kind and the task number. */
    static ByteBuffer header(int length, int payload) {
        return ByteBuffer.allocate(13 + payload).putInt(length).put(Wire.EVAL).putLong(1);
    }

    static Stream<Arguments> badFrames() {
        return Stream.of(
                Arguments.of("truncated", header(100, 10).array(), "truncated frame"),
                Arguments.of("oversized", header(Integer.MAX_VALUE, 0).array(), "bad frame length"),
                Arguments.of("too short", header(4, 0).array(), "bad frame length"),
                Arguments.of("a byte short of a task number", header(8, 0).array(), "bad frame length"),
                Arguments.of("negative", header(-1, 0).array(), "bad frame length"),
                Arguments.of("cut in its length", new byte[] {0, 0}, "truncated frame"));
    }

    /** A bad frame is refused with the same message whether its bytes come at once or one at a time. */
    @ParameterizedTest(name = "{0}")
    @MethodSource("badFrames")
    void aBadFrameIsRefused(String what, byte[] bytes, String message) {
        Wire.WireException e = assertThrows(Wire.WireException.class, () -> read(bytes));
        assertTrue(e.getMessage().contains(message), e.getMessage());
        for (int chunk : new int[] {1, bytes.length}) {
            Wire.WireException a = assertThrows(Wire.WireException.class, () -> assemble(bytes, chunk));
            assertEquals(e.getMessage(), a.getMessage());
        }
    }

    /** The shortest frame, a kind and a task number with no payload, comes whole whichever way its bytes come. */
    @ParameterizedTest
    @org.junit.jupiter.params.provider.ValueSource(ints = {1, Integer.MAX_VALUE})
    void theShortestFrameHasNoPayload(int chunk) throws Exception {
        java.util.List<Wire.Frame> frames = assemble(header(9, 0).array(), chunk);
        assertEquals(1, frames.size());
        assertEquals(Wire.EVAL, frames.get(0).kind());
        assertEquals(1, frames.get(0).task());
        assertEquals(0, frames.get(0).payload().remaining());
    }

    /** A non-blocking channel: at most `chunk` bytes a read, with "nothing for now" between reads. */
    static final class Trickle implements java.nio.channels.ReadableByteChannel {
        private final byte[] data;
        private final int chunk;
        private int at;
        private boolean paused;

        Trickle(byte[] data, int chunk) {
            this.data = data;
            this.chunk = chunk;
        }

        @Override
        public int read(ByteBuffer dst) {
            if (at == data.length) return -1;
            paused = !paused;
            if (!paused) return 0;
            int n = Math.min(chunk, Math.min(dst.remaining(), data.length - at));
            dst.put(data, at, n);
            at += n;
            return n;
        }

        @Override
        public boolean isOpen() {
            return true;
        }

        @Override
        public void close() {
        }
    }

    /** Every frame an assembler makes of the bytes, read in chunks, up to the clean end. */
    static java.util.List<Wire.Frame> assemble(byte[] bytes, int chunk) throws Exception {
        Wire.Assembler a = new Wire.Assembler();
        Trickle in = new Trickle(bytes, chunk);
        java.util.List<Wire.Frame> frames = new java.util.ArrayList<>();
        try {
            while (true) {
                Wire.Frame f = a.next(in);
                if (f != null) frames.add(f);
            }
        } catch (java.io.EOFException end) {
            return frames;
        }
    }

    /** Frames cut anywhere, also one larger than the assembler's buffer, come out whole and in order. */
    @ParameterizedTest
    @org.junit.jupiter.params.provider.ValueSource(ints = {1, 7, 4096, Integer.MAX_VALUE})
    void theAssemblerJoinsFramesCutAnywhere(int chunk) throws Exception {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        new Wire.Writer(Wire.RESULT, 1).string("small").send(out);
        double[] big = new double[40_000];
        java.util.Arrays.setAll(big, i -> i);
        new Wire.Writer(Wire.RESULT, 2).value(big).send(out);
        new Wire.Writer(Wire.DONE, 3).send(out);
        java.util.List<Wire.Frame> frames = assemble(out.toByteArray(), chunk);
        assertEquals(java.util.List.of(1L, 2L, 3L), frames.stream().map(Wire.Frame::task).toList());
        assertEquals("small", frames.get(0).values().string());
        assertArrayEquals(big, (double[]) frames.get(1).values().value());
        assertEquals(Wire.DONE, frames.get(2).kind());
    }

    static Stream<Arguments> badPayloads() {
        return Stream.of(
                Arguments.of("unknown tag", new byte[] {99}, "unknown value tag"),
                Arguments.of("cut value", new byte[] {3, 0, 0}, "cut off"),
                Arguments.of("long count", new byte[] {7, 0x7f, 0, 0, 0}, "exceeds the frame"),
                Arguments.of("array count", new byte[] {9, 'D', 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0}, "exceeds"),
                Arguments.of("element type", new byte[] {9, 'Q', 0, 0, 0, 0}, "unknown element type"),
                Arguments.of("deep", deep(100), "nested too deep"));
    }

    static byte[] deep(int n) {
        ByteBuffer b = ByteBuffer.allocate(5 * n + 1);
        for (int i = 0; i < n; i++) b.put((byte) 7).putInt(1);
        return b.put((byte) 0).array();
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("badPayloads")
    void aBadPayloadIsRefused(String what, byte[] payload, String message) {
        Wire.Reader r = new Wire.Reader(ByteBuffer.wrap(payload));
        Wire.WireException e = assertThrows(Wire.WireException.class, r::value);
        assertTrue(e.getMessage().contains(message), e.getMessage());
    }

    @Test
    void theEndOfInputBetweenFramesIsACleanEnd() throws Exception {
        assertNull(read(new byte[0]));
    }

    /** The bad frames on the task channel, then frames that belong on the other channel. */
    static Stream<Arguments> workerBadFrames() throws Exception {
        byte[] interrupt = frame(new Wire.Writer(Wire.INTERRUPT, 1));
        byte[] task = frame(new Wire.Writer(Wire.EVAL, 1).string("1;"));
        return Stream.concat(badFrames().map(a -> Arguments.of(a.get()[0], a.get()[1], a.get()[2], false)),
                Stream.of(Arguments.of("an interrupt with the tasks", interrupt, "kind 5 on the task channel", false),
                        Arguments.of("a task with the interrupts", task, "kind 2 on the interrupt channel", true),
                        Arguments.of("truncated interrupt", header(100, 10).array(), "truncated frame", true)));
    }

    /** A worker given a bad frame on either of its channels says what was wrong and ends; it never hangs. */
    @ParameterizedTest(name = "{0}")
    @MethodSource("workerBadFrames")
    void aWorkerEndsOnABadFrame(String what, byte[] bytes, String message, boolean onInterrupts) throws Exception {
        Path dir = Files.createTempDirectory("ambrix-wire-test");
        Path socket = dir.resolve("w.sock");
        try (ServerSocketChannel server = ServerSocketChannel.open(StandardProtocolFamily.UNIX)) {
            server.bind(UnixDomainSocketAddress.of(socket));
            Process worker = new ProcessBuilder(LocalLauncher.javaCommand(), "-cp", PoolSettings.classPath(),
                    WorkerMain.class.getName(), socket.toString()).redirectErrorStream(true).start();
            try (SocketChannel tasks = server.accept(); SocketChannel interrupts = server.accept()) {
                SocketChannel c = onInterrupts ? interrupts : tasks;
                c.write(ByteBuffer.wrap(bytes));
                c.shutdownOutput();
                assertTrue(worker.waitFor(30, TimeUnit.SECONDS), "the worker hangs");
                String said = new String(worker.getInputStream().readAllBytes());
                assertEquals(3, worker.exitValue(), said);
                assertTrue(said.contains("ambrix worker: ") && said.contains(message), said);
            } finally {
                worker.destroyForcibly();
            }
        } finally {
            Files.deleteIfExists(socket);
            Files.deleteIfExists(dir);
        }
    }

    /** What a task failed with in the worker, and what its caller gets: the message and the offset. */
    static Stream<Arguments> failures() {
        return Stream.of(
                Arguments.of("a parse error", new KernelErrorException("syntax error: unexpected `;`", 10), 10),
                Arguments.of("a parse error at the start", new KernelErrorException("unexpected `)`", 0), 0),
                Arguments.of("an error without a place",
                        new KernelErrorException("numeric exception: division by zero", -1), -1),
                Arguments.of("a failure of the bridge", new VexelException("Value is NULL"), -1));
    }

    /** A task's failure crosses from the worker to the pool with its message and the kernel's offset. */
    @ParameterizedTest(name = "{0}")
    @MethodSource("failures")
    void aFailureKeepsItsOffset(String what, VexelException thrown, int offset) throws Exception {
        Wire.Writer reply = new WorkerKernel().run(7, id -> {
            throw thrown;
        });
        Task task = new Task(7, Wire.EVAL, null, false, false, 0);
        task.answer(read(frame(reply))).run();
        Throwable e = assertThrows(ExecutionException.class, task.future::get).getCause();
        KernelErrorException k = assertInstanceOf(KernelErrorException.class, e);
        assertEquals(thrown.getMessage(), k.getMessage());
        assertEquals(offset, k.offset());
    }

    /** Error answers whose offset or length is wrong: the answer is refused, as any malformed frame. */
    static Stream<Arguments> badErrors() {
        java.util.List<String> none = java.util.List.of();
        return Stream.of(
                Arguments.of("an offset below -1", new Wire.Writer(Wire.ERROR, 7).string("e").strings(none).number(-2),
                        "an error at offset -2"),
                Arguments.of("an offset beyond an int", new Wire.Writer(Wire.ERROR, 7).string("e").strings(none)
                        .number(1L << 31), "an error at offset 2147483648"),
                Arguments.of("an offset that is text", new Wire.Writer(Wire.ERROR, 7).string("e").strings(none)
                        .string("3"), "an integer was expected"),
                Arguments.of("no offset", new Wire.Writer(Wire.ERROR, 7).string("e").strings(none),
                        "a value is cut off"),
                Arguments.of("bytes after the offset", new Wire.Writer(Wire.ERROR, 7).string("e").strings(none)
                        .number(1).number(2), "bytes after the payload"));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("badErrors")
    void aBadErrorAnswerIsRefused(String what, Wire.Writer answer, String message) throws Exception {
        Task task = new Task(7, Wire.EVAL, null, false, false, 0);
        Wire.Frame f = read(frame(answer));
        Wire.WireException e = assertThrows(Wire.WireException.class, () -> task.answer(f));
        assertTrue(e.getMessage().contains(message), e.getMessage());
        assertFalse(task.future.isDone());
    }

    @Test
    void exitStatusesNameTheirSignals() {
        assertEquals("signal 11 (SIGSEGV)", LocalLauncher.exitReason(139));
        assertEquals("signal 9 (SIGKILL)", LocalLauncher.exitReason(137));
        assertEquals("signal 30", LocalLauncher.exitReason(158));
        assertEquals("exit status 1", LocalLauncher.exitReason(1));
    }
}
