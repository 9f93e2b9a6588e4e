package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.lang.System.Logger.Level;
import java.nio.file.Path;
import java.util.List;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;

/**
 * How a slot's worker comes to be: launched by the pool's {@link Launcher},
 * connected through the {@link Transport} (with {@link Heartbeats} over
 * TCP), and its kernel started. What it launches and connects is recorded
 * in the slot, under the {@link Supervisor}'s lock, so that a close finds it.
 */
final class Starter {
    private final PoolSettings settings;
    private final Tasks tasks;
    private final Worker.Events events;
    /** The supervisor's lock, which guards the slots. */
    private final Object lock;
    /** The folder of local workers' sockets, which only this user can open; null for remote workers. */
    private final Path socketFolder;
    /** Where workers connect: that folder, or a TCP listener. */
    private final Transport transport;
    /** Heartbeats in both directions, for workers over TCP; null for local ones. */
    private final Heartbeats heartbeats;
    /** The pool's writer thread. */
    private final Outbox.Flusher flusher;

    Starter(PoolSettings settings, Tasks tasks, Worker.Events events, Object lock) {
        this.settings = settings;
        this.tasks = tasks;
        this.events = events;
        this.lock = lock;
        if (settings.launcher().remote()) {
            socketFolder = null;
            try {
                transport = Transport.tcp(settings.listenAddress(), Handshake.newSecret());
            } catch (IOException e) {
                throw new VexelException("cannot listen for workers: " + e.getMessage());
            }
            heartbeats = new Heartbeats(settings.heartbeatTimeout());
        } else {
            socketFolder = SocketFolders.make();
            transport = Transport.local(socketFolder);
            heartbeats = null;
        }
        flusher = new Outbox.Flusher(settings.heartbeatTimeout());
    }

    /** Whether workers connect over TCP, from anywhere, and are waited for however long they queue. */
    boolean remote() {
        return heartbeats != null;
    }

    /** A new meeting point for one launch. */
    Transport.Rendezvous open() throws IOException {
        return transport.open();
    }

    /** Launches a worker into the slot: its command, with where and as what to connect. */
    Launcher.Launched launch(Slot slot, Transport.Rendezvous rendezvous) throws IOException {
        List<String> c = settings.workerCommand();
        c.addAll(rendezvous.arguments());
        if (heartbeats != null) {
            c.add("--heartbeat=" + settings.heartbeatTimeout().toMillis());
        }
        Launcher.Launched launched = settings.launcher().launch(
                new Launcher.Launch(c, rendezvous.environment(), settings.memoryLimit(), "ambrix-worker"));
        if (launched == null) {
            throw new IOException("the launcher started nothing");
        }
        synchronized (lock) {
            slot.launched = launched;
        }
        return launched;
    }

    /** Starts one local worker and waits until its kernel is ready; it is not yet admitted. */
    Worker startLocal(Slot slot) {
        Launcher.Launched launched;
        Transport.Channels channels;
        try (Transport.Rendezvous rendezvous = transport.open()) {
            launched = launch(slot, rendezvous);
            channels = rendezvous.await(launched, Transport.LOCAL_CONNECT_NANOS);
        } catch (IOException e) {
            throw new VexelException("cannot start a worker process: " + e.getMessage());
        }
        return startKernel(slot, launched, channels);
    }

    /** A connected worker: its kernel started, waited for a minute at most. */
    Worker startKernel(Slot slot, Launcher.Launched launched, Transport.Channels channels) {
        Worker w;
        try {
            w = new Worker(launched, channels, slot.index, events, flusher, remote());
        } catch (IOException e) {
            launched.kill();
            throw new VexelException("cannot start a worker: " + e.getMessage());
        }
        synchronized (lock) {
            slot.worker = w;
        }
        if (heartbeats != null) {
            heartbeats.add(w);
        }
        try {
            w.start(tasks.init()).get(60, TimeUnit.SECONDS);
        } catch (ExecutionException e) {
            w.kill("did not start");
            throw new VexelException("a worker did not start: " + e.getCause().getMessage());
        } catch (TimeoutException e) {
            w.kill("did not start within 60 s");
            throw new VexelException("a worker did not start within 60 s");
        } catch (InterruptedException e) {
            w.kill("did not start");
            Thread.currentThread().interrupt();
            throw new VexelException("interrupted while a worker started");
        }
        w.ready = true;
        synchronized (lock) {
            slot.failures = 0;
            lock.notifyAll();
        }
        EnginePool.LOG.log(Level.DEBUG, "worker " + w.name() + " started in "
                + TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - w.started) + " ms");
        return w;
    }

    /** A worker ended: its heartbeats stop. */
    void forget(Worker w) {
        if (heartbeats != null) {
            heartbeats.remove(w);
        }
    }

    /** Takes no more connections, and stops the heartbeats. */
    void stopListening() {
        if (heartbeats != null) {
            heartbeats.close();
        }
        transport.close();
    }

    /** Stops the writer and removes the socket folder, once every worker has ended. */
    void close() {
        flusher.close();
        if (socketFolder != null) {
            SocketFolders.remove(socketFolder);
        }
    }
}
