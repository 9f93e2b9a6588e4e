package com.quorbit.ambrix;

import static com.quorbit.ambrix.Kernel.CALLBACKS;
import static com.quorbit.ambrix.Kernel.ENGINE;
import static com.quorbit.ambrix.Checks.assertVexel;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNotEquals;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.util.ArrayList;
import java.util.List;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;

/** Help text streamed to a Java object, with its attributes. */
class HelpTest {
    /** Records the text, with an attribute change written as {n}. */
    static class Recorder implements HelpCallBacks {
        // The library passes the value of these fields, found by name on this class.
        static final int VEXEL_ATTRIB_NORMAL = 10;
        static final int VEXEL_ATTRIB_ITAL = 11;
        static final int VEXEL_ATTRIB_BOLD = 13;
        static final int VEXEL_ATTRIB_UNDER = 14;

        final StringBuilder text = new StringBuilder();
        final List<Object> data = new ArrayList<>();
        int charsLeft = Integer.MAX_VALUE;
        RuntimeException throwOnChar;

        @Override
        public boolean writeChar(Object d, int c) {
            data.add(d);
            if (throwOnChar != null) throw throwOnChar;
            text.append((char) c);
            return --charsLeft <= 0;
        }

        @Override
        public boolean writeAttrib(Object d, int attrib) {
            data.add(d);
            text.append('{').append(attrib).append('}');
            return false;
        }
    }

    static final Object HELP_DATA = new Object();

    static Recorder help(String topic, int section, int width) {
        Recorder recorder = new Recorder();
        ENGINE.getHelp(topic, section, recorder, width, HELP_DATA);
        return recorder;
    }

    @BeforeEach
    void reset() {
        CALLBACKS.reset();
    }

    @Test
    void allSectionsWithAttributes() {
        Recorder all = help("print", Engine.VEXEL_HELP_ALL, 0);
        String text = all.text.toString();
        assertTrue(text.contains("{13}"), text);  // headings are bold
        assertTrue(text.contains("{10}"), text);  // and back to normal
        assertTrue(text.contains("{14}"), text);  // see-also links are underlined
        assertTrue(text.contains("print"), text);
        for (Object d : all.data) assertSame(HELP_DATA, d);
    }

    @Test
    void eachSectionIsPartOfTheWhole() {
        String all = help("print", Engine.VEXEL_HELP_ALL, 0).text.toString();
        for (int section : new int[] {Engine.VEXEL_HELP_USAGE, Engine.VEXEL_HELP_DESCRIPTION,
                Engine.VEXEL_HELP_EXAMPLES, Engine.VEXEL_HELP_SEEALSO}) {
            String part = help("print", section, 0).text.toString();
            assertFalse(part.isEmpty(), "section " + section);
            assertNotEquals(all, part, "section " + section);
        }
    }

    @Test
    void wrappingKeepsLinesWithinTheWidth() {
        String text = help("print", Engine.VEXEL_HELP_ALL, 20).text.toString().replaceAll("\\{\\d+\\}", "");
        for (String line : text.split("\n")) assertTrue(line.length() <= 20, "line: " + line);
    }

    @Test
    void writeCharReturningTrueStopsTheOutput() {
        Recorder recorder = new Recorder();
        recorder.charsLeft = 3;
        ENGINE.getHelp("print", Engine.VEXEL_HELP_ALL, recorder, 0, null);
        assertEquals(3, recorder.text.toString().replaceAll("\\{\\d+\\}", "").length());
    }

    @Test
    void aThrowingWriteCharEndsTheHelpWithItsException() {
        Recorder recorder = new Recorder();
        recorder.throwOnChar = new IllegalStateException("stop here");
        IllegalStateException e = assertThrows(IllegalStateException.class,
                () -> ENGINE.getHelp("print", Engine.VEXEL_HELP_ALL, recorder, 0, null));
        assertEquals("stop here", e.getMessage());
        // The first character threw: none was written.
        assertEquals("", recorder.text.toString().replaceAll("\\{\\d+\\}", ""));
    }

    @Test
    void refusedRequests() {
        assertVexel("no help for nosuchtopic", () -> help("nosuchtopic", Engine.VEXEL_HELP_ALL, 0));
        assertVexel("Topic is NULL", () -> help(null, Engine.VEXEL_HELP_ALL, 0));
        assertVexel("HelpCallBacks is NULL", () -> ENGINE.getHelp("print", Engine.VEXEL_HELP_ALL, null, 0, null));
        // The section is checked before the help callbacks object is looked at.
        assertVexel("invalid section specified", () -> ENGINE.getHelp("print", 99, null, 0, null));
    }

    @Test
    void anIllegalAttributeIsAKernelError() {
        Recorder recorder = new Recorder();
        assertVexel("illegal attribute option: 2",
                () -> ENGINE.getHelp("attribute-test", Engine.VEXEL_HELP_ALL, recorder, 0, null));
        assertEquals(-1, CALLBACKS.last("error").arg(0));
    }
}
