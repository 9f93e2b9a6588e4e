package com.quorbit.ambrix.jupyter;

import com.google.gson.Gson;
import com.google.gson.JsonElement;
import com.google.gson.JsonObject;
import com.google.gson.JsonPrimitive;
import com.google.gson.JsonParser;
import java.nio.charset.StandardCharsets;
import java.security.InvalidKeyException;
import java.security.MessageDigest;
import java.security.NoSuchAlgorithmException;
import java.time.Instant;
import java.time.OffsetDateTime;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.HexFormat;
import java.util.Iterator;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Set;
import java.util.UUID;
import javax.crypto.Mac;
import javax.crypto.spec.SecretKeySpec;
import org.zeromq.ZMQ;

/**
 * The wire side of the messaging protocol: a message is the routing
 * identities, the delimiter, the HMAC-SHA256 signature of the four JSON
 * parts (header, parent header, metadata, content), those parts, and any
 * binary buffers. A message whose signature does not match is dropped and
 * logged, never acted on.
 */
final class Channels {
    static final String PROTOCOL_VERSION = "5.3";
    private static final byte[] DELIMITER = "<IDS|MSG>".getBytes(StandardCharsets.US_ASCII);
    private static final Gson GSON = new Gson();

    /**
     * The largest message ZeroMQ takes from a peer, well above any real
     * request: the library allocates a frame's announced size before any of
     * it arrives, and before any signature can be checked.
     */
    static final long MAX_MESSAGE_SIZE = 64L << 20;
    /** How many signatures are remembered to refuse a message sent again. */
    static final int DIGEST_HISTORY = 1 << 16;

    private final byte[] key;
    /** The signatures of the messages received, oldest first: a replayed message is refused. */
    private final Set<String> digests = new LinkedHashSet<>();
    private final String session = UUID.randomUUID().toString();
    private final ThreadLocal<Mac> macs;

    /** One message as received: its type is a string, checked on receipt. */
    static final class Message {
        final List<byte[]> identities;
        final JsonObject header;
        final JsonObject parent;
        final JsonObject metadata;
        final JsonObject content;
        private final String type;
        /** Set once a reply went out. */
        volatile boolean replied;
        /** Set when an interrupt came while this request waited: it is to end as soon as it starts. */
        volatile boolean interrupted;

        Message(List<byte[]> identities, JsonObject header, JsonObject parent, JsonObject metadata,
                JsonObject content) {
            this.identities = identities;
            this.header = header;
            this.parent = parent;
            this.metadata = metadata;
            this.content = content;
            JsonElement t = header.get("msg_type");
            if (!(t instanceof JsonPrimitive p && p.isString())) {
                throw new IllegalArgumentException("its msg_type is not a string");
            }
            type = t.getAsString();
        }

        String type() {
            return type;
        }

        /**
         * Whether this message was sent after the other by the same client:
         * the same session, and a later time stamp (a client stamps its
         * messages from one clock). False when either says nothing readable.
         */
        boolean sentAfter(Message other) {
            Instant sent = sent();
            Instant otherSent = other.sent();
            return sent != null && otherSent != null && header.get("session") instanceof JsonPrimitive s
                    && s.isString() && s.equals(other.header.get("session")) && sent.isAfter(otherSent);
        }

        private Instant sent() {
            try {
                return OffsetDateTime.parse(header.get("date").getAsString()).toInstant();
            } catch (RuntimeException e) {
                return null;
            }
        }
    }

    Channels(String signingKey, String scheme) {
        key = signingKey == null ? new byte[0] : signingKey.getBytes(StandardCharsets.UTF_8);
        if (key.length > 0 && !"hmac-sha256".equals(scheme)) {
            throw new IllegalArgumentException("unsupported signature scheme " + scheme);
        }
        macs = ThreadLocal.withInitial(() -> {
            try {
                Mac mac = Mac.getInstance("HmacSHA256");
                mac.init(new SecretKeySpec(key.length == 0 ? new byte[1] : key, "HmacSHA256"));
                return mac;
            } catch (NoSuchAlgorithmException | InvalidKeyException e) {
                throw new IllegalStateException(e);
            }
        });
    }

