package com.quorbit.ambrix.pool;

import java.io.Closeable;
import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.StandardProtocolFamily;
import java.net.StandardSocketOptions;
import java.net.UnixDomainSocketAddress;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.SecureRandom;
import java.util.List;
import java.util.Map;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ArrayBlockingQueue;
import java.util.concurrent.ThreadPoolExecutor;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

/**
 * Where a pool's workers connect to it, twice each (tasks, then
 * interrupts): a Unix-domain socket per worker in the pool's private folder
 * for workers on this machine, or one TCP listener for workers anywhere,
 * where each connection first proves that it holds the pool's secret
 * ({@link Handshake}). A connection that fails the proof, or takes longer
 * than 5 s over it, is closed and logged, and reaches no worker slot.
 */
abstract class Transport implements Closeable {
    @Override
    public abstract void close();

    /** The two connections of one worker, not blocking. */
    record Channels(SocketChannel tasks, SocketChannel control) {
    }

    /** Where one launched worker meets the pool. */
    interface Rendezvous extends Closeable {
        /** The worker's arguments: where to connect, and as which slot. */
        List<String> arguments();

        /** What the worker's environment needs (the secret, over TCP). */
        Map<String, String> environment();

        /**
         * Waits for the worker's two connections.
         *
         * @param timeoutNanos how long at most; 0 for as long as the worker lives
         * @throws IOException when the worker ended first, or the time passed
         */
        Channels await(Launcher.Launched launched, long timeoutNanos) throws IOException;
    }

    /** How long a local worker may take to connect; a remote one waits as long as its job lives. */
    static final long LOCAL_CONNECT_NANOS = TimeUnit.SECONDS.toNanos(60);

    /** A new meeting point for one launch. */
    abstract Rendezvous open() throws IOException;

    /** Unix-domain sockets in the pool's private folder. */
    static Transport local(Path folder) {
        return new Local(folder);
    }

    /** A TCP listener on an ephemeral port of the address (the host's name when null). */
    static Transport tcp(String address, byte[] secret) throws IOException {
        return new Tcp(address, secret);
    }

    /** Why a worker never connected: its end, and the last lines it wrote. */
    static IOException notConnected(Launcher.Launched launched, String what) {
        String why = launched.ended().getNow(null);
        List<String> lines = launched.lastLines();
        return new IOException(what + (why == null ? "" : " (" + why + ")")
                + (lines.isEmpty() ? "" : ": " + String.join("\n", lines)));
    }

    private static final class Local extends Transport {
        private final Path folder;
        private final AtomicLong sockets = new AtomicLong();

        Local(Path folder) {
            this.folder = folder;
        }

        @Override
        Rendezvous open() throws IOException {
            Path path = folder.resolve("w" + sockets.incrementAndGet() + ".sock");
            ServerSocketChannel server = ServerSocketChannel.open(StandardProtocolFamily.UNIX);
            try {
                server.bind(UnixDomainSocketAddress.of(path));
                server.configureBlocking(false);
            } catch (IOException e) {
                server.close();
                throw e;
            }
            return new Rendezvous() {
                @Override
                public List<String> arguments() {
                    return List.of(path.toString());
                }

                @Override
                public Map<String, String> environment() {
                    return Map.of();
                }

                @Override
                public Channels await(Launcher.Launched launched, long timeoutNanos) throws IOException {
                    SocketChannel tasks = accept(launched, timeoutNanos);
                    try {
                        return new Channels(tasks, accept(launched, timeoutNanos));
                    } catch (IOException e) {
                        tasks.close();
                        throw e;
                    }
                }

                private SocketChannel accept(Launcher.Launched launched, long timeoutNanos) throws IOException {
                    long deadline = System.nanoTime() + timeoutNanos;
                    while (true) {
                        SocketChannel c = server.accept();
                        if (c != null) {
                            c.configureBlocking(false);
                            return c;
                        }
                        if (launched.ended().isDone() || System.nanoTime() > deadline) {
                            launched.kill();
                            throw notConnected(launched, "the worker process did not connect");
                        }
                        try {
                            Thread.sleep(2);
                        } catch (InterruptedException e) {
                            launched.kill();
                            Thread.currentThread().interrupt();
                            throw new IOException("interrupted while a worker started");
                        }
                    }
                }

                @Override
                public void close() throws IOException {
                    server.close();
                    Files.deleteIfExists(path);
                }
            };
        }

        @Override
        public void close() {
        }
    }

    private static final class Tcp extends Transport {
        private static final int HANDSHAKE_MILLIS = 5000;
        /** Handshakes in progress at once, and connections waiting for one. */
        private static final int HANDSHAKE_THREADS = 4;
        private static final int HANDSHAKE_LINE = 64;
        private final ServerSocketChannel server;
        private final byte[] secret;
        private final String advertised;
        private final SecureRandom random = new SecureRandom();
        private final Map<Long, TcpRendezvous> expected = new ConcurrentHashMap<>();
        /**
         * The handshakes in progress: a few threads, a short line, and a
         * connection beyond both is closed at once. Each handshake ends
         * within 5 s, so peers that connect and say nothing hold a bounded
         * share of the pool, and only for that long.
         */
        private final ThreadPoolExecutor handshakes = new ThreadPoolExecutor(HANDSHAKE_THREADS, HANDSHAKE_THREADS,
                10, TimeUnit.SECONDS, new ArrayBlockingQueue<>(HANDSHAKE_LINE), r -> {
                    Thread t = new Thread(r, "ambrix-pool-handshake");
                    t.setDaemon(true);
                    return t;
                }, new ThreadPoolExecutor.AbortPolicy());
        private final Refusals refusals = new Refusals();
        private final Thread acceptor;

