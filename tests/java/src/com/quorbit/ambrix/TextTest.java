package com.quorbit.ambrix;

import static com.quorbit.ambrix.Checks.assertVexel;
import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Kernel.eval;
import static com.quorbit.ambrix.Kernel.show;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.math.BigInteger;
import java.util.function.Consumer;
import java.util.stream.Stream;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/**
 * Text crosses to the kernel exactly or not at all, and user data never
 * becomes kernel source.
 */
class TextTest {
    @BeforeEach
    void reset() {
        CALLBACKS.reset();
        eval("area := proc(w, h) w * h end proc:");
    }

    static String refusal(int unit, int position) {
        return String.format("text for the kernel holds U+%04X at position %d; only U+0001 to U+00FF can be sent",
                unit, position);
    }

    /** Every way a Java string reaches the kernel, given the string. */
    static Stream<Arguments> paths() {
        return Stream.of(
                Arguments.of("evaluate", (Consumer<String>) s -> ENGINE.evaluate("\"" + s + "\";")),
                Arguments.of("newName", (Consumer<String>) s -> ENGINE.newName(s, true)),
                Arguments.of("newVString", (Consumer<String>) s -> ENGINE.newVString(s)),
                Arguments.of("toKernel", (Consumer<String>) s -> ENGINE.toKernel(s)),
                Arguments.of("toKernel in a list", (Consumer<String>) s -> ENGINE.toKernel(java.util.List.of("ok", s))),
                Arguments.of("call", (Consumer<String>) s -> ENGINE.call(s, 3, 4)),
                Arguments.of("help topic", (Consumer<String>) s -> ENGINE.getHelp(s, Engine.VEXEL_HELP_ALL,
                        new HelpTest.Recorder(), 0, null)));
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("paths")
    void textThatCannotCrossIsRefusedWithItsPosition(String path, Consumer<String> send) {
        String prefix = path.equals("evaluate") ? "\"" : "";
        int base = prefix.length();
        assertVexel(refusal(0x161, base), () -> send.accept("\u0161rea"));
        assertVexel(refusal(0x0, base + 4), () -> send.accept("area\0junk"));
        assertVexel(refusal(0x20AC, base + 1), () -> send.accept("a\u20ac"));
        // Nothing reached the kernel: no error was reported through it.
        assertTrue(CALLBACKS.calls("error").isEmpty());
    }

    @Test
    void latin1CrossesAsOneByteEach() {
        String all = new StringBuilder().appendCodePoint(1).append("\u007f\u0080\u00e9\u00ff").toString();
        assertEquals(all, ENGINE.toKernel(all).toJava());
        assertEquals(all, ENGINE.newVString(all).stringValue());
        assertEquals(12L, ENGINE.call("area", 3, 4));
    }

    /** A BigInteger whose toString() is a statement. */
    static final class Hostile extends BigInteger {
        private static final long serialVersionUID = 1;

        Hostile() {
            super("123456789012345678901234567890");
        }

        @Override
        public String toString() {
            return "proc() global pwned; pwned := 42 end proc(): 1234";
        }
    }

    @Test
    void aBigIntegerCrossesByItsDigitsNotItsText() {
        Algebraic made = ENGINE.toKernel(new Hostile());
        assertEquals("123456789012345678901234567890", made.toString());
        assertEquals("pwned", show("pwned;"));
    }

    @Test
    void builtInNamesCannotBeReassigned() {
        for (String name : new String[] {"Array", "print", "seq"}) {
            assertVexel("attempting to assign to `" + name + "` which is protected",
                    () -> eval(name + " := proc() [1, 2] end proc:"));
        }
        double[] converted = (double[]) ENGINE.toKernel(new double[] {1, 2}).toJava();
        assertEquals(2.0, converted[1]);
        // A local of that name is the procedure's own.
        assertEquals("3", show("proc() local print; print := 3; print end proc();"));
    }
}
