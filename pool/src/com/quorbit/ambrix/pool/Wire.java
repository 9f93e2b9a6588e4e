package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.io.EOFException;
import java.io.IOException;
import java.io.OutputStream;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;

/**
 * The protocol between a pool and its workers: length-prefixed frames, each
 * a kind, a task number and a payload of values in a small tagged binary
 * encoding of exactly the values the conversions know (null, booleans,
 * 64-bit and big integers, doubles, strings, lists, maps, and 1-D and
 * rectangular 2-D primitive arrays, whose elements go as raw bytes).
 *
 * <p>A frame is a big-endian 32-bit length, then that many bytes: the kind
 * (one byte), the task number (8 bytes), the payload. A frame that is too
 * short, too long, cut off, or whose payload does not decode ends the
 * connection with a {@link WireException}.
 */
final class Wire {
    /** The largest frame either side accepts. */
    static final int MAX_FRAME = 1 << 28;

    // Frame kinds. Pool to worker:
    static final byte INIT = 1;       // kernel arguments, initialize statements
    static final byte EVAL = 2;       // statement
    static final byte CALL = 3;       // procedure name, arguments
    static final byte RESET = 4;      // (nothing)
    static final byte INTERRUPT = 5;  // (nothing): ends the task of that number
    static final byte ECHO = 6;       // anything: sent back as it came
    static final byte HELP = 7;       // topic, section, width
    // Both ways, on the interrupt channel of a worker over TCP:
    static final byte HEARTBEAT = 8;  // pool: (nothing); worker: its resident bytes
    // Worker to pool:
    static final byte READY = 20;     // (nothing)
    static final byte RESULT = 21;    // text, value, output lines, elapsed nanoseconds, plots
    static final byte ERROR = 22;     // message, output lines, offset into the statement (-1: none)
    static final byte DONE = 23;      // (nothing)

    // Value tags.
    static final byte NULL = 0, FALSE = 1, TRUE = 2, LONG = 3, BIG = 4, DOUBLE = 5, STRING = 6, LIST = 7, MAP = 8,
            ARRAY = 9, MATRIX = 10;

    private Wire() {
    }

    /** A malformed, truncated or oversized frame: the connection ends. */
    static final class WireException extends IOException {
        private static final long serialVersionUID = 1;

        WireException(String message) {
            super(message);
        }
    }

    /** One frame as read. */
    record Frame(byte kind, long task, ByteBuffer payload) {
        /** The payload's values, in order. */
        Reader values() {
            return new Reader(payload);
        }
    }

    /**
     * The frames of a channel, made of its bytes as they come: what has come
     * of a frame waits here for the rest. The pool reads its channels
     * without blocking ({@link #next}); a worker's threads block
     * ({@link #read}).
     */
    static final class Assembler {
        /** Bytes read and not yet taken, between position and limit. */
        private final ByteBuffer staged = ByteBuffer.allocate(1 << 16).flip();
        /**
         * A frame larger than the staging buffer, read straight into its
         * body; the buffer grows with the bytes that come, up to the length
         * the frame announced, so an announced length costs nothing until
         * its bytes arrive.
         */
        private ByteBuffer large;
        /** The length the large frame announced. */
        private int largeLength;

        /**
         * The next whole frame, reading the channel only when the bytes
         * already here hold none; null when the channel has nothing more
         * for now.
         *
         * @throws EOFException  at the end of input between frames
         * @throws WireException for a frame that is too short, too long or cut off
         */
        Frame next(java.nio.channels.ReadableByteChannel channel) throws IOException {
            while (true) {
                Frame f = take();
                if (f != null) {
                    return f;
                }
                int n;
                if (large != null) {
                    if (!large.hasRemaining()) {
                        large = grown(large, largeLength);
                    }
                    n = channel.read(large);
                } else {
                    staged.compact();
                    try {
                        n = channel.read(staged);
                    } finally {
                        staged.flip();
                    }
                }
                if (n < 0) {
                    throw ended();
                }
                if (n == 0) {
                    return null;
                }
            }
        }

