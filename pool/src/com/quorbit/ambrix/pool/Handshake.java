package com.quorbit.ambrix.pool;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.Socket;
import java.nio.ByteBuffer;
import java.nio.charset.StandardCharsets;
import java.security.GeneralSecurityException;
import java.security.MessageDigest;
import java.security.SecureRandom;
import java.util.HexFormat;
import javax.crypto.Mac;
import javax.crypto.spec.SecretKeySpec;

/**
 * The proof, before any frame, that both ends of a TCP connection hold the
 * pool's secret: each side sends a fresh nonce, and each answers with an
 * HMAC-SHA256 over both nonces and what the connection is for, under the
 * secret. The comparison takes constant time. The secret itself never
 * crosses; the traffic after the handshake is not encrypted.
 *
 * <pre>
 * pool   -&gt; worker  "AMBRIX01", nonce P (32 bytes)
 * worker -&gt; pool    nonce W (32), token (8), channel (1), HMAC("worker" P W token channel)
 * pool   -&gt; worker  HMAC("pool" P W token channel)
 * </pre>
 *
 * The token names the worker slot the connection belongs to, the channel
 * which of its two connections it is.
 */
final class Handshake {
    /** The environment variable that carries the secret to a worker. */
    static final String SECRET_VARIABLE = "AMBRIX_POOL_SECRET";
    static final int SECRET_BYTES = 32;
    private static final byte[] MAGIC = "AMBRIX01".getBytes(StandardCharsets.US_ASCII);
    private static final int NONCE = 32, MAC = 32;
    private static final SecureRandom RANDOM = new SecureRandom();

    /**
     * A worker's secret that is missing, or that the pool refused: a fault
     * of what the worker was given, which no other attempt mends.
     */
    static final class SecretException extends IOException {
        private static final long serialVersionUID = 1L;

        SecretException(String message) {
            super(message);
        }
    }

    /** The other side closed the connection before all of a message came. */
    private static final class ClosedException extends IOException {
        private static final long serialVersionUID = 1L;

        ClosedException() {
            super("the connection closed during the handshake");
        }
    }

    /** What an accepted connection proved it is for. */
    record Claim(long token, byte channel) {
    }

    private Handshake() {
    }

    /** A fresh 256-bit secret. */
    static byte[] newSecret() {
        return random(SECRET_BYTES);
    }

    static String hex(byte[] secret) {
        return HexFormat.of().formatHex(secret);
    }

    /** The secret a worker was given, or an IOException saying it has none. */
    static byte[] secretFromEnvironment() throws IOException {
        String hex = System.getenv(SECRET_VARIABLE);
        try {
            byte[] secret = hex == null ? null : HexFormat.of().parseHex(hex);
            if (secret != null && secret.length == SECRET_BYTES) {
                return secret;
            }
        } catch (IllegalArgumentException e) {
            // said below
        }
        throw new SecretException("no pool secret in " + SECRET_VARIABLE);
    }

    private static byte[] random(int n) {
        byte[] b = new byte[n];
        RANDOM.nextBytes(b);
        return b;
    }

    /**
     * The pool's side, on a connection just accepted: what it is for, once
     * the other side proved it holds the secret and was answered with the
     * proof that the pool does.
     *
     * @throws IOException when the proof is wrong or does not come within the time
     */
    static Claim accept(Socket socket, byte[] secret, int timeoutMillis) throws IOException {
        long deadline = System.nanoTime() + timeoutMillis * 1_000_000L;
        OutputStream out = socket.getOutputStream();
        byte[] poolNonce = random(NONCE);
        out.write(ByteBuffer.allocate(MAGIC.length + NONCE).put(MAGIC).put(poolNonce).array());
        out.flush();
        byte[] answer = read(socket, NONCE + 8 + 1 + MAC, deadline);
        ByteBuffer b = ByteBuffer.wrap(answer);
        byte[] workerNonce = new byte[NONCE];
        b.get(workerNonce);
        long token = b.getLong();
        byte channel = b.get();
        byte[] proof = new byte[MAC];
        b.get(proof);
        if (!MessageDigest.isEqual(proof, mac(secret, "worker", poolNonce, workerNonce, token, channel))) {
            throw new IOException("it does not hold the pool's secret");
        }
        out.write(mac(secret, "pool", poolNonce, workerNonce, token, channel));
        out.flush();
        return new Claim(token, channel);
    }

    /**
     * The worker's side, on a connection just made to the pool.
     *
     * @throws IOException when the other side is no pool; a {@link SecretException} when it refused the
     *         worker's proof, or is not the one that holds the secret
     */
    static void connect(Socket socket, byte[] secret, long token, byte channel, int timeoutMillis) throws IOException {
        long deadline = System.nanoTime() + timeoutMillis * 1_000_000L;
        byte[] hello = read(socket, MAGIC.length + NONCE, deadline);
        ByteBuffer h = ByteBuffer.wrap(hello);
        byte[] magic = new byte[MAGIC.length];
        h.get(magic);
        if (!MessageDigest.isEqual(magic, MAGIC)) {
            throw new IOException("the other side is no ambrix pool");
        }
        byte[] poolNonce = new byte[NONCE];
        h.get(poolNonce);
        byte[] workerNonce = random(NONCE);
        OutputStream out = socket.getOutputStream();
        out.write(ByteBuffer.allocate(NONCE + 8 + 1 + MAC).put(workerNonce).putLong(token).put(channel)
                .put(mac(secret, "worker", poolNonce, workerNonce, token, channel)).array());
        out.flush();
        byte[] proof;
        try {
            proof = read(socket, MAC, deadline);
        } catch (ClosedException e) {
            // The pool closes a connection whose proof is wrong without a word, so as to tell a stranger nothing.
            throw new SecretException("the pool refused it (it closed the connection on the worker's proof)");
        }
        if (!MessageDigest.isEqual(proof, mac(secret, "pool", poolNonce, workerNonce, token, channel))) {
            throw new SecretException("the pool did not prove that it holds the same secret");
        }
    }

    private static byte[] read(Socket socket, int n, long deadline) throws IOException {
        byte[] b = new byte[n];
        InputStream in = socket.getInputStream();
        int got = 0;
        while (got < n) {
            long left = (deadline - System.nanoTime()) / 1_000_000L;
            if (left <= 0) {
                throw new IOException("the handshake took too long");
            }
            socket.setSoTimeout((int) Math.min(Integer.MAX_VALUE, left));
            int r;
            try {
                r = in.read(b, got, n - got);
            } catch (java.net.SocketTimeoutException e) {
                throw new IOException("the handshake took too long");
            }
            if (r < 0) {
                throw new ClosedException();
            }
            got += r;
        }
        socket.setSoTimeout(0);
        return b;
    }

    private static byte[] mac(byte[] secret, String side, byte[] poolNonce, byte[] workerNonce, long token,
            byte channel) {
        try {
            Mac mac = Mac.getInstance("HmacSHA256");
            mac.init(new SecretKeySpec(secret, "HmacSHA256"));
            mac.update(side.getBytes(StandardCharsets.US_ASCII));
            mac.update(poolNonce);
            mac.update(workerNonce);
            mac.update(ByteBuffer.allocate(9).putLong(token).put(channel).array());
            return mac.doFinal();
        } catch (GeneralSecurityException e) {
            throw new IllegalStateException("HMAC-SHA256 is not available", e);
        }
    }
}
