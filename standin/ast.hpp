// The parse tree of the stand-in's language and its parser.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vx {

enum class NT : uint8_t {
    // expressions
    Int,
    Float,
    Str,
    Name,
    Seq,
    List,
    Set,
    Bin,
    Neg,
    Not,
    Call,
    Index,
    Quote,
    Proc,
    // statements
    Assign,
    If,
    For,
    While,
    Return,
    Break,
    Next,
    Restart,
    Quit,
    Error,
    ExprStmt,
    Block,
    Empty
};

enum class BinOp : uint8_t { Add, Sub, Mul, Div, Pow, Eq, Neq, Lt, Le, Gt, Ge, Range, And, Or };

struct Node;
struct ProcDef;
using NodeP = std::shared_ptr<Node>;

// Layout of the children by node type:
//   Bin: lhs, rhs.  Neg, Not, Quote: operand.  Call, Index: base, arguments...
//   Seq, List, Set, Block: elements.  Assign: target, value.
//   If: cond, body, cond, body, ..., [else body].  While: cond, body.
//   For (text = variable, may be empty): from, by, to, while, in, body (null when absent).
//   Return, Error, ExprStmt: [expression].
struct Node {
    NT t;
    BinOp op = BinOp::Add;
    int64_t pos = 0;
    std::string text;
    std::vector<NodeP> kids;
    std::shared_ptr<const ProcDef> proc;
    char term = ';';
};

struct ProcDef {
    std::vector<std::string> params;
    std::vector<std::string> locals;
    NodeP body;
};

class Parser {
public:
    explicit Parser(const std::string &src);
    bool at_end();
    // One top-level statement with its terminator (';' or ':'; the end of the
    // text counts as ';'). Raises a syntax error with the byte offset.
    NodeP top_statement();

private:
    enum class Tk { End, Int, Float, Str, Name, QName, Punct };
    struct Tok {
        Tk k = Tk::End;
        std::string text;
        int64_t pos = 0;
    };

    const std::string &src_;
    size_t i_ = 0;
    Tok tok_;
    bool have_ = false;

    void skip_space();
    Tok lex();
    const Tok &peek();
    Tok take();
    bool is_punct(const char *p);
    bool is_kw(const char *kw);
    bool accept_punct(const char *p);
    bool accept_kw(const char *kw);
    void expect_punct(const char *p);
    void expect_kw(const char *kw);
    [[noreturn]] void unexpected();
    bool at_block_end();
    void nest_check(int64_t pos);

    NodeP statement();
    NodeP block(const char *closer);
    void end_of(const char *word, const char *alt);
    NodeP if_stmt(int64_t pos);
    NodeP for_stmt(int64_t pos, bool has_var);
    NodeP seq_expr();
    NodeP expr();
    NodeP or_expr();
    NodeP and_expr();
    NodeP not_expr();
    NodeP rel_expr();
    NodeP range_expr();
    NodeP add_expr();
    NodeP mul_expr();
    NodeP unary_expr();
    NodeP pow_expr();
    NodeP postfix_expr();
    NodeP primary();
    NodeP proc_expr(int64_t pos);
    std::vector<NodeP> args_until(const char *close);
    std::string name_token();
};

}  // namespace vx
