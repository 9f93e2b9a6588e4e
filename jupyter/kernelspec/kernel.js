// Vexel in the classic notebook: a CodeMirror mode, "vexel", that the
// kernel's language_info names, so cells are highlighted as they are typed.
define(["codemirror/lib/codemirror"], function (CodeMirror) {
  "use strict";

  var keywords = words("if then elif else end fi for from to by while do od proc local global return " +
    "and or not in break next option options description error");
  var atoms = words("true false NULL FAIL infinity Pi I");
  var builtins = words("print lprint WARNING evalf evalhf eval evalb nops op seq table Array Vector Matrix gc " +
    "kernelopts kernelargs readline writeto appendto streamcall callback interrupted status latex plot " +
    "knownnames whattype sqrt abs sin cos tan exp ln log");

  function words(text) {
    var set = {};
    text.split(" ").forEach(function (w) { set[w] = true; });
    return set;
  }

  function token(stream, state) {
    if (state.inString) {
      while (!stream.eol()) {
        var ch = stream.next();
        if (ch === "\\") { stream.next(); continue; }
        if (ch === "\"") { state.inString = false; break; }
      }
      return "string";
    }
    if (stream.eatSpace()) return null;
    if (stream.match("#")) { stream.skipToEnd(); return "comment"; }
    if (stream.eat("\"")) { state.inString = true; return token(stream, state); }
    // A point followed by another is a range (0..1), not a decimal point.
    if (stream.match(/^(\d+(\.(?!\.)\d*)?|\.\d+)([eE][+-]?\d+)?/)) return "number";
    if (stream.match(/^`[^`]*`/)) return "variable-2";
    if (stream.match(/^[A-Za-z_][A-Za-z0-9_]*/)) {
      var w = stream.current();
      if (keywords.hasOwnProperty(w)) return "keyword";
      if (atoms.hasOwnProperty(w)) return "atom";
      if (builtins.hasOwnProperty(w)) return "builtin";
      return "variable";
    }
    if (stream.match(/^(:=|->|\.\.|<>|<=|>=|[-+*\/^=<>@$!])/)) return "operator";
    if (stream.match(/^[;:]/)) return "punctuation";
    if (stream.match(/^\?+/)) { stream.skipToEnd(); return "meta"; }
    stream.next();
    return null;
  }

  function defineVexel() {
    if (CodeMirror.modes && CodeMirror.modes.vexel) return;
    CodeMirror.defineMode("vexel", function () {
      return {
        startState: function () { return { inString: false }; },
        token: token,
        lineComment: "#"
      };
    });
    CodeMirror.defineMIME("text/x-vexel", "vexel");
  }

  // Defined at once, so that the mode exists before the notebook asks for it;
  // once loaded, the open notebook's cells take it without waiting for the kernel.
  defineVexel();
  return {
    onload: function () {
      defineVexel();
      var nb = typeof window !== "undefined" && window.Jupyter && window.Jupyter.notebook;
      if (nb && nb.set_codemirror_mode) nb.set_codemirror_mode("vexel");
    }
  };
});
