package com.quorbit.ambrix.pool;

import java.io.Closeable;
import java.io.IOException;
import java.nio.channels.Selector;

/**
 * A daemon thread of the pool that serves every worker's channels through
 * one selector: it selects, and never waits on one channel. The heartbeats
 * and the writer are such threads.
 */
abstract class SelectorThread implements Closeable {
    protected final Selector selector;
    private final Thread thread;
    /** Set by close: the loop ends at its next turn. */
    protected volatile boolean closed;

    /** A selector and its thread, not yet started: the subclass starts it once made. */
    SelectorThread(String name) {
        try {
            selector = Selector.open();
        } catch (IOException e) {
            throw new IllegalStateException("no selector for " + name, e);
        }
        thread = new Thread(this::loop, name);
        thread.setDaemon(true);
    }

    final void start() {
        thread.start();
    }

    /** The thread's loop, until closed. */
    abstract void loop();

    /** Ends the loop, waiting 2 s at most, and closes the selector. */
    @Override
    public void close() {
        closed = true;
        selector.wakeup();
        try {
            thread.join(2000);
            selector.close();
        } catch (IOException e) {
            // ending anyway
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }
}
