package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonObject;
import com.quorbit.ambrix.Algebraic;
import com.quorbit.ambrix.Engine;
import com.quorbit.ambrix.Procedure;
import com.quorbit.ambrix.RTable;
import com.quorbit.externalcall.VexelException;
import java.io.ByteArrayOutputStream;
import java.io.StringReader;
import java.util.Base64;
import org.apache.batik.transcoder.TranscoderException;
import org.apache.batik.transcoder.TranscoderInput;
import org.apache.batik.transcoder.TranscoderOutput;
import org.apache.batik.transcoder.image.PNGTranscoder;

/**
 * How values look in a notebook: display data as plain text, with LaTeX
 * when values are typeset, a plot as an SVG picture and a PNG image (drawn
 * by Batik), and a help page as text and HTML.
 */
final class Display {
    /** Rectangular tables with more entries than this stay plain. */
    static final int TYPESET_MAX_ENTRIES = 400;

    private final Engine engine;
    /** Whether shown values go out as text/latex too; "%display plain" turns it off. */
    private volatile boolean typeset = true;
    /**
     * The procedure that asks the kernel for a value's LaTeX: held here, never
     * assigned to a name, so the user's names stay as they are.
     */
    private Procedure latexProcedure;

    Display(Engine engine) {
        this.engine = engine;
    }

    void typeset(boolean on) {
        typeset = on;
    }

    /**
     * A value's display data: its printed form, and its LaTeX when values are
     * typeset and the kernel gives it. A kernel without latex, or one that
     * fails on the value, leaves the text alone. Null for a value that prints
     * as nothing (NULL).
     */
    JsonObject value(Algebraic value) {
        String text = value.toString();
        if (text.isEmpty()) {
            return null;
        }
        JsonObject data = plain(text);
        if (!typeset || tooLargeToTypeset(value)) {
            return data;
        }
        for (int attempt = 0; attempt < 2; attempt++) {
            try {
                if (latexOf(value) instanceof String latex && !latex.isEmpty()) {
                    data.addProperty("text/latex", "$\\displaystyle " + latex + "$");
                }
                break;
            } catch (VexelException e) {
                // A restart statement disposed the procedure: made again once; otherwise plain text alone.
                latexProcedure = null;
            }
        }
        return data;
    }

    private Object latexOf(Algebraic value) {
        if (latexProcedure == null) {
            latexProcedure = (Procedure) engine.evaluate("proc(e) latex(e) end proc:");
        }
        Algebraic latex = latexProcedure.execute(new Algebraic[] {value});
        return latex == null ? null : latex.toJava();
    }

    private static boolean tooLargeToTypeset(Algebraic value) {
        try {
            return value instanceof RTable t && t.numElements() > TYPESET_MAX_ENTRIES;
        } catch (VexelException e) {
            return true;
        }
    }

    static JsonObject plain(String text) {
        JsonObject data = new JsonObject();
        data.addProperty("text/plain", text);
        return data;
    }

    /**
     * A plot: its SVG picture; the same drawn as a PNG image, which an
     * untrusted notebook shows where it does not render SVG; that image as
     * HTML too, which nbconvert's HTML prefers to SVG (it strips an SVG's
     * elements); and a line of text for consoles.
     */
    static JsonObject plot(String svg) {
        JsonObject data = new JsonObject();
        data.addProperty("image/svg+xml", svg);
        String png = png(svg);
        if (png != null) {
            data.addProperty("image/png", png);
            data.addProperty("text/html", "<img src=\"data:image/png;base64," + png + "\" alt=\"plot\">");
        }
        data.addProperty("text/plain", "<plot>");
        return data;
    }

    /** The SVG picture as a PNG image at its own size, base64-encoded; null when it cannot be drawn. */
    static String png(String svg) {
        try {
            ByteArrayOutputStream out = new ByteArrayOutputStream();
            new PNGTranscoder().transcode(new TranscoderInput(new StringReader(svg)), new TranscoderOutput(out));
            return Base64.getEncoder().encodeToString(out.toByteArray());
        } catch (TranscoderException | RuntimeException | LinkageError e) {
            System.err.println("vexel kernel: a plot could not be drawn as PNG: " + e);
            return null;
        }
    }

    /**
     * A help page as display data: the plain text for consoles, and HTML for
     * notebooks, with the page's sections as headings and its "See Also"
     * entries as links that run ?entry.
     */
    static JsonObject help(String text) {
        JsonObject data = plain(text);
        StringBuilder html = new StringBuilder("<div class=\"vexel-help\">");
        for (String block : text.strip().split("\n\\s*\n")) {
            String[] lines = block.split("\n", 2);
            String heading = lines[0].strip();
            String body = lines.length > 1 ? lines[1].strip() : "";
            html.append("<h4>").append(html(heading)).append("</h4>");
            if (heading.equals("See Also")) {
                html.append("<p>");
                String[] entries = body.split("[,\\s]+");
                for (int i = 0; i < entries.length; i++) {
                    if (entries[i].isEmpty()) {
                        continue;
                    }
                    String run = "?" + entries[i];
                    html.append(i > 0 ? ", " : "").append("<a href=\"#\" title=\"run ").append(html(run))
                            .append("\" onclick=\"var nb = window.Jupyter && Jupyter.notebook; if (nb) {"
                                    + " var c = nb.insert_cell_below('code'); c.set_text('").append(html(run))
                            .append("'); c.execute(); } return false;\"><code>").append(html(entries[i]))
                            .append("</code></a>");
                }
                html.append("</p>");
            } else if (heading.equals("Description")) {
                html.append("<p>").append(html(body).replace("\n", " ")).append("</p>");
            } else {
                html.append("<pre>").append(html(body)).append("</pre>");
            }
        }
        data.addProperty("text/html", html.append("</div>").toString());
        return data;
    }

    private static String html(String s) {
        return s.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;").replace("\"", "&quot;")
                .replace("'", "&#39;");
    }
}
