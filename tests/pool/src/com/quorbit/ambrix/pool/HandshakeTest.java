package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.TimeUnit;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.Timeout;

/** Both ends of a TCP connection prove the secret, or the connection is refused on the side that finds out. */
@Timeout(value = 30, unit = TimeUnit.SECONDS)
class HandshakeTest {
    /** What each side of one handshake ended with: a claim or a message, and the worker's outcome. */
    record Outcome(String pool, String worker) {
    }

    static Outcome shake(byte[] poolSecret, byte[] workerSecret) throws Exception {
        try (ServerSocket server = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            CompletableFuture<String> worker = CompletableFuture.supplyAsync(() -> {
                try (Socket s = new Socket(InetAddress.getLoopbackAddress(), server.getLocalPort())) {
                    Handshake.connect(s, workerSecret, 42, (byte) 2, 5000);
                    return "ok";
                } catch (IOException e) {
                    return e.getMessage();
                }
            });
            String pool;
            try (Socket s = server.accept()) {
                Handshake.Claim claim = Handshake.accept(s, poolSecret, 5000);
                pool = claim.token() + "/" + claim.channel();
            } catch (IOException e) {
                pool = e.getMessage();
            }
            return new Outcome(pool, worker.get(10, TimeUnit.SECONDS));
        }
    }

    @Test
    void onlyTheSameSecretOnBothSidesConnects() throws Exception {
        byte[] secret = Handshake.newSecret();
        byte[] other = Handshake.newSecret();
        assertEquals(32, secret.length);
        assertEquals(new Outcome("42/2", "ok"), shake(secret, secret));
        Outcome wrongWorker = shake(secret, other);
        assertEquals("it does not hold the pool's secret", wrongWorker.pool());
        // The worker can tell a refusal of its secret from a connection that failed otherwise.
        assertEquals("the pool refused it (it closed the connection on the worker's proof)", wrongWorker.worker());
    }

    @Test
    void aPeerThatSaysNothingIsRefusedAfterTheTime() throws Exception {
        try (ServerSocket server = new ServerSocket(0, 1, InetAddress.getLoopbackAddress());
             Socket silent = new Socket(InetAddress.getLoopbackAddress(), server.getLocalPort());
             Socket s = server.accept()) {
            long start = System.nanoTime();
            IOException e = org.junit.jupiter.api.Assertions.assertThrows(IOException.class,
                    () -> Handshake.accept(s, Handshake.newSecret(), 300));
            assertEquals("the handshake took too long", e.getMessage());
            assertTrue(System.nanoTime() - start < TimeUnit.SECONDS.toNanos(5));
            assertTrue(silent.isConnected());
        }
    }

    @Test
    void aServerThatIsNoPoolIsRefusedByTheWorker() throws Exception {
        try (ServerSocket server = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            CompletableFuture<String> worker = CompletableFuture.supplyAsync(() -> {
                try (Socket s = new Socket(InetAddress.getLoopbackAddress(), server.getLocalPort())) {
                    Handshake.connect(s, Handshake.newSecret(), 1, (byte) 1, 5000);
                    return "ok";
                } catch (IOException e) {
                    return e.getMessage();
                }
            });
            try (Socket s = server.accept()) {
                s.getOutputStream().write("HTTP/1.1 200 OK\r\n\r\nand some more bytes here".getBytes());
                assertEquals("the other side is no ambrix pool", worker.get(10, TimeUnit.SECONDS));
            }
        }
    }
}
