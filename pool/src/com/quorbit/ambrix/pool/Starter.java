package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.io.IOException;
import java.lang.System.Logger.Level;
import java.nio.file.Path;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.ExecutionException;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import java.util.function.IntSupplier;

/**
 * How a slot's worker comes to be: launched by the pool's {@link Launcher},
 * connected through the {@link Transport} (with {@link Heartbeats} over
 * TCP), and its kernel started. What it launches and connects is recorded
 * in the slot, under the {@link Supervisor}'s lock, so that a close finds it;
 * and every launch is kept until it has ended, whether it became a worker
 * or not, so that a close ends them all.
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
    /** Launches that have not ended yet. Guarded by lock. */
    private final Set<Launcher.Launched> live = new HashSet<>();
    /** Calls of the launcher under way, whose launch is not yet in live. Guarded by lock. */
    private int launching;
    /** Set when the pool closes: no launch begins after it. Guarded by lock. */
    private boolean refusing;

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

    /**
     * Launches a worker into the slot: its command, with where and as what to
     * connect. The launch is kept until it ends.
     *
     * @throws IOException when it cannot be launched, or the pool is closing
     */
    Launcher.Launched launch(Slot slot, Transport.Rendezvous rendezvous) throws IOException {
        List<String> c = settings.workerCommand();
        c.addAll(rendezvous.arguments());
        if (heartbeats != null) {
            c.add("--heartbeat=" + settings.heartbeatTimeout().toMillis());
        }
        synchronized (lock) {
            if (refusing) {
                throw new IOException("the pool is closing");
            }
            launching++;
        }
        Launcher.Launched launched = null;
        try {
            launched = settings.launcher().launch(
                    new Launcher.Launch(c, rendezvous.environment(), settings.memoryLimit(), "ambrix-worker"));
        } finally {
            synchronized (lock) {
                launching--;
                if (launched != null) {
                    live.add(launched);
                    slot.launched = launched;
                }
                lock.notifyAll();
            }
        }
        if (launched == null) {
            throw new IOException("the launcher started nothing");
        }
        Launcher.Launched ending = launched;
        launched.ended().whenComplete((why, failure) -> {
            synchronized (lock) {
                live.remove(ending);
                lock.notifyAll();
            }
        });
        return launched;
    }

    /** No launch begins from now on. Under the lock. */
    void refuseLaunches() {
        refusing = true;
    }

    /**
     * The launches still alive but those given (workers that end by their
     * own stop), once the launcher calls under way have returned. Launches
     * are refused by then, so no other can begin.
     */
    List<Launcher.Launched> launchesLeft(Set<Launcher.Launched> except) {
        synchronized (lock) {
            refusing = true;
            awaitNone(lock, () -> launching);
            return live.stream().filter(l -> !except.contains(l)).toList();
        }
    }

    /** Waits on the lock, which the caller holds, until the count is 0 or an interrupt comes. */
    static void awaitNone(Object lock, IntSupplier count) {
        while (count.getAsInt() > 0) {
            try {
                lock.wait();
            } catch (InterruptedException e) {
                Thread.currentThread().interrupt();
                return;
            }
        }
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
        PoolLog.log(Level.DEBUG, "worker " + w.name() + " started in "
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
