"""Pygments lexer for Vexel, for jupyter console and nbconvert. The kernel's
language_info names it ("pygments_lexer": "vexel"); Pygments finds it through
the entry point that the installed vexel_pygments distribution declares."""
from pygments.lexer import RegexLexer, bygroups, words
from pygments.token import Comment, Keyword, Name, Number, Operator, Punctuation, String, Text, Whitespace

__all__ = ["VexelLexer"]


class VexelLexer(RegexLexer):
    name = "Vexel"
    aliases = ["vexel"]
    filenames = ["*.vx"]
    mimetypes = ["text/x-vexel"]

    tokens = {
        "root": [
            (r"\s+", Whitespace),
            (r"#.*?$", Comment.Single),
            (r"^\s*\?+.*?$", Comment.Special),
            (r'"', String.Double, "string"),
            (words(("if", "then", "elif", "else", "end", "fi", "for", "from", "to", "by", "while", "do", "od",
                    "proc", "local", "global", "return", "and", "or", "not", "in", "break", "next", "option",
                    "options", "description", "error"), suffix=r"\b"), Keyword),
            (words(("true", "false", "NULL", "FAIL", "infinity", "Pi", "I"), suffix=r"\b"), Keyword.Constant),
            (words(("print", "lprint", "WARNING", "evalf", "evalhf", "eval", "evalb", "nops", "op", "seq",
                    "table", "Array", "Vector", "Matrix", "gc", "kernelopts", "kernelargs", "readline",
                    "writeto", "appendto", "streamcall", "callback", "interrupted", "status", "latex", "plot",
                    "knownnames", "whattype", "sqrt", "abs", "sin", "cos", "tan", "exp", "ln", "log"),
                   suffix=r"\b"), Name.Builtin),
            (r"(\d+(\.(?!\.)\d*)?|\.\d+)([eE][+-]?\d+)?", Number),  # 0..1 is a range
            (r"`[^`]*`", Name.Variable),
            (r"[A-Za-z_][A-Za-z0-9_]*", Name),
            (r":=|->|\.\.|<>|<=|>=|[-+*/^=<>@$!]", Operator),
            (r"[;:,()\[\]{}]", Punctuation),
            (r".", Text),
        ],
        "string": [
            (r'\\.', String.Escape),
            (r'"', String.Double, "#pop"),
            (r'[^"\\]+', String.Double),
        ],
    }
