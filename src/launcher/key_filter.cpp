#include "launcher/key_filter.hpp"

namespace kx::launcher {
namespace {

KeyFilter::Command command_for(const std::string& text) {
  if (text == "::detach" || text == "::quit") return KeyFilter::Command::kDetach;
  if (text == "::close") return KeyFilter::Command::kClose;
  if (text == "::list") return KeyFilter::Command::kList;
  return KeyFilter::Command::kNone;
}

bool ends_line(char c) {
  return c == '\r' || c == '\n' || c == 0x03 || c == 0x15;
}

std::string erase(std::size_t count) {
  std::string out;
  for (std::size_t i = 0; i < count; ++i) out += "\b \b";
  return out;
}

}  // namespace

void KeyFilter::abandon(Step& step) {
  // Only "::..." was shown locally; a lone ':' never was.
  if (held_.size() > 1) step.echo += erase(held_.size());
  step.to_session += held_;
  held_.clear();
}

KeyFilter::Step KeyFilter::feed(std::string_view keys, std::int64_t now_millis) {
  Step step;
  for (char c : keys) {
    if (c == kDetachKey) {
      step.command = Command::kDetach;
      return step;
    }
    if (held_.empty()) {
      if (line_start_ && c == ':') {
        held_ = ":";
        held_since_ = now_millis;
        continue;
      }
      step.to_session += c;
      line_start_ = ends_line(c);
      continue;
    }
    if (c == 0x7f || c == '\b') {
      // A lone ':' is never shown, so taking "::" down to ':' clears the screen.
      if (held_.size() > 1) step.echo += "\b \b";
      held_.pop_back();
      if (held_ == ":") step.echo += "\b \b";
      continue;
    }
    if (held_ == ":" && c != ':') {
      abandon(step);
      step.to_session += c;
      line_start_ = ends_line(c);
      continue;
    }
    if (c == '\r' || c == '\n') {
      Command command = command_for(held_);
      if (command != Command::kNone) {
        step.echo += "\r\n";
        held_.clear();
        line_start_ = true;
        step.command = command;
        return step;
      }
      abandon(step);
      step.to_session += c;
      line_start_ = true;
      continue;
    }
    if (c == 0x03) {
      if (held_.size() > 1) step.echo += erase(held_.size());
      held_.clear();
      step.to_session += c;
      line_start_ = true;
      continue;
    }
    if (held_ == ":") step.echo += ":";
    held_ += c;
    step.echo += c;
  }
  return step;
}

KeyFilter::Step KeyFilter::tick(std::int64_t now_millis) {
  Step step;
  if (held_ == ":" && now_millis - held_since_ >= kHoldMillis) {
    abandon(step);
    line_start_ = false;
  }
  return step;
}

}  // namespace kx::launcher
