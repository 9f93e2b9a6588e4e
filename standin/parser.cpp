// Lexer and recursive-descent parser of the stand-in's language.
#include "ast.hpp"
#include "core.hpp"

#include <cctype>
#include <cstring>

namespace vx {

static const char *const kKeywords[] = {"and",     "or",    "not",   "if",      "then",   "elif", "else",
                                        "fi",      "end",   "do",    "od",      "for",    "from", "to",
                                        "by",      "while", "in",    "proc",    "local",  "global",
                                        "return",  "break", "next",  "restart", "quit",   "done", "stop",
                                        "error",   "option", "options", "description"};

static bool keyword(const std::string &s) {
    for (const char *k : kKeywords)
        if (s == k) return true;
    return false;
}

static NodeP node(NT t, int64_t pos) {
    auto n = std::make_shared<Node>();
    n->t = t;
    n->pos = pos;
    return n;
}

static NodeP bin(BinOp op, NodeP a, NodeP b, int64_t pos) {
    auto n = node(NT::Bin, pos);
    n->op = op;
    n->kids = {std::move(a), std::move(b)};
    return n;
}

Parser::Parser(const std::string &src) : src_(src) {}

void Parser::nest_check(int64_t pos) {
    try {
        stack_check();
    } catch (VexelError &) {
        fail_at("syntax error: nested too deeply", pos);
    }
}

void Parser::skip_space() {
    while (i_ < src_.size()) {
        char c = src_[i_];
        if (c == '#') {
            while (i_ < src_.size() && src_[i_] != '\n') ++i_;
        } else if (std::isspace(static_cast<unsigned char>(c))) {
            ++i_;
        } else {
            break;
        }
    }
}

Parser::Tok Parser::lex() {
    skip_space();
    Tok t;
    t.pos = int64_t(i_);
    if (i_ >= src_.size()) return t;
    char c = src_[i_];
    auto digit = [&](size_t j) { return j < src_.size() && std::isdigit(static_cast<unsigned char>(src_[j])); };
    if (std::isdigit(static_cast<unsigned char>(c)) || (c == '.' && digit(i_ + 1))) {
        size_t j = i_;
        bool flt = false;
        while (digit(j)) ++j;
        if (j < src_.size() && src_[j] == '.' && !(j + 1 < src_.size() && src_[j + 1] == '.')) {
            flt = true;
            ++j;
            while (digit(j)) ++j;
        }
        if (j < src_.size() && (src_[j] == 'e' || src_[j] == 'E')) {
            size_t k = j + 1;
            if (k < src_.size() && (src_[k] == '+' || src_[k] == '-')) ++k;
            if (digit(k)) {
                flt = true;
                j = k;
                while (digit(j)) ++j;
            }
        }
        t.k = flt ? Tk::Float : Tk::Int;
        t.text = src_.substr(i_, j - i_);
        i_ = j;
        return t;
    }
    if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
        size_t j = i_;
        while (j < src_.size() && (std::isalnum(static_cast<unsigned char>(src_[j])) || src_[j] == '_')) ++j;
        t.k = Tk::Name;
        t.text = src_.substr(i_, j - i_);
        i_ = j;
        return t;
    }
    if (c == '"' || c == '`') {
        size_t j = i_ + 1;
        std::string s;
        while (j < src_.size() && src_[j] != c) {
            if (src_[j] == '\\' && c == '"' && j + 1 < src_.size()) {
                char e = src_[j + 1];
                s += e == 'n' ? '\n' : e == 't' ? '\t' : e;
                j += 2;
            } else {
                s += src_[j++];
            }
        }
        if (j >= src_.size())
            fail_at(c == '"' ? "syntax error: unterminated string" : "syntax error: unterminated name", t.pos);
        t.k = c == '"' ? Tk::Str : Tk::QName;
        t.text = s;
        i_ = j + 1;
        return t;
    }
    static const char *const two[] = {":=", "->", "..", "<>", "<=", ">=", "::"};
    for (const char *p : two) {
        if (src_.compare(i_, 2, p) == 0) {
            t.k = Tk::Punct;
            t.text = p;
            i_ += 2;
            return t;
        }
    }
    if (std::strchr(";:,()[]{}+-*/^=<>'", c)) {
        t.k = Tk::Punct;
        t.text = std::string(1, c);
        ++i_;
        return t;
    }
    fail_at(std::string("syntax error: unexpected character `") + c + "`", t.pos);
}

