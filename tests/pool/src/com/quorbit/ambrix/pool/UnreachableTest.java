package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.net.UnknownHostException;
import org.junit.jupiter.api.Test;

/**
 * What a worker that cannot reach its pool leaves on its job, and what the
 * pool makes of a job's comment (the Slurm scenarios run the whole way for
 * a refused connection and a refused secret).
 */
class UnreachableTest {
    /** An unknown host's error is the name alone: the line says what it is. */
    @Test
    void anUnknownHostIsSaidSo() {
        assertEquals("the worker on c1 could not connect to head:40123: unknown host head; set listenAddress to an "
                + "address the nodes reach", Unreachable.fromComment(
                        Unreachable.line("c1", "head:40123", new UnknownHostException("head"))));
    }

    /** An error of many lines, or a very long one, still makes one short line that names host and address. */
    @Test
    void aCommentIsOneBoundedLine() {
        String line = Unreachable.line("c1", "head:40123",
                new java.io.IOException("first\nsecond\r\n\tthird " + "x".repeat(5000)));
        assertTrue(line.length() <= Unreachable.MAX_COMMENT, line);
        assertTrue(line.chars().noneMatch(Character::isISOControl), line);
        assertTrue(Unreachable.fromComment(line).startsWith(
                "the worker on c1 could not connect to head:40123: first second third xxx"), line);
    }

    /** A job's own comment, or none, says nothing of a worker. */
    @Test
    void otherCommentsAreNoWorkersWords() {
        for (String comment : new String[] {null, "(null)", "", "nightly run", "ambrix worker: no host named"}) {
            assertNull(Unreachable.fromComment(comment), comment);
        }
    }
}
