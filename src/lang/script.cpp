#include "lang/script.hpp"

#include "lang/text.hpp"

#include <cctype>

namespace kx::lang {
namespace {

const char* op_text(Op op) {
  switch (op) {
    case Op::Eq:
      return "==";
    case Op::Ne:
      return "!=";
    case Op::Lt:
      return "<";
    case Op::Le:
      return "<=";
    case Op::Gt:
      return ">";
    case Op::Ge:
      return ">=";
    case Op::And:
      return "&&";
    case Op::Or:
      return "||";
    case Op::Match:
      return "=~";
    case Op::Add:
      return "+";
    case Op::Sub:
      return "-";
    case Op::Mul:
      return "*";
    case Op::Div:
      return "/";
    case Op::Mod:
      return "%";
  }
  return "?";
}

// Binding strength, higher binds tighter; used to parenthesise only where needed.
int strength(Op op) {
  switch (op) {
    case Op::Or:
      return 1;
    case Op::And:
      return 2;
    case Op::Add:
    case Op::Sub:
      return 4;
    case Op::Mul:
    case Op::Div:
    case Op::Mod:
      return 5;
    default:
      return 3;
  }
}

std::string operand_text(const Expr& child, int parent_strength, bool right_side) {
  std::string text = to_text(child);
  if (child.kind != Expr::Kind::Binary) return text;
  int s = strength(child.op);
  if (s < parent_strength || (right_side && s == parent_strength)) return "(" + text + ")";
  return text;
}

std::string quote(const std::string& value) {
  std::string out = "\"";
  for (char c : value) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string as_string(const ScriptRunner::Value& v) {
  if (const auto* n = std::get_if<std::int64_t>(&v)) return std::to_string(*n);
  return std::get<std::string>(v);
}

bool truthy(const ScriptRunner::Value& v) {
  if (const auto* n = std::get_if<std::int64_t>(&v)) return *n != 0;
  return !std::get<std::string>(v).empty();
}

}  // namespace

ExprPtr make_number(std::int64_t value) {
  auto e = std::make_shared<Expr>();
  e->kind = Expr::Kind::Number;
  e->number = value;
  return e;
}
ExprPtr make_string(std::string value) {
  auto e = std::make_shared<Expr>();
  e->kind = Expr::Kind::String;
  e->text = std::move(value);
  return e;
}
ExprPtr make_variable(std::string name) {
  auto e = std::make_shared<Expr>();
  e->kind = Expr::Kind::Variable;
  e->text = std::move(name);
  return e;
}
ExprPtr make_binary(Op op, ExprPtr left, ExprPtr right) {
  auto e = std::make_shared<Expr>();
  e->kind = Expr::Kind::Binary;
  e->op = op;
  e->left = std::move(left);
  e->right = std::move(right);
  return e;
}
ExprPtr make_unary(Expr::Kind kind, ExprPtr operand) {
  auto e = std::make_shared<Expr>();
  e->kind = kind;
  e->left = std::move(operand);
  return e;
}

namespace {
std::shared_ptr<Stmt> node(Stmt::Kind kind) {
  auto s = std::make_shared<Stmt>();
  s->kind = kind;
  return s;
}
}  // namespace

StmtPtr make_block(std::vector<StmtPtr> statements) {
  auto s = node(Stmt::Kind::Block);
  s->children = std::move(statements);
  return s;
}
StmtPtr make_if(ExprPtr cond, StmtPtr then_branch, StmtPtr else_branch) {
  auto s = node(Stmt::Kind::If);
  s->cond = std::move(cond);
  s->children = {std::move(then_branch)};
  if (else_branch) s->children.push_back(std::move(else_branch));
  return s;
}
StmtPtr make_while(ExprPtr cond, StmtPtr body) {
  auto s = node(Stmt::Kind::While);
  s->cond = std::move(cond);
  s->children = {std::move(body)};
  return s;
}
StmtPtr make_do_while(StmtPtr body, ExprPtr cond) {
  auto s = node(Stmt::Kind::DoWhile);
  s->cond = std::move(cond);
  s->children = {std::move(body)};
  return s;
}
StmtPtr make_for(std::string var, ExprPtr initial, ExprPtr cond, StmtPtr step, StmtPtr body) {
  auto s = node(Stmt::Kind::For);
  s->name = std::move(var);
  s->first = std::move(initial);
  s->cond = std::move(cond);
  s->children = {std::move(step), std::move(body)};
  return s;
}
StmtPtr make_for_range(std::string var, ExprPtr from, ExprPtr to, StmtPtr body) {
  auto s = node(Stmt::Kind::ForRange);
  s->name = std::move(var);
  s->first = std::move(from);
  s->second = std::move(to);
  s->children = {std::move(body)};
  return s;
}
StmtPtr make_assign(std::string var, ExprPtr value) {
  auto s = node(Stmt::Kind::Assign);
  s->name = std::move(var);
  s->first = std::move(value);
  return s;
}
StmtPtr make_increment(std::string var, bool up) {
  auto s = node(up ? Stmt::Kind::Increment : Stmt::Kind::Decrement);
  s->name = std::move(var);
  return s;
}
StmtPtr make_call(Stmt::Kind kind, std::string name, std::string value) {
  auto s = node(kind);
  s->name = std::move(name);
  s->value = std::move(value);
  return s;
}
StmtPtr make_call_from_text(Stmt::Kind kind, const std::string& inner) {
  auto comma = inner.find(',');
  std::string name = inner.substr(0, comma);
  std::string rest = comma == std::string::npos ? "" : inner.substr(comma + 1);
  while (!name.empty() && name.back() == ' ') name.pop_back();
  while (!rest.empty() && rest.front() == ' ') rest.erase(0, 1);
  return make_call(kind, std::move(name), std::move(rest));
}

StmtPtr make_command(std::string line) {
  auto s = node(Stmt::Kind::Command);
  s->name = std::move(line);
  return s;
}

std::string to_text(const Expr& e) {
  switch (e.kind) {
    case Expr::Kind::Number:
      return std::to_string(e.number);
    case Expr::Kind::String:
      return quote(e.text);
    case Expr::Kind::Variable:
      return e.text;
    case Expr::Kind::Not:
      return "!" + operand_text(*e.left, 6, false);
    case Expr::Kind::Negate:
      return "-" + operand_text(*e.left, 6, false);
    case Expr::Kind::Binary:
      return operand_text(*e.left, strength(e.op), false) + " " + op_text(e.op) + " " +
             operand_text(*e.right, strength(e.op), true);
  }
  return "";
}

std::string to_text(const Stmt& s) {
  switch (s.kind) {
    case Stmt::Kind::Block: {
      std::string text;
      for (const auto& child : s.children) {
        if (!text.empty()) text += "; ";
        text += to_text(*child);
      }
      return text;
    }
    case Stmt::Kind::If: {
      std::string text = "if (" + to_text(*s.cond) + ") " + to_text(*s.children[0]);
      if (s.children.size() > 1) text += " else " + to_text(*s.children[1]);
      return text;
    }
    case Stmt::Kind::While:
      return "while (" + to_text(*s.cond) + ") " + to_text(*s.children[0]);
    case Stmt::Kind::DoWhile:
      return "do " + to_text(*s.children[0]) + " while (" + to_text(*s.cond) + ")";
    case Stmt::Kind::For:
      return "for (" + s.name + " = " + to_text(*s.first) + "; " + to_text(*s.cond) + "; " +
             to_text(*s.children[0]) + ") " + to_text(*s.children[1]);
    case Stmt::Kind::ForRange:
      return "for (" + s.name + " = " + to_text(*s.first) + ".." + to_text(*s.second) + ") " +
             to_text(*s.children[0]);
    case Stmt::Kind::Assign:
      return s.name + " = " + to_text(*s.first);
    case Stmt::Kind::Increment:
      return s.name + "++";
    case Stmt::Kind::Decrement:
      return s.name + "--";
    case Stmt::Kind::Action:
      return s.value.empty() ? "action(" + s.name + ")" : "action(" + s.name + ", " + s.value + ")";
    case Stmt::Kind::Promote:
      return "promote(" + s.name + ", " + s.value + ")";
    case Stmt::Kind::Command:
      return s.name;
  }
  return "";
}

ScriptRunner::ScriptRunner(LineRunner run_line, Output output)
    : run_line_(std::move(run_line)), output_(std::move(output)) {}

bool ScriptRunner::run(const Stmt& stmt) {
  steps_ = 0;
  halted_ = false;
  exec(stmt);
  return !halted_;
}

bool ScriptRunner::step() {
  if (halted_) return false;
  if (++steps_ > kStepLimit) {
    halted_ = true;
    output_(
        "ERROR: step limit reached (runaway loop?) — script halted");  // printed with its newline
    return false;
  }
  return true;
}

std::string ScriptRunner::substitute(const std::string& line) const {
  std::string out;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] != '$' || i + 1 >= line.size()) {
      out += line[i];
      continue;
    }
    std::size_t start = i + 1;
    bool braced = line[start] == '{';
    if (braced) ++start;
    std::size_t end = start;
    while (end < line.size() &&
           (std::isalnum(static_cast<unsigned char>(line[end])) || line[end] == '_'))
      ++end;
    auto found = variables_.find(line.substr(start, end - start));
    if (end == start || found == variables_.end() ||
        (braced && (end >= line.size() || line[end] != '}'))) {
      out += line[i];
      continue;
    }
    out += as_string(found->second);
    i = braced ? end : end - 1;
  }
  return out;
}