        /**
         * The next whole frame from a channel that blocks; null at the end
         * of input between frames.
         *
         * @throws WireException for a frame that is too short, too long or cut off
         */
        Frame read(java.nio.channels.ReadableByteChannel channel) throws IOException {
            try {
                return next(channel);
            } catch (EOFException end) {
                return null;
            }
        }

        private Frame take() throws WireException {
            ByteBuffer body;
            if (large != null) {
                if (large.position() < largeLength) {
                    return null;
                }
                body = large.flip();
                large = null;
            } else {
                if (staged.remaining() < 4) {
                    return null;
                }
                int length = staged.getInt(staged.position());
                if (length < 9 || length > MAX_FRAME) {
                    throw new WireException("bad frame length " + length + " (9 to " + MAX_FRAME + " bytes)");
                }
                if (4 + length > staged.capacity()) {
                    staged.position(staged.position() + 4);
                    largeLength = length;
                    large = ByteBuffer.allocate(Math.min(length, 2 * staged.capacity())).put(staged);
                    return null;
                }
                if (staged.remaining() < 4 + length) {
                    return null;
                }
                staged.position(staged.position() + 4);
                byte[] bytes = new byte[length];
                staged.get(bytes);
                body = ByteBuffer.wrap(bytes);
            }
            return new Frame(body.get(), body.getLong(), body.slice());
        }

        /** A buffer twice as large (at most the frame's length), holding what this one held. */
        private static ByteBuffer grown(ByteBuffer b, int length) {
            int capacity = (int) Math.min(length, 2L * b.capacity());
            return ByteBuffer.allocate(capacity).put(b.flip());
        }

        /** How many bytes the assembler holds room for now: what has come, not what was announced. */
        int room() {
            return staged.capacity() + (large == null ? 0 : large.capacity());
        }

        private IOException ended() {
            if (large != null) {
                return new WireException("truncated frame: the input ended inside a frame of " + largeLength
                        + " bytes");
            }
            if (staged.remaining() >= 4) {
                return new WireException("truncated frame: the input ended inside a frame of "
                        + staged.getInt(staged.position()) + " bytes");
            }
            if (staged.hasRemaining()) {
                return new WireException("truncated frame: the input ended inside a frame's length");
            }
            return new EOFException();
        }
    }

    /** Builds one frame's payload, then writes it. */
    static final class Writer {
        private ByteBuffer buf = ByteBuffer.allocate(256);

        Writer(byte kind, long task) {
            buf.putInt(0).put(kind).putLong(task);
        }

        /** Writes the frame to the stream and flushes it. */
        void send(OutputStream out) throws IOException {
            ByteBuffer f = frame();
            out.write(f.array(), 0, f.limit());
            out.flush();
        }

        /** The whole frame, its length set, as a buffer of its own to write. */
        ByteBuffer frame() throws WireException {
            int length = buf.position() - 4;
            if (length > MAX_FRAME) {
                throw new WireException("frame of " + length + " bytes is too large (at most " + MAX_FRAME + ")");
            }
            buf.putInt(0, length);
            return ByteBuffer.wrap(buf.array(), 0, buf.position());
        }

        /** The frame's length so far, its length prefix included. */
        int size() {
            return buf.position();
        }

        ByteBuffer room(long n) {
            if (buf.remaining() < n) {
                long want = Math.max((long) buf.capacity() * 2, buf.position() + n);
                if (want > MAX_FRAME + 4L) {
                    throw new VexelException("Value too large for a worker frame (at most " + MAX_FRAME + " bytes)");
                }
                buf = ByteBuffer.wrap(Arrays.copyOf(buf.array(), (int) want)).position(buf.position());
            }
            return buf;
        }

        Writer raw(ByteBuffer bytes) {
            room(bytes.remaining()).put(bytes);
            return this;
        }

        Writer string(String s) {
            byte[] b = s.getBytes(StandardCharsets.UTF_8);
            room(5 + b.length).put(STRING).putInt(b.length).put(b);
            return this;
        }

        Writer strings(java.util.List<String> lines) {
            room(5).put(LIST).putInt(lines.size());
            for (String s : lines) {
                string(s);
            }
            return this;
        }

