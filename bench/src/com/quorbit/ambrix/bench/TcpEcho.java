package com.quorbit.ambrix.bench;

import java.io.IOException;
import java.net.InetSocketAddress;
import java.net.StandardSocketOptions;
import java.nio.ByteBuffer;
import java.nio.channels.SocketChannel;

/** The floor of a round trip over TCP: a child JVM that sends back every byte it reads. */
public final class TcpEcho {
    private TcpEcho() {
    }

    /**
     * Connects to the port on localhost and echoes until the other side closes.
     *
     * @param args the port
     */
    public static void main(String[] args) throws IOException {
        try (SocketChannel c = SocketChannel.open(new InetSocketAddress("127.0.0.1", Integer.parseInt(args[0])))) {
            c.setOption(StandardSocketOptions.TCP_NODELAY, true);
            ByteBuffer b = ByteBuffer.allocateDirect(1 << 16);
            while (c.read(b) >= 0) {
                b.flip();
                while (b.hasRemaining()) c.write(b);
                b.clear();
            }
        }
    }
}
