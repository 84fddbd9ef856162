// fixturectl: a command-line host on libBrakwell, for bring-up and debugging at the bench.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli.h"

using namespace fixturectl;

namespace {

const char* kGlobalHelp =
    "Global options (anywhere before a lone --):\n"
    "  --well 0|1   the well for well-wide commands (default 0, the first well)\n"
    "  --json       one JSON object on standard output instead of text\n"
    "  --log        mirror the library's log lines to standard error (BRAKWELL_LOG=stderr)\n"
    "  --help, -h   this text, or the subcommand's own help\n"
    "SITE is the station-wide site 1-8 (the 0N in the board's serial number VEL_0N_A); sites\n"
    "5-8 belong to the second well.\n"
    "Exit codes: 0 done, 1 the fixture refused or did not answer, 2 bad command line,\n"
    "3 no fixture / site / module found, 4 the operator did not finish in time.\n";

const Command* find_command(const std::string& name) {
  for (const auto& c : commands()) {
    if (name == c.name) return &c;
  }
  return nullptr;
}

void print_overview(FILE* f) {
  std::fprintf(f,
               "usage: fixturectl [--well 0|1] [--json] [--log] COMMAND [ARGS...]\n\nCommands:\n");
  for (const auto& c : commands()) std::fprintf(f, "  %-14s %s\n", c.name, c.summary);
  std::fprintf(f, "\n%s\nfixturectl COMMAND --help tells more about one command.\n", kGlobalHelp);
}

void print_command_help(const Command& c) {
  std::printf("usage: fixturectl %s %s\n\n%s\n%s\n", c.name, c.usage, c.summary, c.help);
}

int help_command(Context&, const std::vector<std::string>& args) {
  if (args.empty()) {
    print_overview(stdout);
    return kOk;
  }
  const Command* c = find_command(args[0]);
  if (!c) usage_error("no command named '" + args[0] + "'");
  print_command_help(*c);
  return kOk;
}

}  // namespace

int main(int argc, char** argv) {
  Context ctx;
  bool json = false;
  bool help = false;
  std::vector<std::string> words;
  bool literal = false;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (literal) {
      words.push_back(a);
    } else if (a == "--") {
      literal = true;
    } else if (a == "--json") {
      json = true;
    } else if (a == "--log") {
      setenv("BRAKWELL_LOG", "stderr", 1);
    } else if (a == "--help" || a == "-h") {
      help = true;
    } else if (a == "--well" || a.rfind("--well=", 0) == 0) {
      std::string value;
      if (a == "--well") {
        if (i + 1 < argc) value = argv[++i];
      } else {
        value = a.substr(7);
      }
      if (value != "0" && value != "1") {
        std::fprintf(stderr, "fixturectl: --well takes 0 or 1, not '%s'\n", value.c_str());
        return kUsage;
      }
      ctx.well = value[0] - '0';
      ctx.wellSet = true;
    } else {
      words.push_back(a);
    }
  }

  if (words.empty()) {
    if (help) {
      print_overview(stdout);
      return kOk;
    }
    print_overview(stderr);
    return kUsage;
  }
  const std::string name = words[0];
  words.erase(words.begin());
  if (name == "help") {
    try {
      return help_command(ctx, words);
    } catch (const Failure& f) {
      std::fprintf(stderr, "fixturectl: %s\n", f.message.c_str());
      return f.code;
    }
  }
  const Command* command = find_command(name);
  if (!command) {
    std::fprintf(stderr, "fixturectl: no command named '%s'\n\n", name.c_str());
    print_overview(stderr);
    return kUsage;
  }
  if (help) {
    print_command_help(*command);
    return kOk;
  }

  ctx.out.start(json, name);
  int code = kOk;
  Failure failure{kOk, "", ""};
  bool failed = false;
  try {
    code = command->run(ctx, words);
  } catch (const Failure& f) {
    failure = f;
    failed = true;
    code = f.code;
  }
  if (failed && !json) {
    std::fprintf(stderr, "fixturectl %s: %s\n", name.c_str(), failure.message.c_str());
    if (!failure.hint.empty()) std::fprintf(stderr, "%s\n", failure.hint.c_str());
    if (code == kUsage) {
      std::fprintf(stderr, "usage: fixturectl %s %s\n", command->name, command->usage);
    }
  }
  ctx.out.finish(code, failed ? &failure : nullptr);
  ctx.release();
  return code;
}
