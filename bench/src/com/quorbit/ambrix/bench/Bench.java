package com.quorbit.ambrix.bench;

import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.DoubleRTable;
import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.EngineCallBacksDefault;
import com.quorbit.ambrix.List;
import com.quorbit.ambrix.Numeric;
import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.lang.ref.Reference;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Locale;
import java.util.WeakHashMap;

/**
 * The benchmark: what the library costs, each figure beside the floor it is
 * held against and their ratio, all measured in one run, with the target each
 * ratio has to meet. A program, not a test: it asserts no timing. Run it with
 * {@code scripts/bench.sh}, which sets the paths:
 *
 * <pre>
 * java -Djava.library.path=build/lib:build/bench -Dambrix.bench.nodata=build/lib-nodata \
 *     -cp build/java/ambrix.jar:build/java/bench.jar com.quorbit.ambrix.bench.Bench [--smoke]
 * </pre>
 *
 * <p>{@code --smoke} runs every part with tiny sizes (the figures mean
 * nothing then). The bulk figures without the kernel's optional
 * {@code VexelRTableData} come from a child JVM that loads the library and
 * kernel of {@code ambrix.bench.nodata} ({@code --fallback} runs that part
 * alone). A figure whose native method is missing shows as n/a.
 */
public final class Bench {
    private Bench() {}

    /** How much one run does. */
    private record Sizes(int calls, int rounds, int warmups, int lines, int[] wrappers, int elements,
                         int loopElements, int transfers) {}

    private static final Sizes FULL =
            new Sizes(200_000, 7, 3, 100_000, new int[] {10_000, 100_000, 1_000_000}, 1_000_000, 100_000, 5);
    private static final Sizes SMOKE = new Sizes(1_000, 2, 1, 100, new int[] {100, 1_000}, 1_000, 100, 2);

    /** A loop of n operations; returns something computed from them, so that the JIT keeps them. */
    @FunctionalInterface
    private interface Loop {
        long run(int n);
    }

    /** Where the loops' results go. */
    private static long sink;

    /**
     * The median over the rounds of the time of one operation, in nanoseconds,
     * after the warm-up rounds; NaN when a native method is missing.
     */
    private static double perOp(Sizes s, int n, Loop loop) {
        try {
            for (int i = 0; i < s.warmups(); i++) sink += loop.run(n);
            double[] t = new double[s.rounds()];
            for (int r = 0; r < t.length; r++) {
                long start = System.nanoTime();
                sink += loop.run(n);
                t[r] = (System.nanoTime() - start) / (double) n;
            }
            Arrays.sort(t);
            return t.length % 2 == 1 ? t[t.length / 2] : (t[t.length / 2 - 1] + t[t.length / 2]) / 2;
        } catch (UnsatisfiedLinkError e) {
            return Double.NaN;
        }
    }

    /** A target: a bound on a row's ratio, or on its value. */
    record Target(boolean onValue, boolean atMost, double bound) {
        static final Target NONE = new Target(false, true, Double.NaN);

        static Target ratioAtMost(double b) {
            return new Target(false, true, b);
        }

        static Target ratioAtLeast(double b) {
            return new Target(false, false, b);
        }

        static Target valueAtMost(double b) {
            return new Target(true, true, b);
        }

        String text() {
            if (Double.isNaN(bound)) return "";
            String b = java.math.BigDecimal.valueOf(bound).stripTrailingZeros().toPlainString();
            return (onValue ? "value " : "") + (atMost ? "<= " : ">= ") + b + (onValue ? "" : "x");
        }

        String met(double value, double ratio) {
            if (Double.isNaN(bound)) return "";
            double x = onValue ? value : ratio;
            if (Double.isNaN(x)) return "n/a";
            return (atMost ? x <= bound : x >= bound) ? "yes" : "NO";
        }
    }

    static String number(double x) {
        if (Double.isNaN(x)) return "n/a";
        if (Math.abs(x) >= 1000) return String.format(Locale.ROOT, "%.0f", x);
        if (Math.abs(x) >= 10) return String.format(Locale.ROOT, "%.1f", x);
        return String.format(Locale.ROOT, "%.2f", x);
    }

