#include "vcd.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <mutex>

namespace sim {

std::string trace_line(const TraceEvent& event, double origin) {
  const bool received = !event.what.empty() && event.what.back() == '\n';
  std::string what = received ? "< " : "";
  for (size_t i = 0; i < event.what.size() - (received ? 1 : 0); ++i) {
    const unsigned char c = static_cast<unsigned char>(event.what[i]);
    if (c >= 0x20 && c < 0x7f) {
      what += static_cast<char>(c);
    } else {
      char esc[8];
      std::snprintf(esc, sizeof esc, "\\x%02x", c);
      what += esc;
    }
  }
  char head[64];
  std::snprintf(head, sizeof head, "%11.6f  %-9s ", event.time - origin, event.source.c_str());
  return head + what;
}

struct TraceFile::Shared {
  std::mutex mutex;
  FILE* file = nullptr;
};

TraceFile::TraceFile(Testbed& bed, const std::string& path, double origin)
    : shared_(std::make_shared<Shared>()), file_(std::fopen(path.c_str(), "w")) {
  if (!file_) return;
  shared_->file = file_;
  for (const auto& event : bed.trace_events()) {
    std::fprintf(file_, "%s\n", trace_line(event, origin).c_str());
  }
  std::fflush(file_);
  bed.on_trace([shared = shared_, origin](const TraceEvent& event) {
    std::lock_guard lock(shared->mutex);
    if (!shared->file) return;
    std::fprintf(shared->file, "%s\n", trace_line(event, origin).c_str());
    std::fflush(shared->file);
  });
}

TraceFile::~TraceFile() {
  std::lock_guard lock(shared_->mutex);
  if (shared_->file) std::fclose(shared_->file);
  shared_->file = nullptr;
}

// ---- VCD -----------------------------------------------------------------------------------

Vcd::Signal* Vcd::find(const std::string& scope, const std::string& name) {
  const auto it = index_.find(scope + "\n" + name);
  return it == index_.end() ? nullptr : &signals_[it->second];
}

bool Vcd::has(const std::string& scope, const std::string& name) const {
  return index_.count(scope + "\n" + name) != 0;
}

void Vcd::declare(const std::string& scope, const std::string& name, const std::string& initial,
                  Format format) {
  if (Signal* s = find(scope, name)) {
    s->initial = initial;
    s->format = std::move(format);
    return;
  }
  index_[scope + "\n" + name] = signals_.size();
  signals_.push_back(Signal{scope, name, initial, std::move(format), {}});
}

void Vcd::change(double time, const std::string& scope, const std::string& name,
                 const std::string& value, bool declareIfNew) {
  Signal* s = find(scope, name);
  if (!s && declareIfNew) {
    declare(scope, name, value);
    s = find(scope, name);
  }
  if (s) s->changes.emplace_back(time, value);
}

namespace {

bool whole_number(const std::string& text, long long* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(text.c_str(), &end, 0);
  if (*end || errno) return false;
  *value = v;
  return true;
}

// VCD identifiers: printable characters '!' to '~', base 94.
std::string vcd_id(size_t n) {
  std::string id;
  do {
    id += static_cast<char>('!' + n % 94);
    n /= 94;
  } while (n);
  return id;
}

std::string binary(unsigned long long v, int width) {
  std::string out;
  for (int b = width - 1; b >= 0; --b) out += (v >> b) & 1 ? '1' : '0';
  const size_t first = out.find('1');
  return first == std::string::npos ? "0" : out.substr(first);
}

struct Encoded {
  std::string id;
  int width = 1;                    // 1: wire; otherwise a vector
  bool integer = false;             // written as a 32-bit integer variable
  std::vector<std::string> states;  // named states, by index
  std::string value(const std::string& text) const {
    unsigned long long v = 0;
    if (!states.empty()) {
      v = std::find(states.begin(), states.end(), text) - states.begin();
    } else {
      long long n = 0;
      whole_number(text, &n);
      v = static_cast<unsigned long long>(n) & 0xffffffffull;
    }
    if (width == 1) return std::string(v ? "1" : "0") + id;
    return "b" + binary(v, width) + " " + id;
  }
};

}  // namespace

bool Vcd::write(const std::string& path, double origin, const std::string& title) const {
  FILE* f = std::fopen(path.c_str(), "w");
  if (!f) return false;

  std::vector<Encoded> enc(signals_.size());
  for (size_t i = 0; i < signals_.size(); ++i) {
    const Signal& s = signals_[i];
    Encoded& e = enc[i];
    e.id = vcd_id(i);
    std::vector<std::string> values{s.initial};
    for (const auto& [t, v] : s.changes) values.push_back(v);
    bool bits = s.format.states.empty(), numbers = true;
    for (const auto& v : values) {
      long long n = 0;
      if (!whole_number(v, &n)) numbers = false;
      if (v != "0" && v != "1") bits = false;
    }
    if (bits && !s.format.integer) continue;
    if (s.format.integer || (numbers && s.format.states.empty())) {
      e.integer = true;
      e.width = 32;
      continue;
    }
    e.states = s.format.states;
    for (const auto& v : values) {
      if (std::find(e.states.begin(), e.states.end(), v) == e.states.end()) e.states.push_back(v);
    }
    e.width = 1;
    while ((size_t{1} << e.width) < e.states.size()) ++e.width;
  }

  const std::time_t now = std::time(nullptr);
  char date[64];
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
  std::fprintf(f, "$date %s $end\n$version %s $end\n$timescale 1us $end\n", date, title.c_str());
  for (size_t i = 0; i < signals_.size(); ++i) {
    if (enc[i].states.empty()) continue;
    std::string names;
    for (size_t k = 0; k < enc[i].states.size(); ++k) {
      names += " " + std::to_string(k) + "=" + enc[i].states[k];
    }
    std::fprintf(f, "$comment %s.%s:%s $end\n", signals_[i].scope.c_str(), signals_[i].name.c_str(),
                 names.c_str());
  }
  std::fprintf(f, "$scope module fixture $end\n");
  std::string scope;
  // Signals of one scope are declared together, in the order their scopes first appear.
  std::vector<size_t> order(signals_.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::map<std::string, size_t> firstOf;
  for (size_t i = 0; i < signals_.size(); ++i) firstOf.emplace(signals_[i].scope, i);
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return firstOf[signals_[a].scope] < firstOf[signals_[b].scope];
  });
  for (size_t i : order) {
    const Signal& s = signals_[i];
    if (s.scope != scope) {
      if (!scope.empty()) std::fprintf(f, "$upscope $end\n");
      scope = s.scope;
      std::fprintf(f, "$scope module %s $end\n", scope.c_str());
    }
    std::fprintf(f, "$var %s %d %s %s.%s $end\n", enc[i].integer ? "integer" : "wire", enc[i].width,
                 enc[i].id.c_str(), s.scope.c_str(), s.name.c_str());
  }
  if (!scope.empty()) std::fprintf(f, "$upscope $end\n");
  std::fprintf(f, "$upscope $end\n$enddefinitions $end\n#0\n$dumpvars\n");
  for (size_t i = 0; i < signals_.size(); ++i) {
    std::fprintf(f, "%s\n", enc[i].value(signals_[i].initial).c_str());
  }
  std::fprintf(f, "$end\n");

  struct Change {
    long long time;
    size_t signal;
    const std::string* value;
  };
  std::vector<Change> changes;
  for (size_t i = 0; i < signals_.size(); ++i) {
    for (const auto& [t, v] : signals_[i].changes) {
      const long long us = std::max(0LL, std::llround((t - origin) * 1e6));
      changes.push_back({us, i, &v});
    }
  }
  std::stable_sort(changes.begin(), changes.end(),
                   [](const Change& a, const Change& b) { return a.time < b.time; });
  long long at = 0;
  for (const auto& c : changes) {
    if (c.time != at) {
      std::fprintf(f, "#%lld\n", c.time);
      at = c.time;
    }
    std::fprintf(f, "%s\n", enc[c.signal].value(*c.value).c_str());
  }
  if (!changes.empty()) std::fprintf(f, "#%lld\n", at + 1);
  const bool ok = std::ferror(f) == 0;
  return std::fclose(f) == 0 && ok;
}

}  // namespace sim
