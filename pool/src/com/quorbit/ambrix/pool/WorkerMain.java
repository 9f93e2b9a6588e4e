package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.io.OutputStream;
import java.net.UnixDomainSocketAddress;
import java.nio.channels.SocketChannel;
import java.util.ArrayList;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;

/**
 * A pool's worker: a JVM whose kernel runs the pool's tasks. It connects
 * twice to the pool: to the Unix-domain socket its first argument names, in
 * a folder only the user can open, or, for an argument tcp://host:port, over
 * TCP as the slot its second argument names, proving on each connection that
 * it holds the secret its environment gives it. On the first connection it
 * reads tasks and answers them, on the second it reads interrupts, which a
 * second thread serves while a task runs (and, over TCP, exchanges
 * heartbeats: {@code --heartbeat=MILLIS} ends it when the pool's stop). The end of either input means the pool is gone,
 * even killed: the worker then halts at once, so no kernel outlives its
 * pool.
 *
 * <p>Started by {@link EnginePool}; not for use on its own. With a second
 * argument {@code --echo} it only sends back every frame it reads, with no
 * kernel (the benchmark's floor).
 */
public final class WorkerMain {
    private final OutputStream out;
    private final SocketChannel in;
    private final Wire.Assembler frames = new Wire.Assembler();
    private final WorkerKernel kernel = new WorkerKernel();
    /** The task read and not yet answered, 0 for none. */
    private volatile long current;
    /** The last task answered. */
    private volatile long answered;

    private WorkerMain(OutputStream out, SocketChannel in) {
        this.out = out;
        this.in = in;
    }

    /**
     * Runs a worker.
     *
     * @param args the pool's socket, and {@code --echo} for the echo worker
     */
    public static void main(String[] args) {
        if (args.length < 1) {
            System.err.println("ambrix worker: started without a pool");
            Runtime.getRuntime().halt(2);
        }
        java.util.List<String> rest = new ArrayList<>(java.util.Arrays.asList(args).subList(1, args.length));
        boolean echo = rest.remove("--echo");
        long heartbeat = 0;
        for (String a : java.util.List.copyOf(rest)) {
            if (a.startsWith("--heartbeat=")) {
                heartbeat = Long.parseLong(a.substring(12));
                rest.remove(a);
            }
        }
        WorkerMain worker;
        SocketChannel interrupts = null;
        boolean tcp = args[0].startsWith("tcp://");
        try {
            SocketChannel tasks;
            if (tcp) {
                // A worker elsewhere: it proves to the pool that it holds the secret, on both connections.
                long token = Long.parseLong(rest.get(0));
                byte[] secret = Handshake.secretFromEnvironment();
                tasks = connect(args[0], secret, token, (byte) 1);
                interrupts = connect(args[0], secret, token, (byte) 2);
            } else {
                UnixDomainSocketAddress pool = UnixDomainSocketAddress.of(args[0]);
                tasks = SocketChannel.open(pool);
                if (!echo) {
                    interrupts = SocketChannel.open(pool);
                }
            }
            worker = new WorkerMain(Wire.output(tasks), tasks);
        } catch (IOException | RuntimeException e) {
            unreachable(tcp, args[0], e);
            return;
        }
        if (echo) {
            worker.guarded(worker::echo);
        } else {
            SocketChannel control = interrupts;
            if (heartbeat > 0) {
                worker.startHeartbeats(control, heartbeat);
            }
            Thread interrupter = new Thread(worker::makeInterrupts, "ambrix-worker-interrupter");
            interrupter.setDaemon(true);
            worker.interrupter = interrupter;
            interrupter.start();
            Thread second = new Thread(() -> worker.guarded(() -> worker.interrupts(control)),
                    "ambrix-worker-interrupts");
            second.setDaemon(true);
            second.start();
            worker.guarded(worker::serve);
        }
    }