    static void header() {
        System.out.printf(Locale.ROOT, "%-44s %10s %-11s %10s %8s  %-14s %s%n",
                "figure", "value", "unit", "floor", "ratio", "target", "met");
    }

    static void section(String title) {
        System.out.println();
        System.out.println("-- " + title);
    }

    /** One figure beside its floor; the ratio is value / floor. */
    static void row(String figure, double value, String unit, double floor, Target target) {
        double ratio = value / floor;
        System.out.printf(Locale.ROOT, "%-44s %10s %-11s %10s %8s  %-14s %s%n", figure, number(value), unit,
                Double.isNaN(floor) ? "" : number(floor), Double.isNaN(ratio) ? "" : number(ratio) + "x", target.text(),
                target.met(value, ratio));
    }

    /** A floor on a line of its own. */
    static void floorRow(String what, double value, String unit) {
        System.out.printf(Locale.ROOT, "%-44s %10s %-11s%n", "floor: " + what, number(value), unit);
    }

    /** 10^k for a power of ten, else the number. */
    private static String count(int n) {
        int k = 0;
        for (int m = n; m > 1 && m % 10 == 0; m /= 10) k++;
        return n == (int) Math.pow(10, k) && k > 1 ? "10^" + k : Integer.toString(n);
    }

    /** Counts the lines of text the kernel sends. */
    private static final class LineCounter extends EngineCallBacksDefault {
        long lines;

        @Override
        public void textCallBack(Object data, int tag, String output) {
            lines++;
        }
    }

    public static void main(String[] args) throws Exception {
        Sizes s = FULL;
        boolean fallback = false;
        boolean valuesOnly = false;
        boolean poolOnly = false;
        boolean poolChild = false;
        boolean markOnly = false;
        boolean hostsOnly = false;
        for (String a : args) {
            switch (a) {
                case "--smoke" -> s = SMOKE;
                case "--fallback" -> fallback = true;
                case "--values" -> valuesOnly = true;
                case "--pool" -> poolOnly = true;
                case "--pool-child" -> poolChild = true;
                case "--mark" -> markOnly = true;
                case "--hosts" -> hostsOnly = true;
                default -> {
                    System.err.println("usage: Bench [--smoke] [--fallback] [--values] [--pool] [--pool-child] [--mark] [--hosts]");
                    System.exit(2);
                }
            }
        }
        LineCounter counter = new LineCounter();
        Engine engine = new Engine(new String[] {"-q"}, counter, null);
        if (fallback) {
            section("bulk without VexelRTableData, in a child JVM (kernel " + loadedKernel() + ")");
            bulk(engine, s, Target.NONE, Target.ratioAtLeast(20));
            engine.stop();
            return;
        }
        if (poolChild) {
            PoolBench.run(engine, s == SMOKE);
            engine.stop();
            return;
        }
        if (hostsOnly) {
            header();
            HostsBench.run();
            engine.stop();
            return;
        }
        if (valuesOnly || poolOnly || markOnly) {
            header();
            if (markOnly) markPass(engine, s);
            if (valuesOnly) valueNatives(engine, s);
            if (poolOnly) PoolBench.run(engine, s == SMOKE);
            engine.stop();
            return;
        }
        System.out.printf(Locale.ROOT, "ambrix benchmark: median of %d rounds after %d warm-up rounds%s; kernel %s%n",
                s.rounds(), s.warmups(), s == SMOKE ? " (smoke sizes: the figures mean nothing)" : "",
                loadedKernel());
        header();
        // The mark pass first: the kernel's own collection then has the
        // fewest cells to sweep, which keeps its time with no wrappers small.
        markPass(engine, s);
        valueNatives(engine, s);
        callbacks(engine, s, counter);
        section("bulk: a " + count(s.elements()) + "-element float[8] table to and from a double[]");
        bulk(engine, s, Target.ratioAtMost(5), Target.ratioAtLeast(100));
        conversions(engine, s);
        engine.stop();
        System.out.flush();
        // The pool in a JVM of its own: the wrappers and weak keys the parts
        // above leave to the collector would add their pauses to its round trips.
        int status = runChild("--pool-child", null, args);
        status |= runFallback(args);
        System.exit(status);
    }

