package com.quorbit.ambrix;

import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.eval;
import static com.quorbit.ambrix.Kernel.show;
import static org.junit.jupiter.api.Assertions.assertEquals;

import com.quorbit.externalcall.VexelException;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * A Java exception thrown by a callback becomes a kernel error, which the
 * kernel reports through the error callback, which throws it back to the
 * Java caller: the message shows what the kernel made of the exception.
 */
class ExceptionTranslationTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    static class SubclassedException extends VexelException {
        SubclassedException(String message, Object... args) {
            super(message, args);
        }
    }

    static Stream<Arguments> translations() {
        return Stream.of(
                Arguments.of(new VexelException("plain"), "plain"),
                Arguments.of(new VexelException("int %1", -1), "int -1"),
                Arguments.of(new VexelException("long %1", Long.MIN_VALUE), "long -9223372036854775808"),
                Arguments.of(new VexelException("two %1 %2", true, false), "two true false"),
                Arguments.of(new VexelException("floats %1 %2", 1.5f, 0.25), "floats 1.5 0.25"),
                Arguments.of(new VexelException("text %1", "\u00ffb"), "text \"\u00ffb\""),
                Arguments.of(new VexelException("char %1", '\u00ff'), "char \"\u00ff\""),
                // Text that cannot cross exactly is refused, wherever it is.
                Arguments.of(new VexelException("text %1", "\u0141b"), "character is out of range"),
                Arguments.of(new VexelException("text %1", "a\0b"), "character is out of range"),
                Arguments.of(new VexelException("char %1", '\u0141'), "character is out of range"),
                Arguments.of(new VexelException("char %1", '\0'), "character is out of range"),
                Arguments.of(new VexelException("cut\0here"), "character is out of range"),
                // Classes without a kernel counterpart give the null value.
                Arguments.of(new VexelException("short %1", (short) 3), "short NULL"),
                Arguments.of(new VexelException("array %1", (Object) new int[] {1}), "array NULL"),
                // Three to ten arguments are converted but not passed on.
                Arguments.of(new VexelException("three", 1, 2, 3), "three"),
                Arguments.of(new VexelException("ten", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10), "ten"),
                Arguments.of(new VexelException("eleven", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11),
                        "too many arguments in VexelException"),
                Arguments.of(new VexelException("null %1", (Object) null), "Error calling VexelException.getArg"),
                Arguments.of(new VexelException("wide \u0100"), "character is out of range"),
                Arguments.of(new VexelException("\u00e9t\u00e9"), "\u00e9t\u00e9"),
                Arguments.of(new SubclassedException("sub %1", 4), "sub 4"),
                // Any other exception gives its toString text.
                Arguments.of(new IllegalStateException("boom \u00e9"), "java.lang.IllegalStateException: boom \u00e9"),
                Arguments.of(new IllegalStateException("boom \u0141"), "character is out of range"),
                Arguments.of(new NullPointerException(), "java.lang.NullPointerException"));
    }

    @ParameterizedTest
    @MethodSource("translations")
    void callbackExceptionsBecomeKernelErrors(RuntimeException thrown, String message) {
        CALLBACKS.throwNext = thrown;
        assertVexel(message, () -> eval("readline();"));
        assertEquals(-1, CALLBACKS.last("error").arg(0));
    }

    @Test
    void everyThrowingCallbackIsTranslated() {
        for (String statement : new String[] {"textcallback(3, \"t\");", "statuscallback(1, 2, 3.0);",
                "writeto(\"f\");", "streamcall(\"s\", \"a\");", "callback(\"c\");", "interrupted();"}) {
            CALLBACKS.throwNext = new VexelException("from %1", statement);
            // The argument prints as a kernel string, its quotes escaped.
            assertVexel("from \"" + statement.replace("\"", "\\\"") + "\"", () -> eval(statement));
        }
    }

    @Test
    void theKernelStaysUsableAfterATranslatedError() {
        CALLBACKS.throwNext = new VexelException("first");
        assertVexel("first", () -> eval("x := readline(); untouchedY := 5;"));
        // The raise ended the statement: nothing after it ran.
        assertEquals("untouchedY", show("untouchedY;"));
    }
}
