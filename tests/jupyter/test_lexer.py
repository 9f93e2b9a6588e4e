"""The Pygments lexer for Vexel, found by name through its installed entry point."""
import unittest

from pygments import lex
from pygments.lexers import get_lexer_by_name, get_lexer_for_filename
from pygments.token import Keyword, Name, Number, Operator, Punctuation, String


class VexelLexerTests(unittest.TestCase):
    def test_found_by_name_and_by_file_name(self):
        self.assertEqual(get_lexer_by_name("vexel").name, "Vexel")
        self.assertEqual(get_lexer_for_filename("tour.vx").name, "Vexel")

    def test_tokens(self):
        cases = [
            ("f := proc(x) x^2 end proc:", [("f", Name), (":=", Operator), ("proc", Keyword), ("x", Name),
                                            ("x", Name), ("^", Operator), ("2", Number), ("end", Keyword),
                                            ("proc", Keyword)]),
            ("plot(x, x = 0..1);", [("plot", Name.Builtin), ("x", Name), ("x", Name), ("=", Operator),
                                     ("0", Number), ("..", Operator), ("1", Number)]),
            ('print("a\\"b");', [("print", Name.Builtin), ('"', String.Double), ("a", String.Double),
                                  ('\\"', String.Escape), ("b", String.Double), ('"', String.Double)]),
        ]
        lexer = get_lexer_by_name("vexel")
        for code, expected in cases:
            got = [(v, t) for t, v in lex(code, lexer) if v.strip() and t is not Punctuation]
            self.assertEqual(got, expected, code)


if __name__ == "__main__":
    unittest.main()