ScriptRunner::Value ScriptRunner::eval(const Expr& e) const {
  switch (e.kind) {
    case Expr::Kind::Number:
      return e.number;
    case Expr::Kind::String:
      return e.text;
    case Expr::Kind::Variable: {
      auto found = variables_.find(e.text);
      return found == variables_.end() ? Value(std::int64_t{0}) : found->second;
    }
    case Expr::Kind::Not:
      return std::int64_t{truthy(eval(*e.left)) ? 0 : 1};
    case Expr::Kind::Negate: {
      Value v = eval(*e.left);
      if (const auto* n = std::get_if<std::int64_t>(&v)) return -*n;
      return v;
    }
    case Expr::Kind::Binary:
      break;
  }
  if (e.op == Op::And) return std::int64_t{truthy(eval(*e.left)) && truthy(eval(*e.right))};
  if (e.op == Op::Or) return std::int64_t{truthy(eval(*e.left)) || truthy(eval(*e.right))};
  Value a = eval(*e.left), b = eval(*e.right);
  const auto* x = std::get_if<std::int64_t>(&a);
  const auto* y = std::get_if<std::int64_t>(&b);
  if (e.op == Op::Match) return std::int64_t{glob_match(as_string(b), as_string(a))};
  if (x != nullptr && y != nullptr) {
    switch (e.op) {
      case Op::Eq:
        return std::int64_t{*x == *y};
      case Op::Ne:
        return std::int64_t{*x != *y};
      case Op::Lt:
        return std::int64_t{*x < *y};
      case Op::Le:
        return std::int64_t{*x <= *y};
      case Op::Gt:
        return std::int64_t{*x > *y};
      case Op::Ge:
        return std::int64_t{*x >= *y};
      case Op::Add:
        return *x + *y;
      case Op::Sub:
        return *x - *y;
      case Op::Mul:
        return *x * *y;
      case Op::Div:
        return *y == 0 ? std::int64_t{0} : *x / *y;
      case Op::Mod:
        return *y == 0 ? std::int64_t{0} : *x % *y;
      default:
        break;
    }
  }
  std::string s = as_string(a), t = as_string(b);
  switch (e.op) {
    case Op::Eq:
      return std::int64_t{s == t};
    case Op::Ne:
      return std::int64_t{s != t};
    case Op::Lt:
      return std::int64_t{s < t};
    case Op::Le:
      return std::int64_t{s <= t};
    case Op::Gt:
      return std::int64_t{s > t};
    case Op::Ge:
      return std::int64_t{s >= t};
    case Op::Add:
      return s + t;  // text joins
    default:
      return std::int64_t{0};
  }
}

