// fixturectl: the pieces every subcommand shares — exit codes, failures, output, the station
// it opens and the command table.
#pragma once

#include <Brakwell.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace fixturectl {

using Json = nlohmann::ordered_json;
inline constexpr int kSchema = 1;  // the version of the JSON output, documented in USAGE.md

// Exit codes a script can rely on.
enum Exit : int {
  kOk = 0,
  kFailed = 1,    // the fixture refused or did not answer: a write failed, no status reply
  kUsage = 2,     // bad command line
  kNotFound = 3,  // no fixture, site port or module found
  kTimedOut = 4,  // the operator did not complete the press cycle in time
};

// A command that cannot go on: its answer carries the message (and the hint) and exits `code`.
struct Failure {
  int code;
  std::string message;
  std::string hint;  // what to do about it; may be empty
};
[[noreturn]] void fail(int code, const std::string& message, const std::string& hint = "");

// Where fixturectl itself writes. The library's own messages go to the real standard error with
// --log and nowhere otherwise, so that standard output holds only fixturectl's answers.
class Output {
 public:
  // Takes standard output and standard error for fixturectl and points the process's own
  // descriptors away from the terminal.
  void take_terminal(bool json, bool libraryLog);
  bool json() const { return json_; }
  void set_json(bool json) { json_ = json; }
  Json& result() { return result_; }
  FILE* err() const { return err_; }
  void begin(const char* command);  // null: no command yet
  // A narration line (text mode only, standard output), flushed at once.
  void say(const std::string& line);
  // A line on standard error, and in JSON mode a "warnings" entry too.
  void warn(const std::string& line);
  // The answer: text mode renders the fields on success and the failure on standard error;
  // JSON mode writes the whole object either way.
  void finish(int code, const Failure* failure, double seconds);

 private:
  bool json_ = false;
  Json command_;  // null before a command is known
  Json result_ = Json::object();
  Json warnings_ = Json::array();
  FILE* out_ = stdout;
  FILE* err_ = stderr;
};

struct Context {
  Output out;
  int well = 0;  // --well, as the library's 0-based index
  // Controllers made so far, by well index; the first one runs the station start.
  FixtureController* controllers[2] = {nullptr, nullptr};
  bool started = false;

  // The controller of a well, made on first use. Fails with kNotFound (and what to do) when
  // no fixture board answers; warns once when a well has boards missing.
  FixtureController* controller(int wellIndex);
  // The site's controller (well of the site) and its site number within the well.
  FixtureController* controller_for_site(int site, int* siteInWell);
  void require_site_port(int site);  // kNotFound when the site's board port did not open
  void release();
};

// The sites (1-8) whose fixture board has no port: a well with any of them does not count.
std::vector<int> missing_sites(int wellIndex);

// Runs `fn` while a progress line ("what… 3.2 s") ticks on standard error.
void with_progress(Output& out, const std::string& what, const std::function<void()>& fn);

// The status word's bits (active low) by name; null for no answer (-1).
Json decode_status(int status);

// Arguments of every command, filled by CLI11 before anything touches the fixture.
struct Args {
  std::string word;    // the command's first word: on|off, a mode, an LED state, an op
  std::string target;  // SITE or all
  int site = 0;        // 1-8
  std::string name, value, text, script;
  int module = 0, reg = 0;
  double seconds = 0;
  bool flag = false, automatic = false, exact = false, read = false;
  double readWait = 0.5;
};

struct Command {
  const char* name;
  const char* summary;
  const char* help;  // more for --help; may be empty
  void (*define)(CLI::App& sub, Args& args);
  int (*run)(Context& ctx, const Args& args);
};
const std::vector<Command>& commands();
int run_demo(Context& ctx, const Args& args);

// Reads one command per line from `in` against the started station (the `session` command).
int run_session(Context& ctx, FILE* in);

// Apple unit ids as a station arms its tracker with: normal, recovery and DFU boots.
inline constexpr long kAppleVendor = 0x05ac;
inline constexpr long kUnitProducts[] = {0x12a8, 0x1281, 0x1227};
inline constexpr long kDfuProduct = 0x1227;

}  // namespace fixturectl
