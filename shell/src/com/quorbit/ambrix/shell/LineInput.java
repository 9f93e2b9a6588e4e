package com.quorbit.ambrix.shell;

/**
 * Where the shell's lines come from: a terminal with line editing and
 * history ({@link TerminalInput}), or plain lines from a pipe or a file
 * ({@link InputLines}).
 */
interface LineInput {
    /** Returned at the end of input. */
    Object EOF = new Object();
    /** Returned when Ctrl-C ended the read. */
    Object INTERRUPT = new Object();

    /**
     * Reads a line of a statement.
     *
     * @param prompt the prompt to show, or null for none
     * @return a {@code String}, {@link #EOF} or {@link #INTERRUPT}
     */
    Object take(String prompt);

    /**
     * Reads a line that the kernel asks for (its {@code readline()}): no
     * prompt, and not kept in the history.
     *
     * @return a {@code String}, {@link #EOF} or {@link #INTERRUPT}
     */
    default Object answer() {
        return take(null);
    }

    /** Whether a read ended by Ctrl-C or Ctrl-D has moved to a new line itself. */
    default boolean endsLine() {
        return false;
    }

    /** Wakes up the read waiting for a line, or the next one, with {@link #INTERRUPT}. */
    void interrupt();

    /** Forgets interrupts that no read has taken yet. */
    void clearInterrupts();

    /** Ends the input: the history is saved and the terminal restored. */
    default void close() {
    }
}
