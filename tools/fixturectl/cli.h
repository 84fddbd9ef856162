// fixturectl: the pieces every subcommand shares — exit codes, errors, output, argument
// readers and the station it opens.
#pragma once

#include <Brakwell.h>

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "json.h"

namespace fixturectl {

// Exit codes a script can rely on.
enum Exit : int {
  kOk = 0,
  kFailed = 1,    // the fixture refused or did not answer: a write failed, no status reply
  kUsage = 2,     // bad command line
  kNotFound = 3,  // no fixture, site port or module found
  kTimedOut = 4,  // the operator did not complete the press cycle in time
};

// A subcommand that cannot go on: main prints it (and its hint) and exits with `code`.
struct Failure {
  int code;
  std::string message;
  std::string hint;  // what to do about it; may be empty
};

[[noreturn]] void usage_error(const std::string& message);
[[noreturn]] void fail(int code, const std::string& message, const std::string& hint = "");

// Text for people or one JSON object for scripts. In JSON mode the library's own
// standard-output messages are sent to standard error, so standard output holds only JSON.
class Output {
 public:
  void start(bool json, std::string command);
  bool json() const { return json_; }
  Json& result() { return result_; }
  // A narration line (text mode only), flushed at once.
  void say(const std::string& line);
  // Writes the result: text mode renders the fields, JSON mode the whole object.
  void finish(int code, const Failure* failure);

 private:
  bool json_ = false;
  std::string command_;
  Json result_ = Json::object();
  FILE* out_ = stdout;
};

struct Context {
  Output out;
  int well = 0;  // --well
  bool wellSet = false;
  // Controllers made so far, by well index; each creation runs the station start.
  FixtureController* controllers[2] = {nullptr, nullptr};

  // The controller of a well, made on first use. Fails with kNotFound (and what to do) when
  // no fixture board answers.
  FixtureController* controller(int wellIndex);
  // The site's controller (well of the site) and its site number within the well.
  FixtureController* controller_for_site(int site, int* siteInWell);
  void require_site_port(int site);  // kNotFound when the site's board port did not open
  void release();
};

// Argument readers: each calls usage_error with a message naming the argument.
int parse_site(const std::string& text);  // 1-8
int parse_int(const std::string& text, const char* what);
double parse_seconds(const std::string& text, const char* what);
bool parse_on_off(const std::string& text);
int parse_module(const std::string& text);  // 0 or 1
std::string hex(unsigned value);            // "0x1230000"

// Runs `fn` while a progress line ("what… 3.2 s") ticks on standard error.
void with_progress(const std::string& what, const std::function<void()>& fn);

struct Command {
  const char* name;
  const char* usage;    // arguments after the name
  const char* summary;  // one line for the list
  const char* help;     // the rest of --help
  int (*run)(Context& ctx, const std::vector<std::string>& args);
};
const std::vector<Command>& commands();
int run_demo(Context& ctx, const std::vector<std::string>& args);

// Apple unit ids as a station arms its tracker with: normal, recovery and DFU boots.
inline constexpr long kAppleVendor = 0x05ac;
inline constexpr long kUnitProducts[] = {0x12a8, 0x1281, 0x1227};
inline constexpr long kDfuProduct = 0x1227;

}  // namespace fixturectl
