package com.quorbit.ambrix;

import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.DATA;
import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.eval;
import static com.quorbit.ambrix.Kernel.show;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;
import org.junit.jupiter.params.provider.ValueSource;

/** Every callback of the kernel reaches the Java callbacks object with its arguments translated. */
class CallBackTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    @ParameterizedTest(name = "kernel tag {0}")
    @CsvSource({"3, 103", "1, 101", "2, 102", "9, 109", "4, 104", "5, 105", "7, 107", "10, 110"})
    void textTagsBecomeTheCallbackClassConstants(int kernelTag, int javaTag) {
        eval("textcallback(" + kernelTag + ", \"hello\"):");
        RecordingCallBacks.Call call = CALLBACKS.last("text");
        assertEquals(javaTag, call.arg(0));
        assertEquals("hello", call.arg(1));
        assertSame(DATA, call.data());
        assertSame(Thread.currentThread(), call.thread());
    }

    @ParameterizedTest(name = "kernel tag {0}")
    @ValueSource(ints = {0, 6, 8, 11, -1, 1 << 20})
    void unknownTextTagsThrowWithoutCallingJava(int kernelTag) {
        assertVexel("invalid tag for text callback", () -> eval("textcallback(" + kernelTag + ", \"x\"):"));
        assertTrue(CALLBACKS.calls("text").isEmpty());
        // The exception stopped the statement and nothing else reached Java after it.
        assertTrue(CALLBACKS.calls("error").isEmpty());
    }

    @Test
    void textBytesWidenToTheSameCodeUnits() {
        eval("textcallback(3, \"\u00ff\u00e9\"):");
        assertEquals("\u00ff\u00e9", CALLBACKS.last("text").arg(1));
        eval("textcallback(3, \"\"):");
        assertEquals("", CALLBACKS.last("text").arg(1));
    }

    @Test
    void printedResultsArriveAsOutput() {
        eval("2^100;");
        assertEquals(103, CALLBACKS.last("text").arg(0));
        assertEquals("1267650600228229401496703205376", CALLBACKS.last("text").arg(1));
    }

    @Test
    void errorOffsetArrivesCutTo32Bits() {
        CALLBACKS.throwOnError = false;
        eval("errorcallback(2^32 + 5, \"five\"):");
        RecordingCallBacks.Call call = CALLBACKS.last("error");
        assertEquals(5, call.arg(0));
        assertEquals("five", call.arg(1));
        eval("errorcallback(-2, \"minus\"):");
        assertEquals(-2, CALLBACKS.last("error").arg(0));
    }

    @Test
    void aThrowingErrorCallbackBecomesTheCallersException() {
        assertVexel("oops 3", () -> eval("error \"oops %1\", 3;"));
        assertEquals(-1, CALLBACKS.last("error").arg(0));
        // The lock is free again: the next call works.
        assertEquals("2", show("1 + 1;"));
    }

    @Test
    void parseErrorsReportTheirOffset() {
        CALLBACKS.throwOnError = false;
        assertNull(eval("1 + * 2;"));
        int offset = (Integer) CALLBACKS.last("error").arg(0);
        assertTrue(offset >= 0 && offset <= 4, "offset " + offset);
    }

    @Test
    void statusArgumentsArriveUnchanged() {
        eval("statuscallback(2^40, -7, 2.5):");
        RecordingCallBacks.Call call = CALLBACKS.last("status");
        assertEquals(1L << 40, call.arg(0));
        assertEquals(-7L, call.arg(1));
        assertEquals(2.5, call.arg(2));
    }

    @Test
    void readLineFlagAndAnswers() {
        CALLBACKS.readLine = debug -> debug ? "debugging" : "x\u00ac";
        assertEquals("\"debugging\"", show("readline(true);"));
        assertEquals(Boolean.TRUE, CALLBACKS.last("readLine").arg(0));
        assertEquals("\"x\u00ac\"", show("readline();"));
        assertEquals(Boolean.FALSE, CALLBACKS.last("readLine").arg(0));
        CALLBACKS.readLine = debug -> null;
        assertEquals("\"\"", show("readline();"));
        CALLBACKS.readLine = debug -> "";
        assertEquals("\"\"", show("readline();"));
    }

    @Test
    void redirectNamesAndModes() {
        assertEquals("true", show("writeto(\"out.txt\");"));
        assertEquals(java.util.List.of("out.txt", false), CALLBACKS.last("redirect").args());
        assertEquals("true", show("appendto(\"log\");"));
        assertEquals(java.util.List.of("log", true), CALLBACKS.last("redirect").args());
        CALLBACKS.redirectAnswer = false;
        assertEquals("false", show("writeto(terminal);"));
        RecordingCallBacks.Call call = CALLBACKS.last("redirect");
        assertNull(call.arg(0));
        assertEquals(false, call.arg(1));
    }

    @Test
    void streamArgumentsArriveInOrder() {
        CALLBACKS.stream = args -> args == null ? "none" : String.join("+", args);
        assertEquals("\"none\"", show("streamcall(\"s\");"));
        assertNull(CALLBACKS.last("stream").arg(1));
        assertEquals("\"a+b+\u00e9\"", show("streamcall(\"s\", \"a\", \"b\", \"\u00e9\");"));
        RecordingCallBacks.Call call = CALLBACKS.last("stream");
        assertEquals("s", call.arg(0));
        assertArrayEquals(new String[] {"a", "b", "\u00e9"}, (String[]) call.arg(1));
        CALLBACKS.stream = args -> null;
        assertEquals("\"\"", show("streamcall(\"s\", \"a\");"));
    }

    @Test
    void callBackAnswers() {
        assertEquals("\"answer:ping\"", show("callback(\"ping\");"));
        assertEquals("ping", CALLBACKS.last("callBack").arg(0));
        CALLBACKS.callBack = s -> null;
        assertEquals("\"\"", show("callback(\"ping\");"));
    }

    @Test
    void interruptStopsALoop() {
        CALLBACKS.interrupt = true;
        assertVexel("computation interrupted", () -> eval("for i to 10^9 do end do;"));
        CALLBACKS.interrupt = false;
        assertEquals("false", show("interrupted();"));
    }

    @Test
    void everyCallbackGetsTheUserData() {
        CALLBACKS.throwOnError = false;
        eval("textcallback(1, \"a\"): statuscallback(1, 2, 3.0): readline(): writeto(\"f\"): "
                + "streamcall(\"s\"): callback(\"c\"): errorcallback(0, \"e\"):");
        assertEquals(7, CALLBACKS.calls().size());
        for (RecordingCallBacks.Call call : CALLBACKS.calls()) assertSame(DATA, call.data(), call.method());
    }

    @Test
    void manyCallbacksInOneCallKeepLocalReferencesBounded() {
        // Each entry deletes the references it makes: the checker reports
        // a leak long before this many calls.
        eval("for i to 20000 do textcallback(3, \"line\"); callback(\"c\"); streamcall(\"s\", \"a\", \"b\"); "
                + "readline(); writeto(\"f\") end do:");
        assertEquals(20000, CALLBACKS.calls("text").size());
        assertEquals(20000, CALLBACKS.calls("stream").size());
    }

    @Test
    void afterAPendingExceptionNoMoreJavaRuns() {
        // The unknown tag leaves an exception pending; the rest of the statement
        // reaches no Java method, and the first exception is what the caller sees.
        assertVexel("invalid tag for text callback",
                () -> eval("textcallback(6, \"x\"): textcallback(3, \"y\"): callback(\"z\"):"));
        assertTrue(CALLBACKS.calls().isEmpty(), CALLBACKS.calls().toString());
        assertFalse(CALLBACKS.interrupt);
    }
}
