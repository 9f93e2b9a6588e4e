package com.quorbit.ambrix.shell;

import com.quorbit.ambrix.HelpCallBacks;
import java.io.PrintStream;

/**
 * Prints help text, showing the kernel's text attributes as ANSI escapes
 * (bold, italic, underline) when colour is wanted, or as plain text.
 * Ctrl-C stops the output.
 */
final class HelpPrinter implements HelpCallBacks {
    private static final String ESC = "\u001b[";

    private final PrintStream out;
    private final boolean ansi;
    private final Interrupts interrupts;
    private int last = '\n';
    private boolean attributed;

    HelpPrinter(PrintStream out, boolean ansi, Interrupts interrupts) {
        this.out = out;
        this.ansi = ansi;
        this.interrupts = interrupts;
    }

    @Override
    public boolean writeChar(Object data, int c) {
        out.print((char) c);
        last = c;
        return interrupts.poll();
    }

    @Override
    public boolean writeAttrib(Object data, int attrib) {
        if (ansi) {
            String code = switch (attrib) {
                case VEXEL_ATTRIB_BOLD -> "1";
                case VEXEL_ATTRIB_ITAL -> "3";
                case VEXEL_ATTRIB_UNDER -> "4";
                default -> "0";
            };
            out.print(ESC + code + "m");
            attributed = attrib != VEXEL_ATTRIB_NORMAL;
        }
        return interrupts.poll();
    }

    /** Ends the output: back to normal text, and at the start of a line. */
    void finish() {
        if (attributed) {
            out.print(ESC + "0m");
            attributed = false;
        }
        if (last != '\n') {
            out.println();
            last = '\n';
        }
        out.flush();
    }
}
