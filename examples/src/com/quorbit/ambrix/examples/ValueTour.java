/*
 * ValueTour: a walk through every value class of the ambrix Java API.
 *
 * It starts the Vexel kernel, then builds and reads one value of each kind:
 * numbers, complex numbers, names, strings, lists, expression sequences,
 * tables, procedures and rectangular tables of every element type, printing
 * each step. Read it from top to bottom as documentation by example.
 *
 * Running it (from the repository, after building into build/):
 *
 *     java -Djava.library.path=build/lib \
 *          -cp build/java/ambrix.jar:build/java/examples.jar \
 *          com.quorbit.ambrix.examples.ValueTour
 *
 * or, since examples.jar names its main class and ambrix.jar beside it:
 *
 *     java -Djava.library.path=build/lib -jar build/java/examples.jar
 *
 * Arguments are handed to the kernel as start options (for example -q, to
 * leave out the banner).
 */
package com.quorbit.ambrix.examples;

import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.AlgebraicRTable;
import com.quorbit.ambrix.ByteRTable;
import com.quorbit.ambrix.ComplexDoubleRTable;
import com.quorbit.ambrix.ComplexNumeric;
import com.quorbit.ambrix.ComplexNumericRTable;
import com.quorbit.ambrix.DoubleRTable;
import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.EngineCallBacksDefault;
import com.quorbit.ambrix.Expseq;
import com.quorbit.ambrix.FloatRTable;
import com.quorbit.ambrix.IntRTable;
import com.quorbit.ambrix.List;
import com.quorbit.ambrix.LongRTable;
import com.quorbit.ambrix.Name;
import com.quorbit.ambrix.Numeric;
import com.quorbit.ambrix.NumericRTable;
import com.quorbit.ambrix.Procedure;
import com.quorbit.ambrix.RTable;
import com.quorbit.ambrix.ShortRTable;
import com.quorbit.ambrix.Table;
import com.quorbit.ambrix.VString;
import com.quorbit.externalcall.VexelException;
import java.util.Arrays;

/** A tour of the value classes; see the comment at the top of the file. */
public final class ValueTour {
    private final Engine engine;

    private ValueTour(Engine engine) {
        this.engine = engine;
    }

    /**
     * Starts the kernel and takes the tour.
     *
     * @param args start options for the kernel
     */
    public static void main(String[] args) {
        // The default callbacks print the kernel's output on System.out and
        // turn a kernel error into a VexelException thrown by the call that
        // caused it.
        Engine engine = new Engine(args, new EngineCallBacksDefault(), null);
        try {
            ValueTour tour = new ValueTour(engine);
            tour.numbers();
            tour.complexNumbers();
            tour.namesAndStrings();
            tour.listsAndSequences();
            tour.tables();
            tour.procedures();
            tour.generalValues();
            tour.rectangularTables();
        } finally {
            engine.stop();
        }
    }

    /** Evaluates a statement. Ending it with ':' keeps the kernel from printing its value. */
    private <T extends Algebraic> T eval(String statement, Class<T> expected) {
        Algebraic value = engine.evaluate(statement);
        return expected.cast(value);
    }

    private static void section(String title) {
        System.out.println();
        System.out.println("== " + title);
    }

    private static void show(String what, Object value) {
        System.out.printf("  %-40s %s%n", what, value);
    }

    // ------------------------------------------------------------------

    private void numbers() {
        section("Numeric: integers of any size, rationals, floats");

        Numeric small = engine.newNumeric(42L);
        show("newNumeric(42L)", small);
        show("isInteger / isByte", small.isInteger() + " / " + small.isByte());
        show("byteValue / intValue", small.byteValue() + " / " + small.intValue());

        Numeric wide = engine.newNumeric(1L << 40);
        show("newNumeric(1L << 40)", wide);
        show("isShort / isInt / isLong", wide.isShort() + " / " + wide.isInt() + " / " + wide.isLong());
        show("longValue", wide.longValue());

        // Integers are exact and unbounded in the kernel; only the Java side has widths.
        Numeric huge = eval("2^100:", Numeric.class);
        show("evaluate(\"2^100:\")", huge);
        show("isInteger / isLong", huge.isInteger() + " / " + huge.isLong());
        try {
            huge.longValue();
        } catch (VexelException e) {
            show("longValue() of 2^100 fails", e.getMessage());
        }

        Numeric third = eval("1/3:", Numeric.class);
        show("evaluate(\"1/3:\")", third + ", as double " + third.doubleValue());

        Numeric real = engine.newNumeric(1.5);
        show("newNumeric(1.5)", real);
        show("doubleValue / floatValue", real.doubleValue() + " / " + real.floatValue());
        show("isInteger", real.isInteger());

        show("isUnnamedZero of 0 / of 42", engine.newNumeric(0L).isUnnamedZero() + " / " + small.isUnnamedZero());
    }

