// The operator alert: one blocking message with a single acknowledgement button.
#pragma once

namespace brakwell::platform {

// Shows the alert and returns once the operator has dismissed it. With a graphical session
// (DISPLAY or WAYLAND_DISPLAY set) and zenity in a system directory it is a zenity dialog;
// otherwise the title and message go to standard error and the system log and the call returns
// at once.
void alert(const char* title, const char* message, const char* button);

// Test seam: while a sink is attached, every alert is handed to it instead of being shown.
// Pass nullptr to detach.
using AlertSink = void (*)(const char* title, const char* message, const char* button,
                           void* context);
void set_alert_sink(AlertSink sink, void* context);

}  // namespace brakwell::platform