bool ScriptRunner::exec(const Stmt& s) {
  if (!step()) return false;
  switch (s.kind) {
    case Stmt::Kind::Block:
      for (const auto& child : s.children)
        if (!exec(*child)) return false;
      return true;
    case Stmt::Kind::If:
      if (truthy(eval(*s.cond))) return exec(*s.children[0]);
      return s.children.size() > 1 ? exec(*s.children[1]) : true;
    case Stmt::Kind::While:
      while (truthy(eval(*s.cond)))
        if (!exec(*s.children[0]) || !step()) return false;
      return true;
    case Stmt::Kind::DoWhile:
      do {
        if (!exec(*s.children[0]) || !step()) return false;
      } while (truthy(eval(*s.cond)));
      return true;
    case Stmt::Kind::For:
      for (variables_[s.name] = eval(*s.first); truthy(eval(*s.cond)); exec(*s.children[0]))
        if (!exec(*s.children[1]) || !step()) return false;
      return !halted_;
    case Stmt::Kind::ForRange: {
      Value from = eval(*s.first), to = eval(*s.second);
      const auto* f = std::get_if<std::int64_t>(&from);
      const auto* t = std::get_if<std::int64_t>(&to);
      if (f == nullptr || t == nullptr) return true;
      std::int64_t dir = *f <= *t ? 1 : -1;
      for (std::int64_t i = *f;; i += dir) {
        variables_[s.name] = i;
        if (!exec(*s.children[0]) || !step()) return false;
        if (i == *t) break;
      }
      return true;
    }
    case Stmt::Kind::Assign:
      variables_[s.name] = eval(*s.first);
      return true;
    case Stmt::Kind::Increment:
    case Stmt::Kind::Decrement: {
      Value& v = variables_[s.name];
      std::int64_t n = std::holds_alternative<std::int64_t>(v) ? std::get<std::int64_t>(v) : 0;
      v = n + (s.kind == Stmt::Kind::Increment ? 1 : -1);
      return true;
    }
    case Stmt::Kind::Action:
      output_(run_line_(s.value.empty() ? "fssys:actionrun " + s.name
                                        : "fssys:actionrun " + s.name + " " + substitute(s.value)));
      return true;
    case Stmt::Kind::Promote:
      output_(run_line_("fssys:promote " + s.name + " " + substitute(s.value)));
      return true;
    case Stmt::Kind::Command:
      output_(run_line_(substitute(s.name)));
      return true;
  }
  return true;
}

}  // namespace kx::lang
