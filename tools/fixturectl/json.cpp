#include "json.h"

#include <cmath>
#include <cstdio>

namespace fixturectl {

Json& Json::operator[](const std::string& key) {
  if (is_null()) v_ = Object{};
  auto& object = std::get<Object>(v_);
  for (auto& [name, value] : object) {
    if (name == key) return value;
  }
  object.emplace_back(key, Json());
  return object.back().second;
}

const Json* Json::find(const std::string& key) const {
  if (!is_object()) return nullptr;
  for (const auto& [name, value] : members()) {
    if (name == key) return &value;
  }
  return nullptr;
}

void Json::push(Json value) {
  if (is_null()) v_ = Array{};
  std::get<Array>(v_).push_back(std::move(value));
}

static void quote(const std::string& s, std::string& out) {
  out += '"';
  for (const unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char esc[8];
          std::snprintf(esc, sizeof esc, "\\u%04x", c);
          out += esc;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

static std::string number(double d) {
  if (!std::isfinite(d)) return "null";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6g", d);
  return buf;
}

void Json::dump_to(std::string& out) const {
  if (std::holds_alternative<std::nullptr_t>(v_)) {
    out += "null";
  } else if (auto* b = std::get_if<bool>(&v_)) {
    out += *b ? "true" : "false";
  } else if (auto* n = std::get_if<int64_t>(&v_)) {
    out += std::to_string(*n);
  } else if (auto* d = std::get_if<double>(&v_)) {
    out += number(*d);
  } else if (auto* s = std::get_if<std::string>(&v_)) {
    quote(*s, out);
  } else if (auto* a = std::get_if<Array>(&v_)) {
    out += '[';
    for (size_t i = 0; i < a->size(); ++i) {
      if (i) out += ',';
      (*a)[i].dump_to(out);
    }
    out += ']';
  } else {
    const auto& o = std::get<Object>(v_);
    out += '{';
    for (size_t i = 0; i < o.size(); ++i) {
      if (i) out += ',';
      quote(o[i].first, out);
      out += ':';
      o[i].second.dump_to(out);
    }
    out += '}';
  }
}

std::string Json::dump() const {
  std::string out;
  dump_to(out);
  return out;
}

std::string Json::text() const {
  if (auto* s = std::get_if<std::string>(&v_)) return *s;
  if (is_null()) return "-";
  if (auto* b = std::get_if<bool>(&v_)) return *b ? "yes" : "no";
  if (auto* d = std::get_if<double>(&v_)) return number(*d);
  return dump();
}

}  // namespace fixturectl
