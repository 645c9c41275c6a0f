#include "FHPathAnalysis/PathAnalyzer/FHStringPredicate.h"

#include <cctype>
#include <optional>
#include <vector>

#include "Platform/Strings.h"

namespace {

enum class Op { BeginsWith, EndsWith, Contains, Like, Equal, NotEqual };

// Parentheses and negations nested deeper than this are refused: each level is a few
// frames of the parser and one of evaluation, and a filter read from a file must not be
// able to exhaust the stack. Chains of AND or OR do not nest: they are one node each.
constexpr int kMaximumNesting = 200;

struct Node : FHStringPredicate {
    enum class Kind { Not, And, Or, Compare, Constant } kind = Kind::Constant;
    std::shared_ptr<Node> left;                     // of Not
    std::vector<std::shared_ptr<Node>> operands;   // of And and Or, two or more
    Op op = Op::Equal;
    std::string literal;
    bool literalOnLeft = false;
    bool constant = true;

    bool evaluateWithObject(std::string_view s) const override {
        switch (kind) {
        case Kind::Not: return !left->evaluateWithObject(s);
        case Kind::And:
            for (const auto& operand : operands)
                if (!operand->evaluateWithObject(s)) return false;
            return true;
        case Kind::Or:
            for (const auto& operand : operands)
                if (operand->evaluateWithObject(s)) return true;
            return false;
        case Kind::Constant: return constant;
        case Kind::Compare: return compare(s);
        }
        return false;
    }

    bool compare(std::string_view self) const {
        std::string_view lhs = literalOnLeft ? std::string_view(literal) : self;
        std::string_view rhs = literalOnLeft ? self : std::string_view(literal);
        switch (op) {
        case Op::BeginsWith: return platform::str::hasPrefix(lhs, rhs);
        case Op::EndsWith: return platform::str::hasSuffix(lhs, rhs);
        case Op::Contains: return lhs.find(rhs) != std::string_view::npos;
        case Op::Like: return platform::str::like(lhs, rhs);
        case Op::Equal: return lhs == rhs;
        case Op::NotEqual: return lhs != rhs;
        }
        return false;
    }
};

struct Token {
    enum class Type { Word, String, Symbol, End } type = Type::End;
    std::string text;
};

// "%%" becomes "%"; any other "%" is a format directive without an argument.
std::optional<std::string> applyFormat(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
        } else if (i + 1 < text.size() && text[i + 1] == '%') {
            out += '%';
            ++i;
        } else {
            return std::nullopt;
        }
    }
    return out;
}

std::optional<std::vector<Token>> tokenize(const std::string& text) {
    std::vector<Token> tokens;
    size_t i = 0;
    while (i < text.size()) {
        char c = text[i];
        if (std::isspace(static_cast<unsigned char>(c))) {
            ++i;
        } else if (c == '"' || c == '\'') {
            std::string value;
            size_t j = i + 1;
            for (; j < text.size() && text[j] != c; ++j) {
                if (text[j] != '\\') {
                    value += text[j];
                    continue;
                }
                if (++j == text.size()) return std::nullopt;
                switch (text[j]) {
                case 'n': value += '\n'; break;
                case 'r': value += '\r'; break;
                case 't': value += '\t'; break;
                case '0': value += '\0'; break;
                default: value += text[j];
                }
            }
            if (j == text.size()) return std::nullopt;  // unterminated
            tokens.push_back({Token::Type::String, value});
            i = j + 1;
        } else if (std::isalpha(static_cast<unsigned char>(c))) {
            size_t j = i;
            while (j < text.size() && std::isalnum(static_cast<unsigned char>(text[j]))) ++j;
            std::string word = text.substr(i, j - i);
            for (auto& ch : word) ch = char(std::toupper(static_cast<unsigned char>(ch)));
            tokens.push_back({Token::Type::Word, word});
            i = j;
        } else {
            static const char* symbols[] = {"&&", "||", "==", "!=", "!", "(", ")", "="};
            bool matched = false;
            for (const char* symbol : symbols) {
                std::string_view s(symbol);
                if (text.compare(i, s.size(), s) == 0) {
                    tokens.push_back({Token::Type::Symbol, std::string(s)});
                    i += s.size();
                    matched = true;
                    break;
                }
            }
            if (!matched) return std::nullopt;
        }
    }
    tokens.push_back({});
    return tokens;
}

class Parser {
public:
    explicit Parser(std::vector<Token> tokens) : tokens_(std::move(tokens)) {}