    /**
     * Says why the pool could not be reached (where it was told to connect,
     * the error, what to check) on the standard error and, as a Slurm job,
     * in its job's comment, where the pool reads it with the job's end
     * ({@link Unreachable}); then ends the process.
     */
    private static void unreachable(boolean tcp, String address, Exception e) {
        String line = Unreachable.line(tcp ? hostName() : null, tcp ? address.substring(6) : address, e);
        System.err.println(line);
        if (tcp) {
            Unreachable.tellJob(line);
        }
        Runtime.getRuntime().halt(3);
    }

    /** This host's name as the pool knows it: Slurm's name of the node, or else the host's own. */
    private static String hostName() {
        String node = System.getenv("SLURMD_NODENAME");
        if (node != null && !node.isBlank()) {
            return node;
        }
        try {
            return java.net.InetAddress.getLocalHost().getHostName();
        } catch (IOException e) {
            return "an unnamed host";
        }
    }

    /**
     * Connects to a pool over TCP and proves that it holds the secret, as
     * the given channel of the slot that the token names. The pool listens
     * before it submits any job, so a refused connection means that it is
     * gone (its JVM killed while the job waited in the queue), or that the
     * address is not the pool's: the worker ends at once. A connection that
     * fails otherwise (a network that does not answer yet) is tried again
     * for a minute.
     */
    private static SocketChannel connect(String address, byte[] secret, long token, byte channel) throws IOException {
        java.net.URI uri = java.net.URI.create(address);
        java.net.InetSocketAddress to = new java.net.InetSocketAddress(uri.getHost(), uri.getPort());
        if (to.isUnresolved()) {
            throw new java.net.UnknownHostException(uri.getHost());
        }
        long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(60);
        while (true) {
            SocketChannel c = null;
            try {
                c = SocketChannel.open(to);
                c.setOption(java.net.StandardSocketOptions.TCP_NODELAY, true);
                Handshake.connect(c.socket(), secret, token, channel, 5000);
                return c;
            } catch (java.net.ConnectException e) {
                if (c != null) {
                    c.close();
                }
                if (String.valueOf(e.getMessage()).contains("refused") || System.nanoTime() > deadline) {
                    throw e;
                }
                LockSupport.parkNanos(TimeUnit.MILLISECONDS.toNanos(500));
            } catch (IOException e) {
                if (c != null) {
                    c.close();
                }
                throw e;
            }
        }
    }

    /** When the pool's last heartbeat came. */
    private volatile long heard = System.nanoTime();

    /**
     * Sends the pool a heartbeat with this process's resident memory every
     * second on the interrupt channel, and ends the process when the pool's
     * own heartbeats stop for longer than the timeout: a pool whose machine
     * vanished without closing the connection leaves no worker behind.
     */
    private void startHeartbeats(SocketChannel control, long timeoutMillis) {
        OutputStream beats = Wire.output(control);
        long interval = Math.min(1000, timeoutMillis / 4);
        Thread t = new Thread(() -> {
            while (true) {
                LockSupport.parkNanos(TimeUnit.MILLISECONDS.toNanos(interval));
                if (System.nanoTime() - heard > TimeUnit.MILLISECONDS.toNanos(timeoutMillis)) {
                    System.err.println("ambrix worker: no heartbeat from the pool for " + timeoutMillis + " ms");
                    Runtime.getRuntime().halt(4);
                }
                try {
                    new Wire.Writer(Wire.HEARTBEAT, 0).number(LocalLauncher.residentBytes("self")).send(beats);
                } catch (IOException e) {
                    // The pool is gone: the readers end the process.
                    return;
                }
            }
        }, "ambrix-worker-heartbeats");
        t.setDaemon(true);
        t.start();
    }

    private interface Loop {
        void run() throws IOException;
    }

