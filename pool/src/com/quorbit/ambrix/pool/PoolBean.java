package com.quorbit.ambrix.pool;

import java.lang.management.ManagementFactory;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.Supplier;
import javax.management.InstanceAlreadyExistsException;
import javax.management.InstanceNotFoundException;
import javax.management.JMException;
import javax.management.MBeanServer;
import javax.management.MalformedObjectNameException;
import javax.management.ObjectName;

/**
 * A pool's JMX bean in the platform MBean server, from the pool's build to
 * its close: its attributes are read from the pool's {@link PoolStats} each
 * time a client asks.
 *
 * <p>A pool's name is the value of the object name's {@code name} key as
 * it is, never quoted, so that a client finds it by the name it was given.
 * A name must therefore do without the characters that an unquoted value
 * cannot hold: {@code , = : " * ?} and line breaks.
 */
final class PoolBean implements EnginePoolMXBean {
    /** The object name of every pool's bean, but for its name. */
    static final String PREFIX = "com.quorbit.ambrix:type=EnginePool,name=";
    /** The pools of this JVM given no name, for their default names. */
    private static final AtomicInteger UNNAMED = new AtomicInteger();

    private final Supplier<PoolStats> stats;
    private final String name;
    private final ObjectName objectName;

    private PoolBean(String name, Supplier<PoolStats> stats) {
        this.name = name;
        this.objectName = objectName(name);
        this.stats = stats;
    }

    /**
     * The bean's object name for a pool of that name.
     *
     * @throws IllegalArgumentException for a name blank, or that the object name cannot hold unquoted
     */
    static ObjectName objectName(String name) {
        if (name == null || name.isBlank()) {
            throw new IllegalArgumentException("name must not be blank");
        }
        try {
            ObjectName o = new ObjectName(PREFIX + name);
            if (!o.isPattern() && o.getKeyPropertyList().size() == 2 && name.equals(o.getKeyProperty("name"))) {
                return o;
            }
        } catch (MalformedObjectNameException e) {
            // said below
        }
        throw new IllegalArgumentException("name must be usable in a JMX object name, without , = : \" * ? "
                + "or a line break: " + name);
    }

    /**
     * Registers the bean of a pool: under its name, or when it has none,
     * under the next of {@code pool-1}, {@code pool-2}, ..., counting the
     * pools of this JVM built without a name and skipping a name that an
     * open pool holds.
     *
     * @param name  the pool's name, or null for the next default one
     * @param stats the pool's figures
     * @throws IllegalStateException when an open pool of this JVM has that name
     */
    static PoolBean register(String name, Supplier<PoolStats> stats) {
        while (true) {
            PoolBean bean = new PoolBean(name != null ? name : "pool-" + UNNAMED.incrementAndGet(), stats);
            try {
                server().registerMBean(bean, bean.objectName);
                return bean;
            } catch (InstanceAlreadyExistsException e) {
                if (name != null) {
                    throw new IllegalStateException("a pool named " + name
                            + " is open already in this JVM; give each open pool a name of its own");
                }
            } catch (JMException e) {
                throw new IllegalStateException("cannot register the pool's JMX bean " + bean.objectName + ": " + e);
            }
        }
    }

    /** The pool's name, as its object name holds it. */
    String name() {
        return name;
    }

    /** Removes the bean; the name is free again. */
    void unregister() {
        try {
            server().unregisterMBean(objectName);
        } catch (InstanceNotFoundException e) {
            // gone already
        } catch (JMException e) {
            PoolLog.log(System.Logger.Level.WARNING, "cannot unregister the pool's JMX bean " + objectName + ": " + e);
        }
    }

    private static MBeanServer server() {
        return ManagementFactory.getPlatformMBeanServer();
    }

    @Override
    public int getWorkers() {
        return stats.get().workers();
    }

    @Override
    public int getReadyWorkers() {
        return stats.get().readyWorkers();
    }

    @Override
    public int getBusyWorkers() {
        return stats.get().busyWorkers();
    }

    @Override
    public int getQueuedTasks() {
        return stats.get().queuedTasks();
    }

    @Override
    public long getCompletedTasks() {
        return stats.get().completedTasks();
    }

    @Override
    public long getFailedTasks() {
        return stats.get().failedTasks();
    }

    @Override
    public long getRetriedTasks() {
        return stats.get().retriedTasks();
    }

    @Override
    public long getLostWorkers() {
        return stats.get().lostWorkers();
    }
}