const Parser::Tok &Parser::peek() {
    if (!have_) {
        tok_ = lex();
        have_ = true;
    }
    return tok_;
}

Parser::Tok Parser::take() {
    peek();
    have_ = false;
    return tok_;
}

bool Parser::is_punct(const char *p) { return peek().k == Tk::Punct && peek().text == p; }
bool Parser::is_kw(const char *kw) { return peek().k == Tk::Name && peek().text == kw; }

bool Parser::accept_punct(const char *p) {
    if (!is_punct(p)) return false;
    take();
    return true;
}

bool Parser::accept_kw(const char *kw) {
    if (!is_kw(kw)) return false;
    take();
    return true;
}

void Parser::expect_punct(const char *p) {
    if (!accept_punct(p)) unexpected();
}

void Parser::expect_kw(const char *kw) {
    if (!accept_kw(kw)) unexpected();
}

void Parser::unexpected() {
    const Tok &t = peek();
    if (t.k == Tk::End) fail_at("syntax error: unexpected end of input", t.pos);
    std::string what = t.k == Tk::Str ? "\"" + t.text + "\"" : t.text;
    fail_at("syntax error: unexpected `" + what + "`", t.pos);
}

bool Parser::at_end() { return peek().k == Tk::End; }

bool Parser::at_block_end() {
    return peek().k == Tk::End || is_kw("end") || is_kw("fi") || is_kw("od") || is_kw("elif") || is_kw("else");
}

NodeP Parser::top_statement() {
    NodeP s = statement();
    if (is_punct(";") || is_punct(":")) {
        s->term = take().text[0];
    } else if (peek().k == Tk::End) {
        s->term = ';';
    } else {
        unexpected();
    }
    return s;
}

std::string Parser::name_token() {
    const Tok &t = peek();
    if (t.k == Tk::QName || (t.k == Tk::Name && !keyword(t.text))) return take().text;
    unexpected();
}

NodeP Parser::statement() {
    const Tok &t = peek();
    int64_t pos = t.pos;
    nest_check(pos);
    if (t.k == Tk::End || is_punct(";") || is_punct(":")) return node(NT::Empty, pos);
    if (t.k == Tk::Name) {
        if (accept_kw("if")) return if_stmt(pos);
        if (accept_kw("for")) return for_stmt(pos, true);
        if (is_kw("while") || is_kw("do")) return for_stmt(pos, false);
        if (accept_kw("return")) {
            auto n = node(NT::Return, pos);
            if (!at_block_end() && !is_punct(";") && !is_punct(":")) n->kids.push_back(seq_expr());
            return n;
        }
        if (accept_kw("break")) return node(NT::Break, pos);
        if (accept_kw("next")) return node(NT::Next, pos);
        if (accept_kw("restart")) return node(NT::Restart, pos);
        if (accept_kw("quit") || accept_kw("done") || accept_kw("stop")) return node(NT::Quit, pos);
        if (accept_kw("error")) {
            auto n = node(NT::Error, pos);
            if (!at_block_end() && !is_punct(";") && !is_punct(":")) n->kids.push_back(seq_expr());
            return n;
        }
    }
    NodeP e = seq_expr();
    if (accept_punct(":=")) {
        auto n = node(NT::Assign, pos);
        n->kids = {e, seq_expr()};
        return n;
    }
    auto n = node(NT::ExprStmt, pos);
    n->kids.push_back(e);
    return n;
}

// Statements up to (not including) a closing keyword.
NodeP Parser::block(const char *closer) {
    auto b = node(NT::Block, peek().pos);
    for (;;) {
        while (accept_punct(";") || accept_punct(":")) {
        }
        if (at_block_end()) break;
        NodeP s = statement();
        b->kids.push_back(s);
        if (accept_punct(";") || accept_punct(":")) continue;
        if (at_block_end()) break;
        unexpected();
    }
    if (peek().k == Tk::End) {
        fail_at(std::string("syntax error: missing `") + closer + "`", peek().pos);
    }
    return b;
}

void Parser::end_of(const char *word, const char *alt) {
    if (accept_kw(alt)) return;
    expect_kw("end");
    accept_kw(word);
}

