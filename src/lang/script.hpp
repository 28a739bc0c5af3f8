#pragma once
// The statement tree of the small script language and its runner. Every node has
// a canonical text form, which is how stored statements are written back out.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace kx::lang {

enum class Op { Eq, Ne, Lt, Le, Gt, Ge, And, Or, Match, Add, Sub, Mul, Div, Mod };

struct Expr;
using ExprPtr = std::shared_ptr<const Expr>;

struct Expr {
  enum class Kind { Number, String, Variable, Binary, Not, Negate };
  Kind kind = Kind::Number;
  std::int64_t number = 0;
  std::string text;  // string literal or variable name
  Op op = Op::Eq;
  ExprPtr left, right;
};

ExprPtr make_number(std::int64_t value);
ExprPtr make_string(std::string value);
ExprPtr make_variable(std::string name);
ExprPtr make_binary(Op op, ExprPtr left, ExprPtr right);
ExprPtr make_unary(Expr::Kind kind, ExprPtr operand);

struct Stmt;
using StmtPtr = std::shared_ptr<const Stmt>;

struct Stmt {
  enum class Kind {
    Block,
    If,
    While,
    DoWhile,
    For,
    ForRange,
    Assign,
    Increment,
    Decrement,
    Action,
    Promote,
    Command
  };
  Kind kind = Kind::Block;
  std::vector<StmtPtr> children;  // block statements; or [then, else] / [body] / [step, body]
  ExprPtr cond;                   // if, while, do-while, for
  ExprPtr first, second;          // assignment value, for initial value, range from..to
  std::string name;               // variable, action or promote name; command line
  std::string value;              // action body, promote value
};

StmtPtr make_block(std::vector<StmtPtr> statements);
StmtPtr make_if(ExprPtr cond, StmtPtr then_branch, StmtPtr else_branch);
StmtPtr make_while(ExprPtr cond, StmtPtr body);
StmtPtr make_do_while(StmtPtr body, ExprPtr cond);
StmtPtr make_for(std::string var, ExprPtr initial, ExprPtr cond, StmtPtr step, StmtPtr body);
StmtPtr make_for_range(std::string var, ExprPtr from, ExprPtr to, StmtPtr body);
StmtPtr make_assign(std::string var, ExprPtr value);
StmtPtr make_increment(std::string var, bool up);
StmtPtr make_call(Stmt::Kind kind, std::string name, std::string value);  // action / promote
// From the text between the parentheses of "action(name, body)" / "promote(name, value)".
StmtPtr make_call_from_text(Stmt::Kind kind, const std::string& inner);
StmtPtr make_command(std::string line);

std::string to_text(const Expr& expr);
std::string to_text(const Stmt& stmt);

// Runs statement trees. Variables persist across runs of one runner.
class ScriptRunner {
 public:
  static constexpr std::uint64_t kStepLimit = 2'000'000;
  using LineRunner = std::function<std::string(const std::string& line)>;
  using Output = std::function<void(const std::string& result)>;

  ScriptRunner(LineRunner run_line, Output output);

  // Runs the tree; false when the step limit stopped it (the halt message was output).
  bool run(const Stmt& stmt);

  // "$name" and "${name}" in a command line become the variable's value.
  std::string substitute(const std::string& line) const;

  using Value = std::variant<std::int64_t, std::string>;
  const std::map<std::string, Value>& variables() const { return variables_; }
  // Carries variables between runners, as a console does from unit to unit.
  void adopt_variables(std::map<std::string, Value> variables) {
    variables_ = std::move(variables);
  }
  std::map<std::string, Value> take_variables() { return std::move(variables_); }

 private:
  bool exec(const Stmt& stmt);
  Value eval(const Expr& expr) const;
  bool step();

  LineRunner run_line_;
  Output output_;
  std::map<std::string, Value> variables_;
  std::uint64_t steps_ = 0;
  bool halted_ = false;
};

}  // namespace kx::lang
