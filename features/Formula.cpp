// A tokenizer that knows just enough of formulas: names, numbers, brackets, and where a divisor ends.
#include "features/Formula.h"

#include <cctype>
#include <set>
#include <stdexcept>
#include <vector>

namespace zuGevFeatures {

namespace {

constexpr std::size_t longestFormula = 20000;
constexpr int deepestNesting = 64;

using Tokens = std::vector<std::string>;

bool isNameStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_'; }
bool isDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }
bool isNamePart(char c) { return isNameStart(c) || isDigit(c) || c == '.'; }

/// The end of the number that begins at `at`.
std::size_t numberEnd(const std::string& text, std::size_t at)
{
    const auto hexadecimal = [&] { return text[at] == '0' && at + 1 < text.size() && (text[at + 1] | 0x20) == 'x'; };
    if (hexadecimal()) {
        at += 2;
        while (at < text.size() && std::isxdigit(static_cast<unsigned char>(text[at])))
            ++at;
        return at;
    }
    while (at < text.size() && (isDigit(text[at]) || text[at] == '.'))
        ++at;
    if (at < text.size() && (text[at] | 0x20) == 'e') {
        std::size_t exponent = at + 1;
        if (exponent < text.size() && (text[exponent] == '+' || text[exponent] == '-'))
            ++exponent;
        if (exponent < text.size() && isDigit(text[exponent])) {
            at = exponent;
            while (at < text.size() && isDigit(text[at]))
                ++at;
        }
    }
    return at;
}

/// Names, numbers and operators; blanks are dropped.
Tokens tokensOf(const std::string& text)
{
    Tokens tokens;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t start = at;
        if (std::isspace(static_cast<unsigned char>(text[at]))) {
            ++at;
            continue;
        }
        if (isNameStart(text[at])) {
            while (at < text.size() && isNamePart(text[at]))
                ++at;
        } else if (isDigit(text[at]) || text[at] == '.') {
            at = std::max(numberEnd(text, at), at + 1);
        } else {
            static const std::set<std::string> pairs = {"**", "<<", ">>", "<=", ">=", "<>", "&&", "||"};
            at += pairs.count(text.substr(at, 2)) ? 2 : 1;
        }
        tokens.push_back(text.substr(start, at - start));
    }
    return tokens;
}

class Mender {
public:
    explicit Mender(const std::map<std::string, std::string>& expressions) : expressions_(expressions) {}

    std::string mend(const std::string& formula) { return mend(inlined(tokensOf(formula), 0), 0); }

private:
    [[noreturn]] static void refuse(const std::string& why) { throw std::runtime_error(why); }

    Tokens inlined(const Tokens& tokens, int depth)
    {
        if (depth > deepestNesting)
            refuse("an expression of its formula refers to itself, or is nested too deeply");
        Tokens result;
        for (const std::string& token : tokens) {
            const auto expression = expressions_.find(token);
            if (expression == expressions_.end()) {
                result.push_back(token);
            } else {
                const Tokens inner = inlined(tokensOf(expression->second), depth + 1);
                result.push_back("(");
                result.insert(result.end(), inner.begin(), inner.end());
                result.push_back(")");
                steps_ += inner.size();
            }
            if (++steps_ > longestFormula)
                refuse("its formula is longer than can be meant");
        }
        return result;
    }

    static std::size_t closing(const Tokens& tokens, std::size_t open)
    {
        int depth = 0;
        for (std::size_t at = open; at < tokens.size(); ++at) {
            if (tokens[at] == "(")
                ++depth;
            else if (tokens[at] == ")" && --depth == 0)
                return at + 1;
        }
        refuse("a bracket in its formula isn't closed");
    }

    /// The end of the operand of a division that begins at `at`: signs, what they stand before, and powers of it.
    static std::size_t operandEnd(const Tokens& tokens, std::size_t at)
    {
        static const std::set<std::string> signs = {"+", "-", "~", "!"};
        for (;;) {
            while (at < tokens.size() && signs.count(tokens[at]))
                ++at;
            if (at >= tokens.size())
                refuse("its formula divides by nothing");
            if (tokens[at] == "(")
                at = closing(tokens, at);
            else if (isNameStart(tokens[at][0]))
                at = at + 1 < tokens.size() && tokens[at + 1] == "(" ? closing(tokens, at + 1) : at + 1;
            else if (isDigit(tokens[at][0]) || tokens[at][0] == '.')
                ++at;
            else
                refuse("its formula divides by what is no number");
            if (at >= tokens.size() || tokens[at] != "**")
                return at;
            ++at;
        }
    }

    std::string mend(const Tokens& tokens, int depth)
    {
        if (depth > deepestNesting)
            refuse("its formula divides too deeply");
        std::string result;
        for (std::size_t at = 0; at < tokens.size();) {
            const std::string& token = tokens[at++];
            result += token;
            result += ' ';
            if (token == "/" || token == "%") {
                const std::size_t end = operandEnd(tokens, at);
                if (end == at + 1 && isDigit(tokens[at][0])) {
                    result += tokens[at] + ' ';
                } else {
                    const Tokens operand(tokens.begin() + static_cast<std::ptrdiff_t>(at),
                                         tokens.begin() + static_cast<std::ptrdiff_t>(end));
                    const std::string divisor = "(" + mend(operand, depth + 1) + ")";
                    const std::string isMinusOne = "(" + divisor + " = (0 - 1))";
                    // -1 becomes 1, and what was divided by it is turned afterwards.
                    result += "(" + divisor + " + 2 * " + isMinusOne + ") ";
                    if (token == "/")
                        result += "* (1 - 2 * " + isMinusOne + ") ";
                }
                at = end;
            }
            if (result.size() > longestFormula)
                refuse("its formula is longer than can be meant");
        }
        return result;
    }

    const std::map<std::string, std::string>& expressions_;
    std::size_t steps_ = 0;
};

} // namespace

std::string mendedFormula(const std::string& formula, const std::map<std::string, std::string>& expressions)
{
    return Mender(expressions).mend(formula);
}

} // namespace zuGevFeatures