    /** Runs a loop over the pool's frames; whatever ends it ends the process. */
    private void guarded(Loop loop) {
        try {
            loop.run();
        } catch (Wire.WireException e) {
            System.err.println("ambrix worker: " + e.getMessage());
            Runtime.getRuntime().halt(3);
        } catch (IOException e) {
            System.err.println("ambrix worker: the pool's channel failed: " + e);
            Runtime.getRuntime().halt(3);
        } catch (Throwable e) {
            // Any other error leaves a state no task should run in: the pool reports the loss.
            System.err.println("ambrix worker: " + e);
            Runtime.getRuntime().halt(3);
        }
        // The pool is gone (or asked the worker to end by closing its input).
        Runtime.getRuntime().halt(0);
    }

    private void echo() throws IOException {
        for (Wire.Frame f = frames.read(in); f != null; f = frames.read(in)) {
            new Wire.Writer(f.kind(), f.task()).raw(f.payload()).send(out);
        }
    }

    /** Runs the tasks, one after the other, each on this thread as soon as its frame is read. */
    private void serve() throws IOException {
        for (Wire.Frame f = frames.read(in); f != null; f = frames.read(in)) {
            switch (f.kind()) {
                case Wire.ECHO -> send(new Wire.Writer(Wire.ECHO, f.task()).raw(f.payload()));
                case Wire.INIT, Wire.EVAL, Wire.CALL, Wire.RESET, Wire.HELP -> {
                    WorkerKernel.Task task = kernel.task(f, f.values());
                    current = f.task();
                    run(f.task(), task);
                }
                default -> throw new Wire.WireException("malformed frame: kind " + f.kind() + " on the task channel");
            }
        }
    }

    /** The second thread: reads interrupts while tasks run. */
    private void interrupts(SocketChannel control) throws IOException {
        Wire.Assembler interrupts = new Wire.Assembler();
        for (Wire.Frame f = interrupts.read(control); f != null; f = interrupts.read(control)) {
            if (f.kind() == Wire.HEARTBEAT) {
                heard = System.nanoTime();
                continue;
            }
            if (f.kind() != Wire.INTERRUPT) {
                throw new Wire.WireException("malformed frame: kind " + f.kind() + " on the interrupt channel");
            }
            // Made on a thread of its own: this one reads on, heartbeats included, however many come.
            wanted.set(f.task());
            LockSupport.unpark(interrupter);
        }
    }

    /** The task the pool last asked to interrupt, not yet taken up; 0 for none. */
    private final java.util.concurrent.atomic.AtomicLong wanted = new java.util.concurrent.atomic.AtomicLong();
    /** The thread that makes the interrupts the pool asks for. */
    private volatile Thread interrupter;

    /** The interrupter thread: makes each interrupt asked for, the latest first. */
    private void makeInterrupts() {
        while (true) {
            long id = wanted.getAndSet(0);
            if (id == 0) {
                LockSupport.park(this);
            } else {
                interrupt(id);
            }
        }
    }

    /**
     * Interrupts a task's kernel call. The interrupt comes on its own
     * channel, so it may arrive before the task's frame is read, or before
     * its kernel call begins, when the kernel would drop it: it is made
     * again every few milliseconds, for half a second at most, until the
     * task is answered, another one runs, or another interrupt is asked for.
     */
    private void interrupt(long id) {
        for (int i = 0; i < 100; i++) {
            kernel.interrupt(id);
            long c = current;
            if (c != id && (c != 0 || answered == id) || wanted.get() != 0) {
                return;
            }
            LockSupport.parkNanos(TimeUnit.MILLISECONDS.toNanos(5));
        }
    }

    /** Runs a task on the kernel and sends its answer. */
    private void run(long id, WorkerKernel.Task task) {
        send(kernel.run(id, task));
        answered = id;
        current = 0;
    }

    private void send(Wire.Writer w) {
        try {
            w.send(out);
        } catch (IOException e) {
            // The pool is gone.
            Runtime.getRuntime().halt(0);
        }
    }
}
