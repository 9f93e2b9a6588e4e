package com.quorbit.ambrix.pool;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.net.NoRouteToHostException;
import java.net.UnknownHostException;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** What a worker that cannot reach its pool leaves on its job, and what the pool makes of a job's comment. */
class UnreachableTest {
    record Case(String what, Exception error, String pool) {
        @Override
        public String toString() {
            return what;
        }
    }

    static Stream<Case> cases() {
        return Stream.of(
                new Case("no route", new NoRouteToHostException("No route to host"),
                        "the worker on c1 could not connect to head:40123: No route to host; set listenAddress to an "
                        + "address the nodes reach"),
                new Case("an unknown host", new UnknownHostException("head"),
                        "the worker on c1 could not connect to head:40123: unknown host head; set listenAddress to "
                        + "an address the nodes reach"),
                new Case("a refused secret", new Handshake.SecretException("the pool refused it"),
                        "the worker on c1 could not prove the pool's secret to head:40123: the pool refused it; check "
                        + "that the job gets AMBRIX_POOL_SECRET from the pool's environment, unchanged"));
    }

    @ParameterizedTest
    @MethodSource("cases")
    void theWorkersLineReachesThePoolAsOneSentence(Case c) {
        String line = Unreachable.line("c1", "head:40123", c.error());
        assertEquals(c.pool(), Unreachable.fromComment(line));
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