    std::shared_ptr<Node> parse() {
        auto node = orExpression();
        if (!node || peek().type != Token::Type::End) return nullptr;
        return node;
    }

private:
    const Token& peek() const { return tokens_[pos_]; }
    bool accept(Token::Type type, std::string_view text) {
        if (peek().type == type && peek().text == text) {
            ++pos_;
            return true;
        }
        return false;
    }
    // `first` alone, or one node of `kind` over it and the operands that follow it.
    std::shared_ptr<Node> chain(Node::Kind kind, std::shared_ptr<Node> first, std::shared_ptr<Node> (Parser::*operand)(),
                                std::string_view word, std::string_view symbol) {
        if (!first) return nullptr;
        std::vector<std::shared_ptr<Node>> operands;
        while (accept(Token::Type::Word, word) || accept(Token::Type::Symbol, symbol)) {
            if (operands.empty()) operands.push_back(std::move(first));
            auto next = (this->*operand)();
            if (!next) return nullptr;
            operands.push_back(std::move(next));
        }
        if (operands.empty()) return first;
        auto n = std::make_shared<Node>();
        n->kind = kind;
        n->operands = std::move(operands);
        return n;
    }

    std::shared_ptr<Node> orExpression() {
        return chain(Node::Kind::Or, andExpression(), &Parser::andExpression, "OR", "||");
    }
    std::shared_ptr<Node> andExpression() {
        return chain(Node::Kind::And, notExpression(), &Parser::notExpression, "AND", "&&");
    }
    std::shared_ptr<Node> notExpression() {
        if (accept(Token::Type::Word, "NOT") || accept(Token::Type::Symbol, "!")) {
            Nested nested(this);
            auto inner = nested.allowed() ? notExpression() : nullptr;
            if (!inner) return nullptr;
            auto n = std::make_shared<Node>();
            n->kind = Node::Kind::Not;
            n->left = std::move(inner);
            return n;
        }
        return primary();
    }
    std::shared_ptr<Node> primary() {
        if (accept(Token::Type::Symbol, "(")) {
            Nested nested(this);
            auto inner = nested.allowed() ? orExpression() : nullptr;
            if (!inner || !accept(Token::Type::Symbol, ")")) return nullptr;
            return inner;
        }
        for (auto [word, value] : {std::pair{"TRUEPREDICATE", true}, std::pair{"FALSEPREDICATE", false}}) {
            if (accept(Token::Type::Word, word)) {
                auto n = std::make_shared<Node>();
                n->constant = value;
                return n;
            }
        }
        return comparison();
    }
    // SELF op "literal", or "literal" op SELF.
    std::shared_ptr<Node> comparison() {
        auto n = std::make_shared<Node>();
        n->kind = Node::Kind::Compare;
        bool selfFirst = accept(Token::Type::Word, "SELF");
        if (!selfFirst) {
            if (peek().type != Token::Type::String) return nullptr;
            n->literal = tokens_[pos_++].text;
            n->literalOnLeft = true;
        }
        auto op = oper();
        if (!op) return nullptr;
        n->op = *op;
        if (selfFirst) {
            if (peek().type != Token::Type::String) return nullptr;
            n->literal = tokens_[pos_++].text;
        } else if (!accept(Token::Type::Word, "SELF")) {
            return nullptr;
        }
        return n;
    }
    std::optional<Op> oper() {
        if (accept(Token::Type::Word, "BEGINSWITH")) return Op::BeginsWith;
        if (accept(Token::Type::Word, "ENDSWITH")) return Op::EndsWith;
        if (accept(Token::Type::Word, "CONTAINS")) return Op::Contains;
        if (accept(Token::Type::Word, "LIKE")) return Op::Like;
        if (accept(Token::Type::Symbol, "==") || accept(Token::Type::Symbol, "=")) return Op::Equal;
        if (accept(Token::Type::Symbol, "!=")) return Op::NotEqual;
        return std::nullopt;
    }

    // One more level of parentheses or negation while it lives.
    struct Nested {
        explicit Nested(Parser* parser) : parser(parser) { ++parser->nesting_; }
        ~Nested() { --parser->nesting_; }
        bool allowed() const { return parser->nesting_ <= kMaximumNesting; }
        Parser* parser;
    };

    std::vector<Token> tokens_;
    size_t pos_ = 0;
    int nesting_ = 0;
};

}  // namespace

std::shared_ptr<FHStringPredicate> FHStringPredicate::predicateWithFormat(std::string_view text) {
    auto formatted = applyFormat(text);
    if (!formatted) return nullptr;
    auto tokens = tokenize(*formatted);
    if (!tokens) return nullptr;
    return Parser(std::move(*tokens)).parse();
}
