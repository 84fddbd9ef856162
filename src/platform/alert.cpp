#include <sys/wait.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/platform.h"

namespace brakwell::platform {
namespace {

std::mutex sinkMutex;
AlertSink sink = nullptr;
void* sinkContext = nullptr;

bool graphical_session() {
  const char* x11 = std::getenv("DISPLAY");
  const char* wayland = std::getenv("WAYLAND_DISPLAY");
  return (x11 && *x11) || (wayland && *wayland);
}

// True when zenity ran and exited on its own (any button or the window closed); false when it
// could not be started, so that the caller falls back to the text channels.
bool show_dialog(const char* title, const char* message, const char* button) {
  const std::string titleArg = std::string("--title=") + title;
  const std::string textArg = std::string("--text=") + message;
  const std::string buttonArg = std::string("--ok-label=") + button;
  // --no-markup: the message is plain text, a device name must not be read as Pango markup.
  const char* const argv[] = {"zenity",        "--error",         "--no-markup", titleArg.c_str(),
                              textArg.c_str(), buttonArg.c_str(), nullptr};
  static const std::string zenity = system_program("zenity");
  const int status = run_program(zenity, argv);
  // 127 and signals mean zenity never showed the dialog (no display connection, missing libs).
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) != 127 &&
         WEXITSTATUS(status) != 255;
}

}  // namespace

void alert(const char* title, const char* message, const char* button) noexcept {
  title = title ? title : "";
  message = message ? message : "";
  button = button ? button : "";
  if (std::lock_guard lock(sinkMutex); sink) {
    sink(title, message, button, sinkContext);
    return;
  }
  try {
    if (graphical_session() && show_dialog(title, message, button)) return;
  } catch (...) {
    // No memory to start the dialog: the text channels below still tell the operator.
  }
  std::fprintf(stderr, "%s: %s\n", title, message);
  std::fflush(stderr);
  syslog(LOG_USER | LOG_NOTICE, "%s: %s", title, message);
}

void set_alert_sink(AlertSink newSink, void* context) {
  std::lock_guard lock(sinkMutex);
  sink = newSink;
  sinkContext = context;
}

}  // namespace brakwell::platform
