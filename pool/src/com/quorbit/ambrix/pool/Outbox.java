package com.quorbit.ambrix.pool;

import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.CancelledKeyException;
import java.nio.channels.ClosedChannelException;
import java.nio.channels.ClosedSelectorException;
import java.nio.channels.SelectionKey;
import java.nio.channels.SocketChannel;
import java.time.Duration;
import java.util.ArrayDeque;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.TimeUnit;

/**
 * The frames going out on one of a worker's channels. A frame is written at
 * once as far as the socket takes it, without waiting: no caller, and no
 * thread that serves every worker, ever waits for one worker's socket. What
 * the socket could not take waits here, in order, and the pool's
 * {@link Flusher} thread writes it as the worker reads. A write that makes
 * no progress for the stall time ends the worker, with that reason.
 */
final class Outbox implements Closeable {
    private final SocketChannel channel;
    private final Flusher flusher;
    /** What to do when the writes stall: end the worker. */
    private final java.util.function.Consumer<String> stalled;
    /** Frames not yet written whole, the first perhaps in part. Guarded by this. */
    private final ArrayDeque<ByteBuffer> queue = new ArrayDeque<>();
    /** When the last byte of what waits here was written (System.nanoTime()). Guarded by this. */
    private long progressed;
    private boolean closed;

    Outbox(SocketChannel channel, Flusher flusher, java.util.function.Consumer<String> stalled) {
        this.channel = channel;
        this.flusher = flusher;
        this.stalled = stalled;
    }

    /** Writes a whole frame, now or later. */
    void send(ByteBuffer frame) throws IOException {
        boolean wake;
        synchronized (this) {
            if (closed) {
                throw new ClosedChannelException();
            }
            if (queue.isEmpty()) {
                channel.write(frame);
                if (!frame.hasRemaining()) {
                    return;
                }
                progressed = System.nanoTime();
            }
            wake = queue.isEmpty();
            queue.add(frame);
        }
        if (wake) {
            flusher.watch(this);
        }
    }

    /**
     * Writes what the socket takes now; on the flusher's thread.
     *
     * @return true when nothing waits any more
     */
    synchronized boolean flush() throws IOException {
        while (!queue.isEmpty()) {
            ByteBuffer head = queue.peek();
            if (channel.write(head) > 0) {
                progressed = System.nanoTime();
            }
            if (head.hasRemaining()) {
                return false;
            }
            queue.poll();
        }
        return true;
    }

    /** Nanoseconds since the writes last made progress, or 0 when nothing waits. */
    synchronized long stalledFor(long now) {
        return queue.isEmpty() ? 0 : now - progressed;
    }

    /** Drops what waits, and takes no more: the worker has ended. */
    @Override
    public synchronized void close() {
        closed = true;
        queue.clear();
    }

    /**
     * The pool's writer thread: it finishes the writes that sockets could not
     * take at once, for every worker, and ends a worker whose writes made no
     * progress for the stall time. It selects; it never waits on one socket.
     */
    static final class Flusher extends SelectorThread {
        private final long stallNanos;
        private final Queue<Outbox> added = new ConcurrentLinkedQueue<>();

        Flusher(Duration stall) {
            super("ambrix-pool-writer");
            stallNanos = stall.toNanos();
            start();
        }

        /** An outbox with frames waiting: written as its socket takes them. */
        void watch(Outbox box) {
            added.add(box);
            selector.wakeup();
        }

        @Override
        void loop() {
            long tick = Math.max(TimeUnit.MILLISECONDS.toNanos(10), Math.min(TimeUnit.SECONDS.toNanos(1), stallNanos / 4));
            while (!closed) {
                for (Outbox box = added.poll(); box != null; box = added.poll()) {
                    try {
                        SelectionKey key = box.channel.keyFor(selector);
                        if (key == null || !key.isValid()) {
                            box.channel.register(selector, SelectionKey.OP_WRITE, box);
                        } else {
                            key.interestOps(SelectionKey.OP_WRITE);
                        }
                    } catch (ClosedChannelException | CancelledKeyException e) {
                        box.close();
                    } catch (RuntimeException e) {
                        box.fail("the pool could not write to the worker: " + e);
                    }
                }
                try {
                    selector.select(TimeUnit.NANOSECONDS.toMillis(tick));
                } catch (IOException | ClosedSelectorException e) {
                    return;
                }
                for (SelectionKey key : selector.selectedKeys()) {
                    Outbox box = (Outbox) key.attachment();
                    try {
                        if (box.flush()) {
                            key.interestOps(0);
                        }
                    } catch (IOException | CancelledKeyException e) {
                        // The connection ended: the worker's reader reports it.
                        key.cancel();
                        box.close();
                    } catch (RuntimeException | Error e) {
                        key.cancel();
                        box.fail("the pool could not write to the worker: " + e);
                    }
                }
                selector.selectedKeys().clear();
                long now = System.nanoTime();
                for (SelectionKey key : selector.keys()) {
                    Outbox box = (Outbox) key.attachment();
                    if (key.isValid() && box.stalledFor(now) > stallNanos) {
                        key.cancel();
                        box.fail("a write to the worker made no progress for "
                                + Task.seconds(Duration.ofNanos(stallNanos)));
                    }
                }
            }
        }
    }

    /** The writes cannot go on: nothing more is written, and the worker ends with the reason. */
    private void fail(String why) {
        close();
        stalled.accept(why);
    }
}
