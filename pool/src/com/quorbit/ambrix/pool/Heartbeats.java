package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.nio.channels.ClosedChannelException;
import java.nio.channels.SelectionKey;
import java.time.Duration;
import java.util.Queue;
import java.util.Set;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.TimeUnit;

/**
 * Heartbeats in both directions with workers over TCP, whose node may
 * vanish without closing a connection: a thread of the pool sends each such
 * worker a heartbeat every second on its interrupt channel and reads theirs
 * (with the worker's resident memory) from it. A worker silent for longer
 * than the timeout is taken for lost: the pool ends its job and stops
 * waiting for its answers. A worker ends itself when the pool's heartbeats
 * stop in the same way.
 */
final class Heartbeats extends SelectorThread {
    private final long timeoutNanos;
    private final long intervalNanos;
    private final Set<Worker> workers = ConcurrentHashMap.newKeySet();
    private final Queue<Worker> added = new ConcurrentLinkedQueue<>();

    Heartbeats(Duration timeout) {
        super("ambrix-pool-heartbeats");
        timeoutNanos = timeout.toNanos();
        intervalNanos = Math.min(TimeUnit.SECONDS.toNanos(1), timeoutNanos / 4);
        start();
    }

    void add(Worker w) {
        w.heard = System.nanoTime();
        workers.add(w);
        added.add(w);
        selector.wakeup();
    }

    void remove(Worker w) {
        workers.remove(w);
    }

    @Override
    void loop() {
        long next = System.nanoTime();
        while (!closed) {
            for (Worker w = added.poll(); w != null; w = added.poll()) {
                try {
                    w.control.register(selector, SelectionKey.OP_READ, w);
                } catch (ClosedChannelException e) {
                    workers.remove(w);
                }
            }
            long now = System.nanoTime();
            if (now - next >= 0) {
                next = now + intervalNanos;
                for (Worker w : workers) {
                    try {
                        if (now - w.heard > timeoutNanos && w.alive()) {
                            workers.remove(w);
                            w.silent("no heartbeat for " + Task.seconds(Duration.ofNanos(timeoutNanos)));
                        } else {
                            w.sendHeartbeat();
                        }
                    } catch (RuntimeException | Error e) {
                        workers.remove(w);
                        w.silent("the pool's heartbeat to the worker failed: " + e);
                    }
                }
            }
            try {
                selector.select(Math.max(1, TimeUnit.NANOSECONDS.toMillis(next - System.nanoTime())));
            } catch (IOException | java.nio.channels.ClosedSelectorException e) {
                return;
            }
            for (SelectionKey key : selector.selectedKeys()) {
                Worker w = (Worker) key.attachment();
                try {
                    for (Wire.Frame f = w.controlFrames.next(w.control); f != null; f = w.controlFrames.next(w.control)) {
                        if (f.kind() != Wire.HEARTBEAT) {
                            throw new Wire.WireException("malformed frame: kind " + f.kind() + " on the interrupt channel");
                        }
                        w.heard = System.nanoTime();
                        w.reportedBytes = f.values().number();
                    }
                } catch (Wire.WireException e) {
                    key.cancel();
                    workers.remove(w);
                    w.silent("protocol error: " + e.getMessage());
                } catch (IOException e) {
                    // The connection ended: the task channel's reader reports it.
                    key.cancel();
                } catch (RuntimeException | Error e) {
                    // One worker's bytes end that worker, never this thread, which serves them all.
                    key.cancel();
                    workers.remove(w);
                    w.silent("the pool could not read the worker's heartbeat: " + e);
                }
            }
            selector.selectedKeys().clear();
        }
    }
}