        Tcp(String address, byte[] secret) throws IOException {
            this.secret = secret;
            String host = address != null ? address : InetAddress.getLocalHost().getHostName();
            server = ServerSocketChannel.open();
            // A named address is the one to listen on; the host's own name, every address it has.
            server.bind(address != null ? new InetSocketAddress(InetAddress.getByName(address), 0)
                    : new InetSocketAddress(0), 64);
            int port = ((InetSocketAddress) server.getLocalAddress()).getPort();
            // An IPv6 address goes in brackets, as in any URI.
            advertised = "tcp://" + (host.indexOf(':') >= 0 ? "[" + host + "]" : host) + ":" + port;
            // Once per pool: where it listens, and the address its workers are given, which they must reach.
            PoolLog.log(System.Logger.Level.INFO, "the pool listens for workers on "
                    + (address != null ? "address " + address + ", port " + port
                            : "every address of this host, port " + port + ", and gives them this host's name")
                    + ": workers connect to " + advertised);
            handshakes.allowCoreThreadTimeOut(true);
            acceptor = new Thread(this::acceptAll, "ambrix-pool-listener");
            acceptor.setDaemon(true);
            acceptor.start();
        }

        /**
         * Accepts connections for as long as the pool listens, whatever
         * fails: when no descriptor or thread can be had, it waits a little
         * and goes on.
         */
        private void acceptAll() {
            long backoff = 0;
            while (server.isOpen()) {
                SocketChannel c = null;
                try {
                    c = server.accept();
                    backoff = 0;
                    SocketChannel accepted = c;
                    handshakes.execute(() -> admit(accepted));
                } catch (java.util.concurrent.RejectedExecutionException e) {
                    refuse(c, "too many connections are proving themselves at once");
                } catch (java.nio.channels.ClosedChannelException e) {
                    return;
                } catch (IOException | RuntimeException | Error e) {
                    // Out of descriptors (EMFILE), or of threads: the listener lives on.
                    if (c != null) {
                        close(c);
                    }
                    backoff = Math.min(1000, Math.max(10, 2 * backoff));
                    refusals.failed("cannot accept a connection (" + e + "); trying again in " + backoff + " ms");
                    try {
                        Thread.sleep(backoff);
                    } catch (InterruptedException stop) {
                        return;
                    }
                }
            }
        }

        private void refuse(SocketChannel c, String why) {
            String from = "an unknown address";
            try {
                from = String.valueOf(c.getRemoteAddress());
            } catch (IOException | RuntimeException e) {
                // closed already
            }
            close(c);
            refusals.refused(from, why);
        }

        /** Proves the connection, then hands it to the slot it claims; refuses it otherwise. */
        private void admit(SocketChannel c) {
            String from = "an unknown address";
            try {
                from = String.valueOf(c.getRemoteAddress());
                c.setOption(StandardSocketOptions.TCP_NODELAY, true);
                Handshake.Claim claim = Handshake.accept(c.socket(), secret, HANDSHAKE_MILLIS);
                TcpRendezvous r = expected.get(claim.token());
                if (r == null || !r.offer(claim.channel(), c)) {
                    throw new IOException("it claims no worker slot that waits for it");
                }
            } catch (IOException | RuntimeException e) {
                close(c);
                refusals.refused(from, e.getMessage());
            }
        }

        private static void close(SocketChannel c) {
            try {
                c.close();
            } catch (IOException e) {
                // closed anyway
            }
        }

        @Override
        Rendezvous open() {
            long token;
            TcpRendezvous r;
            do {
                token = random.nextLong();
                r = new TcpRendezvous(token);
            } while (token == 0 || expected.putIfAbsent(token, r) != null);
            return r;
        }

        @Override
        public void close() {
            try {
                server.close();
            } catch (IOException e) {
                // closed anyway
            }
            handshakes.shutdownNow();
            for (TcpRendezvous r : expected.values()) {
                r.close();
            }
        }

        private final class TcpRendezvous implements Rendezvous {
            private final long token;
            private final SocketChannel[] channels = new SocketChannel[2];
            private boolean closed;

            TcpRendezvous(long token) {
                this.token = token;
            }

            @Override
            public List<String> arguments() {
                return List.of(advertised, Long.toString(token));
            }

            @Override
            public Map<String, String> environment() {
                return Map.of(Handshake.SECRET_VARIABLE, Handshake.hex(secret));
            }

            /** A proven connection for this slot; false when the slot takes no more. */
            synchronized boolean offer(byte channel, SocketChannel c) {
                if (closed || channel < 1 || channel > 2 || channels[channel - 1] != null) {
                    return false;
                }
                channels[channel - 1] = c;
                notifyAll();
                return true;
            }

            @Override
            public synchronized Channels await(Launcher.Launched launched, long timeoutNanos) throws IOException {
                long deadline = System.nanoTime() + timeoutNanos;
                while (channels[0] == null || channels[1] == null) {
                    if (closed) {
                        throw new IOException("the pool closed");
                    }
                    if (launched.ended().isDone() || (timeoutNanos > 0 && System.nanoTime() > deadline)) {
                        launched.kill();
                        throw notConnected(launched, "the worker did not connect");
                    }
                    try {
                        wait(50);
                    } catch (InterruptedException e) {
                        launched.kill();
                        Thread.currentThread().interrupt();
                        throw new IOException("interrupted while a worker started");
                    }
                }
                expected.remove(token);
                closed = true;
                for (SocketChannel c : channels) {
                    c.configureBlocking(false);
                }
                return new Channels(channels[0], channels[1]);
            }

            @Override
            public synchronized void close() {
                expected.remove(token);
                if (!closed) {
                    closed = true;
                    for (SocketChannel c : channels) {
                        if (c != null) {
                            Tcp.close(c);
                        }
                    }
                }
                notifyAll();
            }
        }
    }
}
