package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.eval;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.util.ArrayList;
import java.util.Iterator;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** What a Java program expects of the value classes: iteration, BigInteger, early release. */
class ConventionsTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    static java.util.List<String> printed(Iterable<Algebraic> values) {
        java.util.List<String> out = new ArrayList<>();
        for (Algebraic a : values) out.add(a.toString());
        return out;
    }

    @Test
    void listsAndSequencesIterateInOrder() {
        assertEquals(java.util.List.of("1", "x+1", "\"s\"", "[2]"), printed((List) eval("[1, x + 1, \"s\", [2]];")));
        assertEquals(java.util.List.of("a", "1180591620717411303424"), printed((Expseq) eval("a, 2^70;")));
        assertEquals(java.util.List.of(), printed((List) eval("[];")));
        Iterator<Algebraic> it = ((List) eval("[5];")).iterator();
        it.next();
        assertThrows(UnsupportedOperationException.class, it::remove);
        assertFalse(it.hasNext());
    }

    @ParameterizedTest(name = "{0}")
    @CsvSource({
        "0, 0", "-7, -7", "2^63-1, 9223372036854775807", "-2^63, -9223372036854775808",
        "2^64, 18446744073709551616", "-2^100, -1267650600228229401496703205376",
        "-2^63-1, -9223372036854775809",
    })
    void integersOfAnySizeAreExact(String statement, String expected) {
        assertEquals(new BigInteger(expected), ((Numeric) eval(statement + ";")).bigIntegerValue());
    }

    @Test
    void aLongIntegerIsExactToTheLastDigit() {
        BigInteger expected = BigInteger.valueOf(3).pow(4000).negate();
        assertEquals(expected, ((Numeric) eval("-3^4000;")).bigIntegerValue());
    }

    @ParameterizedTest
    @CsvSource({"1/2, 1/2", "1.5, 1.5", "-3/7, -3/7"})
    void otherNumbersAreNotIntegers(String statement, String printed) {
        assertVexel("not an integer: " + printed, () -> ((Numeric) eval(statement + ";")).bigIntegerValue());
    }
}