    private void complexNumbers() {
        section("ComplexNumeric");

        ComplexNumeric z = eval("2+3*I:", ComplexNumeric.class);
        show("evaluate(\"2+3*I:\")", z);
        show("realPart / imaginaryPart", z.realPart() + " / " + z.imaginaryPart());

        ComplexNumeric w = eval("1.5-2.0*I:", ComplexNumeric.class);
        Numeric im = (Numeric) w.imaginaryPart();
        show("imaginaryPart of 1.5-2.0*I", im.doubleValue());
    }

    private void namesAndStrings() {
        section("Name and VString");

        // A global name is the same name that statements use.
        Name x = engine.newName("x", true);
        show("newName(\"x\", true)", x);
        show("isAssigned", x.isAssigned());
        x.assign(engine.newNumeric(10L));
        show("after x.assign(10): isAssigned", x.isAssigned());
        show("evaluate(\"x + 1:\")", engine.evaluate("x + 1:"));
        show("x.eval()", x.eval());

        // A local name is a fresh name, unrelated to any other of the same text.
        Name local = engine.newName("x", false);
        show("newName(\"x\", false).isAssigned", local.isAssigned());

        VString s = engine.newVString("hello, world");
        show("newVString(...)", s);
        show("stringValue", s.stringValue());
        VString parsed = eval("\"typed in a statement\":", VString.class);
        show("evaluate(...).stringValue()", parsed.stringValue());
    }

    private void listsAndSequences() {
        section("List and Expseq: elements are numbered from 1");

        List list = engine.newList(3);
        for (int i = 1; i <= 3; i++) {
            list.assign(i, engine.newNumeric(i * 10L));
        }
        show("newList(3), assigned 10, 20, 30", list);
        show("length / select(2)", list.length() + " / " + list.select(2));

        List parsed = eval("[a, \"b\", 3.5]:", List.class);
        show("evaluate(\"[a, \\\"b\\\", 3.5]:\")", parsed);
        for (int i = 1; i <= parsed.length(); i++) {
            Algebraic e = parsed.select(i);
            show("  element " + i, e + "  (" + e.getClass().getSimpleName() + ")");
        }

        Expseq seq = engine.newExpseq(2);
        seq.assign(1, engine.newName("p", true));
        seq.assign(2, engine.newName("q", true));
        show("newExpseq(2), assigned p, q", seq);
        show("length / select(1)", seq.length() + " / " + seq.select(1));
    }

    private void tables() {
        section("Table: a map from values to values");

        Table t = engine.newTable();
        Name colour = engine.newName("colour", true);
        t.assign(colour, engine.newVString("blue"));
        t.assign(engine.newNumeric(7L), engine.newNumeric(49L));
        show("after two assigns", t);
        show("select(colour)", t.select(colour));
        show("has(7) / has(8)", t.has(engine.newNumeric(7L)) + " / " + t.has(engine.newNumeric(8L)));
        t.remove(colour);
        show("after remove(colour): has(colour)", t.has(colour));
        try {
            t.select(colour);
        } catch (VexelException e) {
            show("select of a missing key fails", e.getMessage());
        }
    }

    private void procedures() {
        section("Procedure");

        Procedure f = eval("proc(a, b) a^2 + b end proc:", Procedure.class);
        show("evaluate(\"proc(a, b) a^2 + b end proc:\")", f);

        Algebraic[] args = {engine.newNumeric(3L), engine.newNumeric(4L)};
        show("execute(Algebraic[] {3, 4})", f.execute(args));

        Expseq seq = engine.newExpseq(2);
        seq.assign(1, engine.newName("y", true));
        seq.assign(2, engine.newNumeric(1L));
        show("execute(Expseq y, 1)", f.execute(seq));

        Procedure g = eval("t -> 2*t + 1:", Procedure.class);
        show("evaluate(\"t -> 2*t + 1:\")", g);
        show("executehf(new double[] {2.5})", g.executehf(new double[] {2.5}));
    }