    private static void valueNatives(Engine engine, Sizes s) {
        section("value natives, against the floor of two field reads and a monitor enter/exit");
        Floor floor = new Floor(1, 2);
        double empty = perOp(s, s.calls(), n -> {
            for (int i = 0; i < n; i++) Floor.empty();
            return n;
        });
        double monitor = perOp(s, s.calls(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += floor.fieldsInMonitor();
            return sum;
        });
        floorRow("empty native", empty, "ns/call");
        floorRow("two long fields + monitor enter/exit", monitor, "ns/call");

        Numeric num = engine.newNumeric(42L);
        List list = (List) engine.evaluate("[1, 2, 3]:");
        DoubleRTable table = (DoubleRTable) engine.evaluate("Array(1..100, datatype = float[8], fill = 1.5):");
        int[] index = {1};
        Target plain = Target.ratioAtMost(2.5);
        row("Numeric.longValue", perOp(s, s.calls(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += num.longValue();
            return sum;
        }), "ns/call", monitor, plain);
        row("Numeric.isInteger", perOp(s, s.calls(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += num.isInteger() ? 1 : 0;
            return sum;
        }), "ns/call", monitor, plain);
        row("DoubleRTable.select", perOp(s, s.calls(), n -> {
            double sum = 0;
            for (int i = 0; i < n; i++) {
                index[0] = 1 + i % 100;
                sum += table.select(index);
            }
            return (long) sum;
        }), "ns/call", monitor, plain);
        row("Algebraic.toString", perOp(s, s.calls(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += num.toString().length();
            return sum;
        }), "ns/call", monitor, Target.NONE);
        // What any new wrapper costs in Java alone: the live store is a weak
        // map, and each wrapper is one more weak key in it.
        WeakHashMap<Object, Object> weak = new WeakHashMap<>();
        double weakPut = perOp(s, s.calls(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) {
                Key key = new Key(i);
                synchronized (weak) {
                    weak.put(key, null);
                }
                sum += key.value;
            }
            return sum;
        });
        floorRow("a new key into a synchronized WeakHashMap", weakPut, "ns/call");
        // What any new wrapper must cost: the native's field reads under the
        // monitor, and the new weak key.
        double wrapperFloor = monitor + weakPut;
        floorRow("the two floors above together", wrapperFloor, "ns/call");
        Target wrapping = Target.ratioAtMost(1.5);
        row("List.select (new wrapper)", perOp(s, s.calls(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += list.select(2) != null ? 1 : 0;
            return sum;
        }), "ns/call", wrapperFloor, wrapping);
        row("Engine.newNumeric (new wrapper)", perOp(s, s.calls(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += engine.newNumeric((long) i) != null ? 1 : 0;
            return sum;
        }), "ns/call", wrapperFloor, wrapping);
    }

    private static void callbacks(Engine engine, Sizes s, LineCounter counter) {
        section("text callback: print(i) in a kernel loop, against an upcall with a new string");
        double floor = perOp(s, s.lines(), n -> {
            counter.lines = 0;
            Floor.upcalls(counter, n);
            return counter.lines;
        });
        double perLine = perOp(s, s.lines(), n -> {
            counter.lines = 0;
            engine.evaluate("for i to " + n + " do print(i) end do:");
            if (counter.lines != n) throw new IllegalStateException(counter.lines + " lines instead of " + n);
            return counter.lines;
        });
        double loopAlone = perOp(s, s.lines(), n -> {
            engine.evaluate("for i to " + n + " do end do:");
            return n;
        });
        row(String.format(Locale.ROOT, "text callback (%.0f lines/s)", 1e9 / perLine), perLine, "ns/line", floor,
                Target.NONE);
        row("the kernel loop alone, without print", loopAlone, "ns/iter", Double.NaN, Target.NONE);
    }

    /** A key of the Java loop that the mark pass is set against. */
    private static final class Key {
        final long value;

        Key(long value) {
            this.value = value;
        }
    }

    private static void markPass(Engine engine, Sizes s) throws InterruptedException {
        section("mark pass: gc() with N live wrappers minus gc() with none, against a Java loop over a"
                + " WeakHashMap of N keys");
        Loop gc = n -> {
            for (int i = 0; i < n; i++) engine.evaluate("gc():");
            return n;
        };
        double[] perWrapper = new double[s.wrappers().length];
        double[] perEntry = new double[s.wrappers().length];
        for (int k = 0; k < perWrapper.length; k++) {
            int size = s.wrappers()[k];
            perWrapper[k] = passPerWrapper(engine, s, size, gc);

            WeakHashMap<Key, Boolean> map = new WeakHashMap<>();
            Key[] keys = new Key[size];
            for (int i = 0; i < size; i++) {
                keys[i] = new Key(i);
                map.put(keys[i], Boolean.TRUE);
            }
            perEntry[k] = perOp(s, Math.max(3, 1_000_000 / size), n -> {
                long sum = 0;
                for (int pass = 0; pass < n; pass++) {
                    for (Key key : map.keySet()) sum += key.value;
                }
                return sum;
            }) / size;
            Reference.reachabilityFence(keys);
            row("mark pass, " + count(size) + " wrappers", perWrapper[k], "ns/wrapper", perEntry[k],
                    size >= 100_000 ? Target.ratioAtMost(2) : Target.NONE);
        }
        // Each step in size beside the Java loop's own step: a pass that
        // turns slower at some size shows here as a step the loop lacks.
        for (int k = 1; k < perWrapper.length; k++) {
            row("per-wrapper step " + count(s.wrappers()[k - 1]) + " -> " + count(s.wrappers()[k]),
                    perWrapper[k] / perWrapper[k - 1], "times", perEntry[k] / perEntry[k - 1], Target.NONE);
        }
        int last = perWrapper.length - 1;
        // The same passes once the store has held many more wrappers, all
        // dead since (a loop over a large list leaves such a burst): the
        // pass has to cost what the live wrappers cost, not what the store
        // once held. Against the walk of a map that only ever held N keys.
        int burst = 2 * s.wrappers()[last];
        Algebraic[] many = new Algebraic[burst];
        for (int i = 0; i < burst; i++) many[i] = engine.newNumeric((long) i);
        Reference.reachabilityFence(many);
        many = null;
        for (int k = 1; k < perWrapper.length; k++) {
            int size = s.wrappers()[k];
            row("mark pass, " + count(size) + " wrappers, 2x" + count(burst / 2) + " dead first",
                    passPerWrapper(engine, s, size, gc), "ns/wrapper", perEntry[k], Target.ratioAtMost(2));
        }
        dropGarbage(engine);

        // Wrappers of values that live in cells: the kernel visits a cell for
        // each handle the pass marks. Against the same values kept alive by a
        // kernel list instead, which the kernel marks itself.
        int size = s.wrappers()[last];
        int gcs = Math.max(3, 1_000_000 / size);
        engine.evaluate("benchFloats := [seq(i + 0.5, i = 1.." + size + ")]:");
        double byKernel = perOp(s, gcs, gc);
        Algebraic[] held = ((List) engine.evaluate("benchFloats:")).toArray();
        engine.evaluate("benchFloats := 0:");
        double byWrappers = perOp(s, gcs, gc);
        Reference.reachabilityFence(held);
        held = null;
        row("mark pass, " + count(size) + " wrappers of floats", (byWrappers - byKernel) / size, "ns/wrapper",
                perEntry[last], Target.NONE);
        dropGarbage(engine);
    }

    /** gc() with this many new live wrappers minus gc() with none, per wrapper. */
    private static double passPerWrapper(Engine engine, Sizes s, int size, Loop gc) throws InterruptedException {
        int gcs = Math.min(100, Math.max(3, 1_000_000 / size));  // small differences want more collections
        dropGarbage(engine);
        double none = perOp(s, gcs, gc);
        Algebraic[] held = new Algebraic[size];
        for (int i = 0; i < size; i++) held[i] = engine.newNumeric((long) i);
        double with = perOp(s, gcs, gc);
        Reference.reachabilityFence(held);
        return (with - none) / size;
    }

    /** Lets the JVM clear dropped wrappers, and the engine's store forget them. */
    private static void dropGarbage(Engine engine) throws InterruptedException {
        for (int i = 0; i < 2; i++) {
            System.gc();
            Thread.sleep(50);
        }
        engine.newNumeric(0L);  // the store drops cleared entries when it is next touched
        engine.evaluate("gc():");
    }

    /**
     * A float[8] table to and from a double[]: the bulk calls against
     * System.arraycopy of the same bytes, and the element loops against the
     * bulk calls (the loops run on fewer elements and are scaled up).
     */
    private static void bulk(Engine engine, Sizes s, Target bulkTarget, Target speedUp) {
        int m = s.elements();
        DoubleRTable table = (DoubleRTable) engine.evaluate("Array(1.." + m + ", datatype = float[8]):");
        double[] src = new double[m];
        for (int i = 0; i < m; i++) src[i] = i * 0.25;
        double[] dst = new double[m];
        double copy = perOp(s, s.transfers(), n -> {
            for (int i = 0; i < n; i++) System.arraycopy(src, 0, dst, 0, m);
            return (long) dst[m - 1];
        }) / 1000;
        double copyNew = perOp(s, s.transfers(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) {
                double[] fresh = new double[m];
                System.arraycopy(src, 0, fresh, 0, m);
                sum += fresh.length;
            }
            return sum;
        }) / 1000;
        double assignAll = perOp(s, s.transfers(), n -> {
            for (int i = 0; i < n; i++) table.assignAll(src);
            return n;
        }) / 1000;
        double toArray = perOp(s, s.transfers(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += table.toArray().length;
            return sum;
        }) / 1000;
        if (!Double.isNaN(toArray) && !Double.isNaN(assignAll) && !Arrays.equals(table.toArray(), src)) {
            throw new IllegalStateException("toArray does not give back what assignAll stored");
        }
        int k = Math.min(s.loopElements(), m);
        int[] index = {1};
        double selectLoop = perOp(s, k, n -> {
            double sum = 0;
            for (int i = 0; i < n; i++) {
                index[0] = 1 + i % m;
                sum += table.select(index);
            }
            return (long) sum;
        }) * m / 1000;
        double assignLoop = perOp(s, k, n -> {
            for (int i = 0; i < n; i++) {
                index[0] = 1 + i % m;
                table.assign(index, src[i % m]);
            }
            return n;
        }) * m / 1000;
        floorRow("System.arraycopy of " + count(m) + " doubles", copy, "us");
        floorRow("System.arraycopy into a new double[]", copyNew, "us");
        // toArray makes a new array, so its floor is the copy into a new one.
        row("DoubleRTable.toArray", toArray, "us", copyNew, bulkTarget);
        row("DoubleRTable.assignAll", assignAll, "us", copy, bulkTarget);
        String scaled = k < m ? " (scaled)" : "";
        row("select loop" + scaled + " / toArray", selectLoop, "us", toArray, speedUp);
        row("assign loop" + scaled + " / assignAll", assignLoop, "us", assignAll, speedUp);
    }

    /**
     * Engine.toKernel and Algebraic.toJava against the calls they are built
     * on: a double[] against making the table and assignAll, its table back
     * against toArray, and a List<Long>, per element, against one newNumeric.
     */
    private static void conversions(Engine engine, Sizes s) {
        int m = s.elements();
        section("conversions: a " + count(m) + "-element double[] and a " + count(s.loopElements())
                + "-element List<Long>, against the calls they are built on");
        double[] src = new double[m];
        for (int i = 0; i < m; i++) src[i] = i * 0.5;
        double bulkIn = perOp(s, s.transfers(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) {
                DoubleRTable t = (DoubleRTable) engine.evaluate("Array(1.." + m + ", datatype = float[8]):");
                t.assignAll(src);
                sum += t.hashCode();
            }
            return sum;
        }) / 1000;
        double toKernel = perOp(s, s.transfers(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += engine.toKernel(src).hashCode();
            return sum;
        }) / 1000;
        Algebraic table = engine.toKernel(src);
        double bulkOut = perOp(s, s.transfers(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += ((DoubleRTable) table).toArray().length;
            return sum;
        }) / 1000;
        double toJava = perOp(s, s.transfers(), n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += ((double[]) table.toJava()).length;
            return sum;
        }) / 1000;
        int k = s.loopElements();
        java.util.List<Long> longs = new java.util.ArrayList<>(k);
        for (long i = 0; i < k; i++) longs.add(i * 1_000_003L);
        double newNumeric = perOp(s, k, n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += engine.newNumeric((long) i).hashCode();
            return sum;
        });
        double listIn = perOp(s, 1, n -> {
            long sum = 0;
            for (int i = 0; i < n; i++) sum += engine.toKernel(longs).hashCode();
            return sum;
        }) / k;
        Target close = Target.ratioAtMost(1.5);
        row("Engine.toKernel(double[])", toKernel, "us", bulkIn, close);
        row("Algebraic.toJava() of that table", toJava, "us", bulkOut, close);
        row("Engine.toKernel(List<Long>), per element", listIn, "ns/elt", newNumeric, Target.ratioAtMost(2));
    }

    /** The kernel library this process loaded, from the memory map. */
    private static String loadedKernel() {
        try {
            for (String line : Files.readAllLines(Path.of("/proc/self/maps"))) {
                int at = line.indexOf('/');
                if (at >= 0 && line.endsWith("/libvexelc.so")) return line.substring(at);
            }
        } catch (IOException e) {
            return "unknown (" + e.getMessage() + ")";
        }
        return "unknown";
    }

    /**
     * Runs the bulk part again in a child JVM whose library and kernel come
     * from the folder of the kernel without VexelRTableData; its rows follow
     * this run's. Returns the exit status for the whole run.
     */
    private static int runFallback(String[] args) throws IOException, InterruptedException {
        String nodata = System.getProperty("ambrix.bench.nodata");
        if (nodata == null || !Files.isRegularFile(Path.of(nodata, "libvexelc.so"))) {
            section("bulk transfer without VexelRTableData: n/a (set ambrix.bench.nodata to the lib-nodata folder)");
            return 0;
        }
        return runChild("--fallback", nodata, args);
    }

    /**
     * Runs one part of the benchmark in a child JVM with this one's options,
     * on the libraries of `folder` (null: this JVM's), its output joined to
     * this one's.
     */
    private static int runChild(String mode, String folder, String[] args) throws IOException, InterruptedException {
        java.util.List<String> command = new ArrayList<>();
        command.add(Path.of(System.getProperty("java.home"), "bin", "java").toString());
        for (String option : ManagementFactory.getRuntimeMXBean().getInputArguments()) {
            boolean libraryPath = option.startsWith("-Djava.library.path=") || option.startsWith("-Dambrix.library.path=");
            // The pool's JVM keeps the default heap, as a program that uses a pool would. With the
            // large pre-touched one, each round trip's few objects land in memory the caches do not
            // hold, and its round trips (and the worker's evaluation beside them) measured slower.
            boolean fixedHeap = option.startsWith("-Xms") || option.startsWith("-Xmx")
                    || option.equals("-XX:+AlwaysPreTouch");
            if (!(folder != null && libraryPath) && !(mode.equals("--pool-child") && fixedHeap)) {
                command.add(option);
            }
        }
        if (folder != null) {
            command.add("-Djava.library.path=" + folder);
            command.add("-Dambrix.library.path=" + folder);
        }
        command.add("-cp");
        command.add(System.getProperty("java.class.path"));
        command.add(Bench.class.getName());
        command.add(mode);
        command.addAll(Arrays.asList(args));
        Process child = new ProcessBuilder(command).inheritIO().start();
        int status = child.waitFor();
        if (status != 0) System.out.println("the part " + mode + " failed: exit status " + status);
        return status;
    }
}
