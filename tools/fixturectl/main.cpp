// fixturectl: a command-line host on libBrakwell, for bring-up and debugging at the bench.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"

using namespace fixturectl;

namespace {

const char* kFooter =
    "SITE is the station-wide site 1-8 (the 0N in the board's serial number VEL_0N_A); sites\n"
    "5-8 belong to the second well.\n"
    "Exit codes: 0 done, 1 the fixture refused or did not answer, 2 bad command line,\n"
    "3 no fixture / site / module found, 4 the operator did not finish in time.\n"
    "fixturectl COMMAND --help tells more about one command.";

// One command line, as CLI11 reads it.
struct Invocation {
  bool json = false, log = false;
  int well = 1;
  Args args;
  const Command* command = nullptr;
};

std::unique_ptr<CLI::App> make_app(Invocation& inv) {
  auto app = std::make_unique<CLI::App>(
      "A command-line host on libBrakwell, for bring-up and "
      "debugging at the bench.",
      "fixturectl");
  app->set_version_flag("--version", std::string("fixturectl ") + BRAKWELL_TOOLS_VERSION);
  app->add_option("--well", inv.well, "the well for well-wide commands (default 1)")
      ->check(CLI::Range(1, 2));
  app->add_flag("--json", inv.json, "one JSON object per answer on standard output (schema 1)");
  app->add_flag("--log", inv.log, "the library's own messages and log lines on standard error");
  app->footer(kFooter);
  app->require_subcommand(1, 1);
  app->fallthrough();  // global options may follow the command too
  for (const auto& c : commands()) {
    CLI::App* sub = app->add_subcommand(c.name, c.summary);
    if (c.help[0]) sub->footer(c.help);
    c.define(*sub, inv.args);
  }
  return app;
}

bool wants_json(int argc, char** argv) {
  for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
    if (std::strcmp(argv[i], "--json") == 0) return true;
  }
  return false;
}

// A bad command line: exit 2 before anything touches the fixture.
int usage_failure(Output& out, const Invocation& inv, const std::string& message) {
  out.begin(inv.command ? inv.command->name : nullptr);
  const Failure f{kUsage, message, "  fixturectl --help lists the commands and their arguments"};
  out.finish(kUsage, &f, 0);
  return kUsage;
}

// Runs one parsed command against the station; the answer is written when it ends.
int execute(Context& ctx, const Invocation& inv) {
  ctx.well = inv.well - 1;
  ctx.out.begin(inv.command->name);
  const auto start = std::chrono::steady_clock::now();
  int code = kOk;
  std::unique_ptr<Failure> failure;
  try {
    code = inv.command->run(ctx, inv.args);
  } catch (const Failure& f) {
    failure = std::make_unique<Failure>(f);
    code = f.code;
  }
  ctx.out.finish(code, failure.get(),
                 std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  return code;
}

// Parses a command line; -1 when it is good to run, else the exit code (help, version, bad).
int parse(CLI::App& app, Invocation& inv, Output& out, std::vector<std::string> words) {
  if (!words.empty() && words[0] == "help") {  // "help COMMAND" is "COMMAND --help"
    words.erase(words.begin());
    words.push_back("--help");
  }
  const std::vector<std::string> given = words;
  std::reverse(words.begin(), words.end());  // CLI11 takes them last first
  auto which = [&] {
    for (const auto* sub : app.get_subcommands()) {
      for (const auto& c : commands()) {
        if (sub->get_name() == c.name) inv.command = &c;
      }
    }
  };
  try {
    app.parse(words);
    which();
    return -1;
  } catch (const CLI::ParseError& e) {
    which();
    if (e.get_exit_code() == 0) {  // --help or --version
      std::ostringstream text, ignored;
      app.exit(e, text, ignored);
      std::fputs(text.str().c_str(), stdout);
      std::fflush(stdout);
      return kOk;
    }
    std::string message = e.what();
    for (size_t i = 0; !inv.command && i < given.size(); ++i) {
      if (given[i] == "--well") {
        ++i;  // its value
        continue;
      }
      if (given[i][0] == '-') continue;
      message = "no command named '" + given[i] + "'";
      break;
    }
    return usage_failure(out, inv, message);
  }
}

}  // namespace

namespace fixturectl {

// session: one command per line against the station started once.
int run_session(Context& ctx, FILE* in) {
  const int well = ctx.well;  // each line starts from the session's own --well
  int status = kOk;
  char* line = nullptr;
  size_t size = 0;
  while (getline(&line, &size, in) > 0) {
    std::string text = line;
    text.erase(0, text.find_first_not_of(" \t\r\n"));
    if (text.empty() || text[0] == '#') continue;
    Invocation inv;
    inv.well = well + 1;
    auto app = make_app(inv);
    std::vector<std::string> words;
    try {
      words = CLI::detail::split_up(text);
    } catch (const CLI::ParseError& e) {
      status = usage_failure(ctx.out, inv, e.what());
      continue;
    }
    const int parsed = parse(*app, inv, ctx.out, words);
    if (parsed > 0) status = parsed;
    if (parsed >= 0) continue;
    if (std::strcmp(inv.command->name, "session") == 0) {
      status = usage_failure(ctx.out, inv, "a session cannot start another session");
      continue;
    }
    const int code = execute(ctx, inv);
    if (code != kOk) status = code;
  }
  std::free(line);
  return status;
}

void define_session(CLI::App& sub, Args& a) {
  sub.add_option("FILE", a.script, "the commands, one per line (default: standard input)")
      ->check(CLI::ExistingFile);
}

int cmd_session(Context& ctx, const Args& a) {
  FILE* in = a.script.empty() ? stdin : std::fopen(a.script.c_str(), "re");
  if (!in) fail(kUsage, "cannot read " + a.script);
  ctx.controller(ctx.well);  // the one station start of the session
  const int status = run_session(ctx, in);
  if (in != stdin) std::fclose(in);
  // The session's own answer comes last; a failed command already answered for itself.
  ctx.out.begin("session");
  if (status != kOk)
    fail(status, "a command of the session failed (exit " + std::to_string(status) + ")");
  return kOk;
}

}  // namespace fixturectl

int main(int argc, char** argv) {
  Context ctx;
  Invocation inv;
  inv.json = wants_json(argc, argv);
  ctx.out.set_json(inv.json);
  auto app = make_app(inv);
  const int parsed = parse(*app, inv, ctx.out, std::vector<std::string>(argv + 1, argv + argc));
  if (parsed >= 0) return parsed;
  ctx.out.take_terminal(inv.json, inv.log);
  if (inv.log) setenv("BRAKWELL_LOG", "stderr", 1);
  const int code = execute(ctx, inv);
  ctx.release();
  return code;
}
