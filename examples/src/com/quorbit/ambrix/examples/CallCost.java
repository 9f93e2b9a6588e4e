package com.quorbit.ambrix.examples;

import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.DoubleRTable;
import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.EngineCallBacksDefault;
import com.quorbit.ambrix.List;
import com.quorbit.ambrix.Numeric;
import com.quorbit.ambrix.VString;
import java.util.function.IntConsumer;

/**
 * Measures what one call through the library costs, per kind of call:
 * the lock, the JNI frame, the wrapper and the kernel's own work together.
 * A benchmark, not a test: it prints nanoseconds per call and asserts
 * nothing. Run it after a build:
 *
 * <pre>
 * java -Djava.library.path=build/lib -cp build/java/ambrix.jar:build/java/examples.jar \
 *     com.quorbit.ambrix.examples.CallCost
 * </pre>
 */
public final class CallCost {
    private CallCost() {}

    private static void measure(String what, int calls, IntConsumer call) {
        for (int i = 0; i < calls / 10; i++) call.accept(i);  // warm up
        long start = System.nanoTime();
        for (int i = 0; i < calls; i++) call.accept(i);
        double perCall = (System.nanoTime() - start) / (double) calls;
        System.out.printf("%-40s %10.0f ns/call%n", what, perCall);
    }

    public static void main(String[] args) {
        Engine engine = new Engine(new String[] {"-q"}, new EngineCallBacksDefault(), null);
        Numeric n = engine.newNumeric(42L);
        VString s = engine.newVString("a kernel string of some length");
        List list = (List) engine.evaluate("[1, 2, 3]:");
        DoubleRTable table = (DoubleRTable) engine.evaluate("Array(1..100, datatype = float[8]):");
        int[] index = {1};
        Algebraic[] keep = new Algebraic[1];

        measure("Numeric.longValue", 200_000, i -> n.longValue());
        measure("Numeric.isInteger", 200_000, i -> n.isInteger());
        measure("Algebraic.toString", 100_000, i -> n.toString());
        measure("VString.stringValue", 100_000, i -> s.stringValue());
        measure("List.select (new wrapper)", 100_000, i -> keep[0] = list.select(2));
        measure("Engine.newNumeric (new value)", 100_000, i -> keep[0] = engine.newNumeric((long) i));
        measure("DoubleRTable.assign", 100_000, i -> {
            index[0] = 1 + i % 100;
            table.assign(index, i);
        });
        measure("DoubleRTable.select", 100_000, i -> table.select(index));
        measure("Engine.evaluate(\"1+1:\")", 50_000, i -> engine.evaluate("1+1:"));
        engine.stop();
    }
}
