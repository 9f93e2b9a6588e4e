// The notebook's CodeMirror mode for Vexel (the kernelspec's kernel.js), run
// under Node with the few parts of CodeMirror it uses: each sample line must
// give the expected tokens.
// Usage: node codemirror_mode.js KERNEL_JS
"use strict";
const fs = require("fs");
const assert = require("assert");

const modes = {};
const mimes = {};
const CodeMirror = {
  modes,
  defineMode(name, factory) { modes[name] = factory(); },
  defineMIME(mime, mode) { mimes[mime] = mode; },
};
let exported;
global.define = (deps, factory) => {
  assert.deepStrictEqual(deps, ["codemirror/lib/codemirror"]);
  exported = factory(CodeMirror);
};
eval(fs.readFileSync(process.argv[2], "utf8"));
assert.strictEqual(typeof exported.onload, "function");
exported.onload();  // a second definition changes nothing
assert.strictEqual(mimes["text/x-vexel"], "vexel");

// CodeMirror's StringStream, as far as a mode uses it.
class Stream {
  constructor(s) { this.string = s; this.pos = 0; this.start = 0; }
  eol() { return this.pos >= this.string.length; }
  next() { return this.pos < this.string.length ? this.string.charAt(this.pos++) : undefined; }
  eat(ch) { if (this.string.charAt(this.pos) === ch) { this.pos++; return ch; } return undefined; }
  eatSpace() { const s = this.pos; while (/\s/.test(this.string.charAt(this.pos))) this.pos++; return this.pos > s; }
  skipToEnd() { this.pos = this.string.length; }
  current() { return this.string.slice(this.start, this.pos); }
  match(p) {
    if (typeof p === "string") {
      if (this.string.startsWith(p, this.pos)) { this.pos += p.length; return true; }
      return false;
    }
    const m = this.string.slice(this.pos).match(p);
    if (m && m.index === 0) { this.pos += m[0].length; return m; }
    return null;
  }
}

function tokens(line, state) {
  const mode = modes.vexel;
  state = state || mode.startState();
  const out = [];
  const stream = new Stream(line);
  while (!stream.eol()) {
    stream.start = stream.pos;
    const style = mode.token(stream, state);
    assert.ok(stream.pos > stream.start, "the mode made no progress in: " + line);
    if (style) out.push([stream.current(), style]);
  }
  return [out, state];
}

const cases = [
  ["f := proc(x) x^2 end proc:", [["f", "variable"], [":=", "operator"], ["proc", "keyword"], ["x", "variable"],
    ["x", "variable"], ["^", "operator"], ["2", "number"], ["end", "keyword"], ["proc", "keyword"], [":", "punctuation"]]],
  ['print("a \\"b\\"", 1.5e-3); # note', [["print", "builtin"], ['"a \\"b\\""', "string"], ["1.5e-3", "number"],
    [";", "punctuation"], ["# note", "comment"]]],
  ["plot(x, x = 0..1);", [["plot", "builtin"], ["x", "variable"], ["x", "variable"], ["=", "operator"],
    ["0", "number"], ["..", "operator"], ["1", "number"], [";", "punctuation"]]],
  ["if true then NULL fi;", [["if", "keyword"], ["true", "atom"], ["then", "keyword"], ["NULL", "atom"],
    ["fi", "keyword"], [";", "punctuation"]]],
];
for (const [line, expected] of cases) {
  assert.deepStrictEqual(tokens(line)[0], expected, line);
}
// A string that spans lines stays a string on the next.
const [first, state] = tokens('s := "open');
assert.deepStrictEqual(first[first.length - 1], ['"open', "string"]);
assert.deepStrictEqual(tokens('still" + 1;', state)[0][0], ['still"', "string"]);
console.log("ok: the CodeMirror mode");