        Writer number(long n) {
            room(9).put(LONG).putLong(n);
            return this;
        }

        /**
         * Any value the conversions know.
         *
         * @throws VexelException for a value of another class, or one nested too deep
         */
        Writer value(Object v) {
            WireValues.write(this, v, 0);
            return this;
        }
    }


    /** Decodes a payload's values; every read is checked against what is left. */
    static final class Reader {
        private final ByteBuffer b;

        Reader(ByteBuffer payload) {
            b = payload.order(ByteOrder.BIG_ENDIAN);
        }

        ByteBuffer need(int n) throws WireException {
            if (n < 0 || b.remaining() < n) {
                throw new WireException("malformed frame: a value is cut off");
            }
            return b;
        }

        /** A count of items that take at least `each` bytes apiece. */
        int count(int each) throws WireException {
            int n = need(4).getInt();
            if (n < 0 || (long) n * each > b.remaining()) {
                throw new WireException("malformed frame: a count of " + n + " exceeds the frame");
            }
            return n;
        }

        String string() throws WireException {
            Object v = value();
            if (!(v instanceof String s)) {
                throw new WireException("malformed frame: a string was expected");
            }
            return s;
        }

        long number() throws WireException {
            Object v = value();
            if (!(v instanceof Long n)) {
                throw new WireException("malformed frame: an integer was expected");
            }
            return n;
        }

        java.util.List<String> strings() throws WireException {
            Object v = value();
            java.util.List<String> out = new ArrayList<>();
            if (v instanceof java.util.List<?> l) {
                for (Object e : l) {
                    if (!(e instanceof String s)) {
                        throw new WireException("malformed frame: a list of strings was expected");
                    }
                    out.add(s);
                }
                return Collections.unmodifiableList(out);
            }
            throw new WireException("malformed frame: a list of strings was expected");
        }

        /** The list of values a call carries. */
        Object[] arguments() throws WireException {
            Object v = value();
            if (!(v instanceof java.util.List<?> l)) {
                throw new WireException("malformed frame: a list of arguments was expected");
            }
            return l.toArray();
        }

        /** The payload, at what is left of it. */
        ByteBuffer rest() {
            return b;
        }

        /** Checks that the whole payload was read: bytes after it make the frame malformed. */
        void end() throws WireException {
            if (b.hasRemaining()) {
                throw new WireException("malformed frame: bytes after the payload");
            }
        }

        /** Any value the conversions know. */
        Object value() throws WireException {
            return WireValues.read(this, 0);
        }
    }


    /** The stream frames go out on, written directly to the channel. */
    static OutputStream output(java.nio.channels.SocketChannel channel) {
        return new OutputStream() {
            @Override
            public void write(int b) throws IOException {
                write(new byte[] {(byte) b}, 0, 1);
            }

            /** Waits for room when a non-blocking channel is full; opened when first needed. */
            private java.nio.channels.Selector writable;

            @Override
            public void write(byte[] b, int off, int len) throws IOException {
                ByteBuffer buf = ByteBuffer.wrap(b, off, len);
                while (buf.hasRemaining()) {
                    if (channel.write(buf) == 0) {
                        awaitWritable();
                    }
                }
            }

            /** Waits for room in a non-blocking channel, whatever the thread's interrupt status. */
            private void awaitWritable() throws IOException {
                if (writable == null) {
                    writable = java.nio.channels.Selector.open();
                    channel.register(writable, java.nio.channels.SelectionKey.OP_WRITE);
                }
                boolean interrupted = Thread.interrupted();
                try {
                    writable.select();
                    writable.selectedKeys().clear();
                } finally {
                    if (interrupted) {
                        Thread.currentThread().interrupt();
                    }
                }
            }

            /** Ends the output; the channel stays open for reading. */
            @Override
            public void close() throws IOException {
                try {
                    if (channel.isOpen()) {
                        channel.shutdownOutput();
                    }
                } finally {
                    if (writable != null) {
                        writable.close();
                    }
                }
            }
        };
    }
}
