package com.quorbit.ambrix;

/**
 * Receives help text from {@link Engine#getHelp}, one character at a time,
 * with changes of text attribute in between.
 *
 * <p>Both methods run inside the kernel's help call, on the calling thread;
 * they must not call back into the engine. Returning true from either stops
 * the help output.
 */
public interface HelpCallBacks {
    /** Plain text. */
    int VEXEL_ATTRIB_NORMAL = 0;
    /** Italic text (parameter names). */
    int VEXEL_ATTRIB_ITAL = 1;
    /** Bold text (headings). */
    int VEXEL_ATTRIB_BOLD = 3;
    /** Underlined text (links to other topics). */
    int VEXEL_ATTRIB_UNDER = 4;

    /**
     * Receives one character of help text.
     *
     * @param data the data object given to {@link Engine#getHelp}
     * @param c    the character's code; a newline ends a line
     * @return true to stop the help output
     */
    boolean writeChar(Object data, int c);

    /**
     * Receives a change of text attribute; it holds until the next change.
     *
     * @param data   the data object given to {@link Engine#getHelp}
     * @param attrib one of the {@code VEXEL_ATTRIB_*} constants
     * @return true to stop the help output
     */
    boolean writeAttrib(Object data, int attrib);
}
