package com.example.app;

import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.EngineCallBacksDefault;
import com.quorbit.ambrix.Numeric;
import com.quorbit.ambrix.pool.EnginePool;

/** Evaluates in the program's own kernel, then runs a task on a worker of a pool. */
public class App {
    public static void main(String[] args) {
        try (Engine engine = new Engine(new String[] {"-q"}, new EngineCallBacksDefault(), null)) {
            Numeric n = (Numeric) engine.evaluate("2^100:");
            System.out.println("in process: " + n.bigIntegerValue());
        }
        try (EnginePool pool = EnginePool.builder().workers(1).build()) {
            System.out.println("on a worker: " + pool.submit("6 * 7;").join().text());
        }
        System.out.println("ambrix " + Engine.class.getPackage().getImplementationVersion());
    }
}