NodeP Parser::if_stmt(int64_t pos) {
    auto n = node(NT::If, pos);
    n->kids.push_back(expr());
    expect_kw("then");
    n->kids.push_back(block("end if"));
    for (;;) {
        if (accept_kw("elif")) {
            n->kids.push_back(expr());
            expect_kw("then");
            n->kids.push_back(block("end if"));
        } else if (accept_kw("else")) {
            n->kids.push_back(block("end if"));
            if (!is_kw("end") && !is_kw("fi")) unexpected();
        } else {
            break;
        }
    }
    end_of("if", "fi");
    return n;
}

NodeP Parser::for_stmt(int64_t pos, bool has_var) {
    auto n = node(has_var ? NT::For : NT::While, pos);
    n->kids.resize(6);
    if (has_var) n->text = name_token();
    if (has_var && accept_kw("in")) {
        n->kids[4] = expr();
    } else {
        for (;;) {
            if (has_var && !n->kids[0] && accept_kw("from")) n->kids[0] = expr();
            else if (has_var && !n->kids[1] && accept_kw("by")) n->kids[1] = expr();
            else if (has_var && !n->kids[2] && accept_kw("to")) n->kids[2] = expr();
            else break;
        }
    }
    if (accept_kw("while")) n->kids[3] = expr();
    expect_kw("do");
    n->kids[5] = block("end do");
    end_of("do", "od");
    if (!has_var) {
        // A while (or bare do) loop is a for loop without a variable.
        n->t = NT::For;
    }
    return n;
}

NodeP Parser::seq_expr() {
    int64_t pos = peek().pos;
    NodeP e = expr();
    if (!is_punct(",")) return e;
    auto s = node(NT::Seq, pos);
    s->kids.push_back(e);
    while (accept_punct(",")) s->kids.push_back(expr());
    return s;
}

NodeP Parser::expr() {
    int64_t pos = peek().pos;
    nest_check(pos);
    NodeP lhs = or_expr();
    if (!accept_punct("->")) return lhs;
    auto def = std::make_shared<ProcDef>();
    if (lhs->t == NT::Name) {
        def->params.push_back(lhs->text);
    } else if (lhs->t == NT::Seq) {
        for (auto &k : lhs->kids) {
            if (k->t != NT::Name) fail_at("syntax error: parameters must be names", k->pos);
            def->params.push_back(k->text);
        }
    } else {
        fail_at("syntax error: parameters must be names", lhs->pos);
    }
    auto body = node(NT::Block, peek().pos);
    auto st = node(NT::ExprStmt, peek().pos);
    st->kids.push_back(expr());
    body->kids.push_back(st);
    def->body = body;
    auto n = node(NT::Proc, pos);
    n->proc = def;
    return n;
}

NodeP Parser::or_expr() {
    NodeP a = and_expr();
    while (is_kw("or")) {
        int64_t pos = take().pos;
        a = bin(BinOp::Or, a, and_expr(), pos);
    }
    return a;
}

NodeP Parser::and_expr() {
    NodeP a = not_expr();
    while (is_kw("and")) {
        int64_t pos = take().pos;
        a = bin(BinOp::And, a, not_expr(), pos);
    }
    return a;
}

NodeP Parser::not_expr() {
    if (is_kw("not")) {
        int64_t pos = take().pos;
        auto n = node(NT::Not, pos);
        n->kids.push_back(not_expr());
        return n;
    }
    return rel_expr();
}

NodeP Parser::rel_expr() {
    NodeP a = range_expr();
    static const std::pair<const char *, BinOp> ops[] = {{"=", BinOp::Eq},  {"<>", BinOp::Neq}, {"<", BinOp::Lt},
                                                         {"<=", BinOp::Le}, {">", BinOp::Gt},   {">=", BinOp::Ge}};
    for (auto &[p, op] : ops) {
        if (is_punct(p)) {
            int64_t pos = take().pos;
            return bin(op, a, range_expr(), pos);
        }
    }
    return a;
}

NodeP Parser::range_expr() {
    NodeP a = add_expr();
    if (is_punct("..")) {
        int64_t pos = take().pos;
        return bin(BinOp::Range, a, add_expr(), pos);
    }
    return a;
}

NodeP Parser::add_expr() {
    NodeP a = mul_expr();
    for (;;) {
        if (is_punct("+")) {
            int64_t pos = take().pos;
            a = bin(BinOp::Add, a, mul_expr(), pos);
        } else if (is_punct("-")) {
            int64_t pos = take().pos;
            a = bin(BinOp::Sub, a, mul_expr(), pos);
        } else {
            return a;
        }
    }
}

