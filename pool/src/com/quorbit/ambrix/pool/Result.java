package com.quorbit.ambrix.pool;

import java.time.Duration;

/**
 * What a task gave: its value printed and converted, and what the kernel
 * printed while it ran.
 *
 * @param text     the value as the shell prints it; empty for a statement that prints nothing
 * @param value    the value converted to Java as {@code Algebraic.toJava()} does it, or null
 *                 where it has no Java form
 * @param output   the lines the kernel printed during the task
 * @param elapsed  how long the kernel took
 * @param plots    the plots the task made, each a standalone SVG document, in order
 * @param attempts the runs the task took: 1, or more when a worker was lost while it ran
 *                 and it ran again elsewhere (see {@link EnginePool.Builder#retries})
 */
public record Result(String text, Object value, java.util.List<String> output, Duration elapsed,
        java.util.List<String> plots, int attempts) {
    /**
     * A result of one run.
     *
     * @param text    the value as the shell prints it
     * @param value   the value converted to Java, or null
     * @param output  the lines the kernel printed
     * @param elapsed how long the kernel took
     * @param plots   the plots, each a standalone SVG document
     */
    public Result(String text, Object value, java.util.List<String> output, Duration elapsed,
            java.util.List<String> plots) {
        this(text, value, output, elapsed, plots, 1);
    }

    /**
     * A result of one run, without plots.
     *
     * @param text    the value as the shell prints it
     * @param value   the value converted to Java, or null
     * @param output  the lines the kernel printed
     * @param elapsed how long the kernel took
     */
    public Result(String text, Object value, java.util.List<String> output, Duration elapsed) {
        this(text, value, output, elapsed, java.util.List.of());
    }
}