    private byte[] sign(byte[]... parts) {
        if (key.length == 0) {
            return new byte[0];
        }
        Mac mac = macs.get();
        for (byte[] p : parts) {
            mac.update(p);
        }
        return HexFormat.of().formatHex(mac.doFinal()).getBytes(StandardCharsets.US_ASCII);
    }

    /**
     * Receives one message; null when it was dropped (a bad signature, or
     * parts that are not a message), after logging why.
     */
    Message receive(ZMQ.Socket socket) {
        List<byte[]> frames = new ArrayList<>();
        do {
            frames.add(socket.recv(0));
        } while (socket.hasReceiveMore());
        int at = -1;
        for (int i = 0; i < frames.size(); i++) {
            if (Arrays.equals(frames.get(i), DELIMITER)) {
                at = i;
                break;
            }
        }
        if (at < 0 || frames.size() < at + 6) {
            System.err.println("vexel kernel: dropped a message that is not in the protocol's form");
            return null;
        }
        byte[] signature = frames.get(at + 1);
        byte[] header = frames.get(at + 2);
        byte[] parent = frames.get(at + 3);
        byte[] metadata = frames.get(at + 4);
        byte[] content = frames.get(at + 5);
        if (key.length > 0 && !MessageDigest.isEqual(signature, sign(header, parent, metadata, content))) {
            System.err.println("vexel kernel: dropped a message with a bad signature");
            return null;
        }
        if (key.length > 0 && !firstSeen(new String(signature, StandardCharsets.US_ASCII))) {
            System.err.println("vexel kernel: dropped a message received before (a replay)");
            return null;
        }
        try {
            return new Message(new ArrayList<>(frames.subList(0, at)), json(header), json(parent), json(metadata),
                    json(content));
        } catch (RuntimeException | StackOverflowError e) {
            System.err.println("vexel kernel: dropped a message that is not a request: " + e.getMessage());
            return null;
        }
    }

    /** Whether the signature is new; it is remembered, and the oldest forgotten past the history's size. */
    private boolean firstSeen(String signature) {
        synchronized (digests) {
            if (!digests.add(signature)) {
                return false;
            }
            if (digests.size() > DIGEST_HISTORY) {
                Iterator<String> oldest = digests.iterator();
                oldest.next();
                oldest.remove();
            }
            return true;
        }
    }

    private static JsonObject json(byte[] bytes) {
        return JsonParser.parseString(new String(bytes, StandardCharsets.UTF_8)).getAsJsonObject();
    }

    /** A new header of this kernel's session. */
    JsonObject header(String type) {
        JsonObject h = new JsonObject();
        h.addProperty("msg_id", UUID.randomUUID().toString());
        h.addProperty("session", session);
        h.addProperty("username", "vexel");
        h.addProperty("date", Instant.now().toString());
        h.addProperty("msg_type", type);
        h.addProperty("version", PROTOCOL_VERSION);
        return h;
    }

    /**
     * Sends a message of the type, in reply to `parent` (null for none), to
     * the given identities (the parent's for a reply; a topic on iopub).
     */
    void send(ZMQ.Socket socket, String type, JsonObject content, Message parent, List<byte[]> to) {
        byte[] header = bytes(header(type));
        byte[] parentHeader = bytes(parent == null ? new JsonObject() : parent.header);
        byte[] metadata = bytes(new JsonObject());
        byte[] body = bytes(content);
        synchronized (socket) {
            for (byte[] id : to) {
                socket.sendMore(id);
            }
            socket.sendMore(DELIMITER);
            socket.sendMore(sign(header, parentHeader, metadata, body));
            socket.sendMore(header);
            socket.sendMore(parentHeader);
            socket.sendMore(metadata);
            socket.send(body, 0);
        }
    }

    private static byte[] bytes(JsonObject o) {
        return GSON.toJson(o).getBytes(StandardCharsets.UTF_8);
    }
}
