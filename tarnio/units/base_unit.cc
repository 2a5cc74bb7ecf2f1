#include "tarnio/units/base_unit.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "tarnio/units/internal/unit_parser.h"
#include "tarnio/units/internal/unit_table.h"

namespace Tarn::units {
namespace {

constexpr int kMaxExponent = 64;
constexpr int kMaxNesting = 32;
// Far beyond the range of a double; keeps the power of ten from overflowing an int.
constexpr long long kMaxExp10 = 4096;

bool exp10_in_range(long long k) { return k >= -kMaxExp10 && k <= kMaxExp10; }

int checked_exp10(long long k) {
  if (!exp10_in_range(k)) throw std::invalid_argument("Unit exponent out of range.");
  return static_cast<int>(k);
}

// The powers of ten that extended precision holds exactly (5^27 < 2^64).
constexpr std::array<long double, 28> kPowersOfTen = [] {
  std::array<long double, 28> powers{};
  long double p = 1;
  for (long double& power : powers) {
    power = p;
    p *= 10;
  }
  return powers;
}();

// `value` × 10^`k`, exact in the power of ten while |k| <= 27.
long double scale_by_ten(long double value, int k) {
  const int magnitude = std::abs(k);
  const long double p = magnitude < static_cast<int>(kPowersOfTen.size())
                            ? kPowersOfTen[static_cast<std::size_t>(magnitude)]
                            : std::pow(10.0L, static_cast<long double>(magnitude));
  return k >= 0 ? value * p : value / p;
}

// Equal within 1e-12 relative; a scale that over- or underflowed equals nothing.
bool close(long double a, long double b) {
  if (!std::isfinite(a) || !std::isfinite(b) || (a == 0) != (b == 0)) return false;
  return std::abs(a - b) <= 1e-12L * std::max(std::abs(a), std::abs(b));
}

BaseUnit::Exponents combine(const BaseUnit::Exponents& a, const BaseUnit::Exponents& b, int sign) {
  BaseUnit::Exponents out{};
  for (std::size_t i = 0; i < out.size(); ++i) {
    const int e = a[i] + sign * b[i];
    if (std::abs(e) > kMaxExponent) throw std::invalid_argument("Unit exponent out of range.");
    out[i] = static_cast<std::int8_t>(e);
  }
  return out;
}

bool is_compound(std::string_view symbol) {
  if (symbol.find_first_of("*/^(") != std::string_view::npos) return true;
  return !symbol.empty() && symbol.back() >= '0' && symbol.back() <= '9';
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

// Recursive descent over a unit text; builds the numeric unit and its canonical text in one
// pass, the text into a single string reserved up front.
class UnitParser {
 public:
  // Parses `given` from `start` on; messages name all of `given`.
  UnitParser(std::string_view given, std::size_t start)
      : given_(given), text_(given.substr(start)), leading_blanks_(start) {}

  // With `after_number`, a leading '/' divides the number before it: "2/s" is 2 1/s.
  BaseUnit parse(bool after_number = false) {
    while (!text_.empty() && is_blank(text_.front())) {
      text_.remove_prefix(1);
      ++leading_blanks_;
    }
    while (!text_.empty() && is_blank(text_.back())) text_.remove_suffix(1);
    BaseUnit result;
    if (text_.empty()) return result;
    result.symbol_.reserve(text_.size() + 8);
    out_ = &result.symbol_;
    Term term;
    if (after_number && text_.front() == '/') {
      *out_ += '1';
      term = rest_of_expression(term);
    } else {
      term = expression();
    }
    if (pos_ != text_.size()) fail_syntax();
    result.exponents_ = term.exponents;
    result.factor_ = term.factor;
    result.exp10_ = term.exp10;
    result.offset_ = term.offset;
    return result;
  }

 private:
  struct Term {
    BaseUnit::Exponents exponents{};
    long double factor = 1.0L;
    int exp10 = 0;
    long double offset = 0.0L;
  };

  static bool is_blank(char c) { return c == ' ' || c == '\t'; }

  // Positions in messages count bytes from 1 in the text as given.
  std::size_t position(std::size_t index) const { return leading_blanks_ + index + 1; }

  [[noreturn]] void fail_syntax() const {
    throw std::runtime_error(
        fmt::format("Invalid unit '{}' at position {}.", given_, position(pos_)));
  }

  bool at(std::string_view s) const { return text_.substr(pos_).starts_with(s); }
  bool at_end() const { return pos_ >= text_.size(); }
  std::size_t skip_blanks() {
    const std::size_t start = pos_;
    while (!at_end() && is_blank(text_[pos_])) ++pos_;
    return pos_ - start;
  }

  // Where a symbol word ends: at a blank, an operator, a parenthesis, a sign or a digit.
  bool at_word_end() const {
    if (at_end()) return true;
    const char c = text_[pos_];
    return is_blank(c) || c == '*' || c == '/' || c == '^' || c == '(' || c == ')' || c == '-' ||
           c == '+' || is_digit(c) || at("\u00B7");
  }

  Term combine_terms(const Term& a, const Term& b, int sign) const {
    Term t;
    for (std::size_t i = 0; i < t.exponents.size(); ++i) {
      const int e = a.exponents[i] + sign * b.exponents[i];
      if (std::abs(e) > kMaxExponent) fail_syntax();
      t.exponents[i] = static_cast<std::int8_t>(e);
    }
    t.factor = sign > 0 ? a.factor * b.factor : a.factor / b.factor;
    const long long exp10 = static_cast<long long>(a.exp10) + sign * b.exp10;
    if (!exp10_in_range(exp10)) fail_syntax();
    t.exp10 = static_cast<int>(exp10);
    return t;
  }

  Term expression() { return rest_of_expression(factor()); }

  // The factors that follow `term`, each with its '*', '·', blank or '/'.
  Term rest_of_expression(Term term) {
    for (;;) {
      const bool blank = skip_blanks() > 0;
      if (at_end() || text_[pos_] == ')') return term;
      int sign = 1;
      if (text_[pos_] == '*') {
        ++pos_;
      } else if (at("\u00B7")) {
        pos_ += 2;
      } else if (text_[pos_] == '/') {
        ++pos_;
        sign = -1;
      } else if (!blank) {
        fail_syntax();
      }
      *out_ += sign > 0 ? '*' : '/';
      term = combine_terms(term, factor(), sign);
    }
  }

  Term factor() {
    skip_blanks();
    if (at_end()) fail_syntax();
    Term term;
    if (text_[pos_] == '(') {
      if (++depth_ > kMaxNesting) fail_syntax();
      ++pos_;
      *out_ += '(';
      term = expression();
      if (at_end() || text_[pos_] != ')') fail_syntax();
      ++pos_;
      --depth_;
      *out_ += ')';
    } else if (text_[pos_] == '1') {
      ++pos_;
      if (!at_word_end() || (!at_end() && (is_digit(text_[pos_]) || text_[pos_] == '^'))) {
        fail_syntax();
      }
      *out_ += '1';
      return term;
    } else {
      term = symbol();
    }
    return power(term);
  }

  Term symbol() {
    const std::size_t start = pos_;
    while (!at_word_end()) ++pos_;
    if (pos_ == start) fail_syntax();
    std::string_view word = text_.substr(start, pos_ - start);
    // Symbols with a blank inside ("mm Hg", "reference frame") take the next word along.
    if (!at_end() && text_[pos_] == ' ') {
      std::size_t end = pos_ + 1;
      while (end < text_.size() && text_[end] != ' ' && text_[end] != '*' && text_[end] != '/' &&
             text_[end] != '^' && text_[end] != ')')
        ++end;
      const std::string_view both = text_.substr(start, end - start);
      if (const auto r = internal::resolve_symbol(both); r && r->prefix == nullptr) {
        pos_ = end;
        word = both;
      }
    }
    const auto resolved = internal::resolve_symbol(word);
    if (!resolved) {
      throw std::runtime_error(
          fmt::format("Unknown unit '{}' at position {} of '{}'.", word, position(start), given_));
    }
    Term term;
    term.exponents = resolved->symbol->exponents;
    term.factor = resolved->symbol->factor;
    term.exp10 = resolved->symbol->exp10;
    term.offset = resolved->symbol->offset;
    if (resolved->prefix != nullptr) {
      term.exp10 += resolved->prefix->exp10;
      *out_ += resolved->prefix->canonical;
    }
    *out_ += resolved->symbol->canonical;
    return term;
  }

  // An optional exponent after a factor: "^2", "^-1", "-1", "2".
  Term power(const Term& base) {
    if (at_end()) return base;
    const std::size_t start = pos_;
    const bool caret = text_[pos_] == '^';
    if (caret) ++pos_;
    int sign = 1;
    if (!at_end() && (text_[pos_] == '-' || text_[pos_] == '+')) {
      sign = text_[pos_] == '-' ? -1 : 1;
      ++pos_;
    }
    int n = 0;
    const std::size_t digits_start = pos_;
    while (!at_end() && is_digit(text_[pos_])) {
      n = n * 10 + (text_[pos_] - '0');
      if (n > kMaxExponent) fail_syntax();
      ++pos_;
    }
    if (pos_ == digits_start) {
      if (caret || pos_ != start) fail_syntax();
      return base;
    }
    *out_ += text_.substr(start, pos_ - start);
    n *= sign;
    if (n == 1) return base;
    Term t;
    for (std::size_t i = 0; i < t.exponents.size(); ++i) {
      const int e = base.exponents[i] * n;
      if (std::abs(e) > kMaxExponent) fail_syntax();
      t.exponents[i] = static_cast<std::int8_t>(e);
    }
    t.factor = std::pow(base.factor, static_cast<long double>(n));
    const long long exp10 = static_cast<long long>(base.exp10) * n;
    if (!exp10_in_range(exp10)) fail_syntax();
    t.exp10 = static_cast<int>(exp10);
    return t;
  }

  std::string_view given_;
  // given_ without its leading and trailing blanks.
  std::string_view text_;
  std::size_t pos_ = 0;
  int depth_ = 0;
  std::string* out_ = nullptr;
  std::size_t leading_blanks_ = 0;
};

BaseUnit::BaseUnit(const Exponents& exponents, long double factor, int exp10, long double offset,
                   std::string symbol)
    : exponents_(exponents),
      factor_(factor),
      exp10_(checked_exp10(exp10)),
      offset_(offset),
      symbol_(std::move(symbol)) {}

BaseUnit BaseUnit::parse(std::string_view text) { return UnitParser(text, 0).parse(); }

BaseUnit internal::parse_unit_of_value(std::string_view value_text, std::size_t unit_start) {
  return UnitParser(value_text, unit_start).parse(true);
}

double BaseUnit::scale() const { return static_cast<double>(scale_by_ten(factor_, exp10_)); }

bool BaseUnit::is_dimensionless() const { return exponents_ == Exponents{}; }

BaseUnit BaseUnit::difference_unit() const {
  if (!is_shifted()) return *this;
  const auto steps = internal::find_unshifted_symbol(exponents_, factor_, exp10_);
  return BaseUnit(exponents_, factor_, exp10_, 0, std::string(steps.value_or(symbol_)));
}

void BaseUnit::check_compatible(const BaseUnit& target) const {
  if (!is_compatible(target)) {
    throw std::invalid_argument("Cannot convert '" + symbol_ + "' to '" + target.symbol_ +
                                "': incompatible units.");
  }
}

double BaseUnit::convert(double value, const BaseUnit& target) const {
  check_compatible(target);
  if (offset_ == 0 && target.offset_ == 0) return convert_difference(value, target);
  const long double si = scale_by_ten(value * factor_, exp10_) + offset_;
  return static_cast<double>(scale_by_ten((si - target.offset_) / target.factor_, -target.exp10_));
}

double BaseUnit::convert_difference(double value, const BaseUnit& target) const {
  check_compatible(target);
  return static_cast<double>(
      scale_by_ten(value * (factor_ / target.factor_), exp10_ - target.exp10_));
}

BaseUnit operator*(const BaseUnit& a, const BaseUnit& b) {
  std::string symbol;
  if (a.symbol_.empty()) {
    symbol = b.symbol_;
  } else if (b.symbol_.empty()) {
    symbol = a.symbol_;
  } else if (b.symbol_.find('/') != std::string::npos) {
    symbol = a.symbol_ + "*(" + b.symbol_ + ")";
  } else {
    symbol = a.symbol_ + "*" + b.symbol_;
  }
  return BaseUnit(combine(a.exponents_, b.exponents_, 1), a.factor_ * b.factor_,
                  checked_exp10(static_cast<long long>(a.exp10_) + b.exp10_), 0.0,
                  std::move(symbol));
}

BaseUnit operator/(const BaseUnit& a, const BaseUnit& b) {
  std::string symbol = a.symbol_.empty() ? std::string("1") : a.symbol_;
  if (b.symbol_.empty()) {
    symbol = a.symbol_;
  } else if (b.symbol_.find_first_of("*/") != std::string::npos) {
    symbol += "/(" + b.symbol_ + ")";
  } else {
    symbol += "/" + b.symbol_;
  }
  return BaseUnit(combine(a.exponents_, b.exponents_, -1), a.factor_ / b.factor_,
                  checked_exp10(static_cast<long long>(a.exp10_) - b.exp10_), 0.0,
                  std::move(symbol));
}

BaseUnit BaseUnit::pow(int n) const {
  if (n == 1) return *this;
  if (n == 0) return BaseUnit();
  if (std::abs(n) > kMaxExponent) throw std::invalid_argument("Unit exponent out of range.");
  Exponents e{};
  for (std::size_t i = 0; i < e.size(); ++i) {
    const int v = exponents_[i] * n;
    if (std::abs(v) > kMaxExponent) throw std::invalid_argument("Unit exponent out of range.");
    e[i] = static_cast<std::int8_t>(v);
  }
  std::string symbol;
  if (!symbol_.empty()) {
    symbol = is_compound(symbol_) ? "(" + symbol_ + ")^" : symbol_ + "^";
    symbol += std::to_string(n);
  }
  return BaseUnit(e, std::pow(factor_, static_cast<long double>(n)),
                  checked_exp10(static_cast<long long>(exp10_) * n), 0.0, std::move(symbol));
}

bool operator==(const BaseUnit& a, const BaseUnit& b) {
  return a.exponents_ == b.exponents_ && close(a.offset_, b.offset_) &&
         close(scale_by_ten(a.factor_, a.exp10_ - b.exp10_), b.factor_);
}

}  // namespace Tarn::units
