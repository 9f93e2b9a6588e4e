package com.quorbit.ambrix.pool;

import com.quorbit.externalcall.VexelException;
import java.time.Duration;
import java.util.concurrent.CompletionException;
import java.util.concurrent.ExecutionException;

/**
 * One worker of a pool, kept for a series of statements whose definitions
 * carry from one to the next, until {@link #close()}. Its worker is reset
 * before it serves anyone else. The calls block; {@link #interrupt()} may
 * come from any thread. Once its worker is lost, every call throws the
 * {@link WorkerLostException} that reported the loss.
 */
public final class Session implements AutoCloseable {
    private final Dispatch dispatch;
    private final Tasks tasks;
    /** The pool's default time limit, or null. */
    private final Duration timeLimit;
    private final Worker worker;
    private volatile Task running;
    private volatile WorkerLostException lost;
    private boolean closed;

    Session(Dispatch dispatch, Tasks tasks, Duration timeLimit, Worker worker) {
        this.dispatch = dispatch;
        this.tasks = tasks;
        this.timeLimit = timeLimit;
        this.worker = worker;
    }

    /**
     * Evaluates statements in this session's kernel, with the pool's
     * default time limit.
     *
     * @param statement one or more statements
     * @return the value of the last, its text and the output
     * @throws VexelException the kernel's error; "time limit of ... passed";
     *         a {@link WorkerLostException} when the worker was lost
     */
    public Result evaluate(String statement) {
        return evaluate(statement, this.timeLimit);
    }

    /**
     * As {@link #evaluate(String)}, with this time limit.
     *
     * @param statement one or more statements
     * @param timeLimit the time limit, or null for none
     * @return the value of the last, its text and the output
     */
    public Result evaluate(String statement, Duration timeLimit) {
        return (Result) await(tasks.eval(statement, timeLimit, false));
    }

    /**
     * Calls the kernel procedure of that name with the arguments converted
     * as {@code Engine.toKernel} does, and returns the result converted as
     * {@code Algebraic.toJava()} does (null where it has no Java form).
     *
     * @param procedure the procedure's name
     * @param args      the arguments
     * @return the result in Java, or null
     * @throws VexelException as {@link #evaluate(String)}, and for an
     *         argument that cannot be sent
     */
    public Object call(String procedure, Object... args) {
        return await(tasks.call(procedure, args, timeLimit, false));
    }

    /**
     * The kernel's help on a topic, as plain text wrapped to the width
     * (none for 0 or less), as {@code Engine.getHelpText} gives it.
     *
     * @param topic   the topic, such as a procedure's name
     * @param section one of {@code Engine}'s {@code VEXEL_HELP_*} constants
     * @param width   the width to wrap to
     * @return the help text
     * @throws VexelException "no help for ..." for an unknown topic
     */
    public String help(String topic, int section, int width) {
        return ((Result) await(tasks.help(topic, section, width))).text();
    }

    /**
     * Kills this session's worker process at once, for a computation that
     * does not end when interrupted; the pool starts a new worker. The
     * running call, and every later one, throws a
     * {@link WorkerLostException} "kernel process ended: killed on request".
     */
    public void kill() {
        worker.kill("killed on request");
    }

    /** Ends the statement running in this session now, if any; from any thread. */
    public void interrupt() {
        Task task = running;
        if (task != null) {
            worker.interrupt(task);
        }
    }

    private synchronized Object await(Task task) {
        if (lost != null) {
            throw lost;
        }
        if (closed) {
            throw new VexelException("Session is closed");
        }
        running = task;
        if (!dispatch.start(worker, task)) {
            lost = worker.lostException();
            throw lost;
        }
        try {
            return task.future.get();
        } catch (ExecutionException | CompletionException e) {
            Throwable cause = e.getCause();
            if (cause instanceof WorkerLostException w) {
                lost = w;
                throw w;
            }
            throw Dispatch.unwrap(cause, "");
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
            worker.interrupt(task);
            throw new VexelException("interrupted while waiting for the worker");
        } finally {
            running = null;
        }
    }

    /** Called by the pool when this session's worker is lost. */
    void lost(WorkerLostException e) {
        if (lost == null) {
            lost = e;
        }
    }

    /** Gives the worker back to the pool, which resets its kernel first. A second close does nothing. */
    @Override
    public synchronized void close() {
        if (closed) {
            return;
        }
        closed = true;
        if (lost == null) {
            dispatch.endSession(worker);
        }
    }
}
