package com.quorbit.ambrix.shell;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStream;
import java.io.InputStreamReader;
import java.nio.charset.Charset;
import java.util.concurrent.LinkedBlockingQueue;

/**
 * The shell's plain input: lines of standard input (a pipe, a file, or a
 * terminal when line editing is not available), read ahead on a thread of
 * their own so that an interrupt can wake up a reader that waits for a line.
 *
 * <p>{@link #take} returns the next line, {@link #EOF} at the end of input
 * (and on every call after that), or {@link #INTERRUPT} when
 * {@link #interrupt()} was called while nothing was waiting before it.
 */
final class InputLines implements LineInput {

    private final InputStream stream;
    private final LinkedBlockingQueue<Object> queue = new LinkedBlockingQueue<>();
    private Thread reader;
    private volatile boolean ended;

    InputLines(InputStream stream) {
        this.stream = stream;
    }

    /** Prints the prompt, if any, and waits for the next line. */
    @Override
    public Object take(String prompt) {
        if (prompt != null) {
            System.out.print(prompt);
            System.out.flush();
        }
        if (ended) {
            return EOF;
        }
        startReader();
        Object item;
        try {
            item = queue.take();
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            item = EOF;
        }
        if (item == EOF) {
            ended = true;
        }
        return item;
    }

    @Override
    public void interrupt() {
        queue.add(INTERRUPT);
    }

    @Override
    public void clearInterrupts() {
        queue.removeIf(item -> item == INTERRUPT);
    }

    private synchronized void startReader() {
        if (reader != null) {
            return;
        }
        BufferedReader in = new BufferedReader(new InputStreamReader(stream, Charset.defaultCharset()));
        reader = new Thread(() -> {
            try {
                for (String line = in.readLine(); line != null; line = in.readLine()) {
                    queue.add(line);
                }
            } catch (IOException e) {
                System.err.println("vexel: error reading input: " + e.getMessage());
            }
            queue.add(EOF);
        }, "vexel-input");
        reader.setDaemon(true);
        reader.start();
    }
}
