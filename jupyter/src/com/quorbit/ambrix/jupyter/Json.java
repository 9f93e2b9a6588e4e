package com.quorbit.ambrix.jupyter;

import com.google.gson.JsonArray;
import com.google.gson.JsonElement;
import com.google.gson.JsonObject;

/** A request's fields, read with their defaults, and the replies' common start. */
final class Json {
    private Json() {
    }

    static String string(JsonObject o, String name, String otherwise) {
        JsonElement e = o.get(name);
        return e == null || e.isJsonNull() ? otherwise : e.getAsString();
    }

    static boolean bool(JsonObject o, String name, boolean otherwise) {
        JsonElement e = o.get(name);
        return e == null || e.isJsonNull() ? otherwise : e.getAsBoolean();
    }

    static int integer(JsonObject o, String name, int otherwise) {
        JsonElement e = o.get(name);
        return e == null || e.isJsonNull() ? otherwise : e.getAsInt();
    }

    /** A reply's content with status "ok". */
    static JsonObject ok() {
        JsonObject c = new JsonObject();
        c.addProperty("status", "ok");
        return c;
    }

    /** An error reply's content, as the Python kernel gives it. */
    static JsonObject error(String name, String value) {
        JsonObject c = new JsonObject();
        c.addProperty("status", "error");
        c.addProperty("ename", name);
        c.addProperty("evalue", value);
        c.add("traceback", new JsonArray());
        return c;
    }
}
