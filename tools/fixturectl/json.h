// A small JSON value for fixturectl's machine-readable output: objects keep their keys in the
// order they were set, so the text rendering follows the same order.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace fixturectl {

class Json {
 public:
  using Array = std::vector<Json>;
  using Object = std::vector<std::pair<std::string, Json>>;

  Json() = default;
  Json(std::nullptr_t) {}
  Json(bool b) : v_(b) {}
  Json(int n) : v_(static_cast<int64_t>(n)) {}
  Json(long n) : v_(static_cast<int64_t>(n)) {}
  Json(long long n) : v_(static_cast<int64_t>(n)) {}
  Json(unsigned n) : v_(static_cast<int64_t>(n)) {}
  Json(double d) : v_(d) {}
  Json(const char* s) : v_(std::string(s ? s : "")) {}
  Json(std::string s) : v_(std::move(s)) {}

  static Json object() { return Json(Object{}); }
  static Json array() { return Json(Array{}); }

  bool is_null() const { return std::holds_alternative<std::nullptr_t>(v_); }
  bool is_object() const { return std::holds_alternative<Object>(v_); }
  bool is_array() const { return std::holds_alternative<Array>(v_); }

  // Object access: the member of that key, appended (null) when missing.
  Json& operator[](const std::string& key);
  const Json* find(const std::string& key) const;
  void push(Json value);  // Array append

  const Object& members() const { return std::get<Object>(v_); }
  const Array& elements() const { return std::get<Array>(v_); }

  std::string dump() const;  // compact JSON text
  std::string text() const;  // a scalar as a person reads it: strings bare, null as "-"

 private:
  explicit Json(Object o) : v_(std::move(o)) {}
  explicit Json(Array a) : v_(std::move(a)) {}
  void dump_to(std::string& out) const;

  std::variant<std::nullptr_t, bool, int64_t, double, std::string, Array, Object> v_;
};

}  // namespace fixturectl