    private void generalValues() {
        section("Algebraic: values of no more specific kind, and kind tests");

        Algebraic sum = engine.evaluate("u + v:");
        show("evaluate(\"u + v:\")", sum + "  (" + sum.getClass().getSimpleName() + ")");
        Algebraic quoted = engine.evaluate("'w':");
        show("evaluate(\"'w':\").uneval()", quoted.uneval());
        show("evaluate(\"evalf(1/4):\").evalhf()", engine.evaluate("evalf(1/4):").evalhf());
        show("unique of a unique value is itself", sum.unique() == sum.unique().unique());
        show("isSet of {2, 1}", engine.evaluate("{2, 1}:").isSet());
        show("isPointer / isPointerNULL of pointer(0)",
                engine.evaluate("pointer(0):").isPointer() + " / " + engine.evaluate("pointer(0):").isPointerNULL());
        show("isStop of quit", engine.evaluate("quit:").isStop());
    }

    // ------------------------------------------------------------------

    private void rectangularTables() {
        section("Rectangular tables: one class per element type");

        DoubleRTable d = eval("Array(1..3, datatype = float[8]):", DoubleRTable.class);
        describe("Array(1..3, datatype = float[8])", d);
        d.assign(new int[] {2}, 2.5);
        show("assign([2], 2.5); select([2])", d.select(new int[] {2}));
        DoubleRTable dcopy = (DoubleRTable) d.copy();
        dcopy.assign(new int[] {2}, -1.0);
        show("copy() is independent", d.select(new int[] {2}) + " vs " + dcopy.select(new int[] {2}));

        FloatRTable f = eval("Array(1..3, datatype = float[4]):", FloatRTable.class);
        f.assign(new int[] {1}, 0.1f);
        show("float[4]: select([1])", f.select(new int[] {1}));

        LongRTable l = eval("Array(1..2, datatype = integer[8]):", LongRTable.class);
        l.assign(new int[] {1}, Long.MIN_VALUE);
        show("integer[8]: select([1])", l.select(new int[] {1}));

        IntRTable i = eval("Array(1..2, datatype = integer[4]):", IntRTable.class);
        i.assign(new int[] {2}, 123456789);
        show("integer[4]: select([2])", i.select(new int[] {2}));

        ShortRTable s = eval("Array(1..2, datatype = integer[2]):", ShortRTable.class);
        s.assign(new int[] {1}, (short) -300);
        show("integer[2]: select([1])", s.select(new int[] {1}));

        ByteRTable b = eval("Array(1..2, datatype = integer[1]):", ByteRTable.class);
        b.assign(new int[] {2}, (byte) -1);
        show("integer[1]: select([2])", b.select(new int[] {2}));

        // Two dimensions with their own bounds: index [row, column].
        AlgebraicRTable a = eval("Array(0..1, 1..2, datatype = anything):", AlgebraicRTable.class);
        describe("Array(0..1, 1..2, datatype = anything)", a);
        a.assign(new int[] {0, 2}, engine.evaluate("s^2 + 1:"));
        show("assign([0, 2], s^2 + 1); select", a.select(new int[] {0, 2}));

        NumericRTable n = eval("Array(1..2, datatype = sfloat):", NumericRTable.class);
        n.assign(new int[] {1}, engine.newNumeric(3.25));
        show("sfloat: select([1])", n.select(new int[] {1}));

        ComplexNumericRTable cn = eval("Array(1..2, datatype = complex(sfloat)):", ComplexNumericRTable.class);
        cn.assign(new int[] {1}, engine.evaluate("1.5+2.5*I:"));
        show("complex(sfloat): select([1])", cn.select(new int[] {1}));
        show("copyReal / copyImaginary", cn.copyReal() + " / " + cn.copyImaginary());

        ComplexDoubleRTable cd = eval("Array(1..2, datatype = complex[8]):", ComplexDoubleRTable.class);
        cd.assign(new int[] {2}, 1.0, -4.0);
        show("complex[8]: select([2])", Arrays.toString(cd.select(new int[] {2})));
        show("selectReal / selectImaginary",
                cd.selectReal(new int[] {2}) + " / " + cd.selectImaginary(new int[] {2}));
        show("copyImaginary().selectReal([2])", cd.copyImaginary().selectReal(new int[] {2}));

        // A data type without a class of its own comes back as a plain RTable.
        RTable tf = eval("Array(1..4, datatype = truefalse):", RTable.class);
        describe("Array(1..4, datatype = truefalse)", tf);
    }

    private static void describe(String made, RTable t) {
        StringBuilder bounds = new StringBuilder();
        for (int dim = 1; dim <= t.dimensions(); dim++) {
            bounds.append(dim > 1 ? ", " : "").append(t.lowerBound(dim)).append("..").append(t.upperBound(dim));
        }
        show(made, t.getClass().getSimpleName() + ", " + t.dimensions() + " dimension(s) " + bounds
                + ", " + t.numElements() + " elements");
    }
}