NodeP Parser::mul_expr() {
    NodeP a = unary_expr();
    for (;;) {
        if (is_punct("*")) {
            int64_t pos = take().pos;
            a = bin(BinOp::Mul, a, unary_expr(), pos);
        } else if (is_punct("/")) {
            int64_t pos = take().pos;
            a = bin(BinOp::Div, a, unary_expr(), pos);
        } else {
            return a;
        }
    }
}

NodeP Parser::unary_expr() {
    nest_check(peek().pos);
    if (is_punct("-")) {
        int64_t pos = take().pos;
        auto n = node(NT::Neg, pos);
        n->kids.push_back(unary_expr());
        return n;
    }
    if (accept_punct("+")) return unary_expr();
    return pow_expr();
}

NodeP Parser::pow_expr() {
    NodeP a = postfix_expr();
    if (is_punct("^")) {
        int64_t pos = take().pos;
        return bin(BinOp::Pow, a, unary_expr(), pos);
    }
    return a;
}

std::vector<NodeP> Parser::args_until(const char *close) {
    std::vector<NodeP> v;
    if (accept_punct(close)) return v;
    v.push_back(expr());
    while (accept_punct(",")) v.push_back(expr());
    expect_punct(close);
    return v;
}

NodeP Parser::postfix_expr() {
    NodeP a = primary();
    for (;;) {
        if (is_punct("(")) {
            int64_t pos = take().pos;
            auto n = node(NT::Call, pos);
            n->kids.push_back(a);
            for (auto &x : args_until(")")) n->kids.push_back(x);
            a = n;
        } else if (is_punct("[")) {
            int64_t pos = take().pos;
            auto n = node(NT::Index, pos);
            n->kids.push_back(a);
            for (auto &x : args_until("]")) n->kids.push_back(x);
            a = n;
        } else {
            return a;
        }
    }
}

NodeP Parser::primary() {
    const Tok &t = peek();
    int64_t pos = t.pos;
    switch (t.k) {
        case Tk::Int: {
            auto n = node(NT::Int, pos);
            n->text = take().text;
            return n;
        }
        case Tk::Float: {
            auto n = node(NT::Float, pos);
            n->text = take().text;
            return n;
        }
        case Tk::Str: {
            auto n = node(NT::Str, pos);
            n->text = take().text;
            return n;
        }
        case Tk::QName: {
            auto n = node(NT::Name, pos);
            n->text = take().text;
            return n;
        }
        case Tk::Name: {
            if (t.text == "proc") {
                take();
                return proc_expr(pos);
            }
            if (keyword(t.text)) unexpected();
            auto n = node(NT::Name, pos);
            n->text = take().text;
            return n;
        }
        case Tk::Punct:
            if (accept_punct("(")) {
                NodeP e = seq_expr();
                expect_punct(")");
                return e;
            }
            if (accept_punct("[")) {
                auto n = node(NT::List, pos);
                n->kids = args_until("]");
                return n;
            }
            if (accept_punct("{")) {
                auto n = node(NT::Set, pos);
                n->kids = args_until("}");
                return n;
            }
            if (accept_punct("'")) {
                auto n = node(NT::Quote, pos);
                n->kids.push_back(seq_expr());
                expect_punct("'");
                return n;
            }
            unexpected();
        case Tk::End:
            unexpected();
    }
    unexpected();
}

NodeP Parser::proc_expr(int64_t pos) {
    auto def = std::make_shared<ProcDef>();
    expect_punct("(");
    if (!accept_punct(")")) {
        for (;;) {
            def->params.push_back(name_token());
            if (accept_punct("::")) (void)range_expr();  // parameter types are not checked
            if (accept_punct(")")) break;
            expect_punct(",");
        }
    }
    accept_punct(";");
    for (;;) {
        if (accept_kw("local")) {
            do {
                def->locals.push_back(name_token());
                if (accept_punct("::")) (void)range_expr();
            } while (accept_punct(","));
        } else if (accept_kw("global")) {
            do (void)name_token();
            while (accept_punct(","));
        } else if (accept_kw("option") || accept_kw("options") || accept_kw("description")) {
            (void)seq_expr();
        } else {
            break;
        }
        if (!accept_punct(";") && !accept_punct(":")) unexpected();
    }
    def->body = block("end proc");
    expect_kw("end");
    accept_kw("proc");
    auto n = node(NT::Proc, pos);
    n->proc = def;
    return n;
}

}  // namespace vx
