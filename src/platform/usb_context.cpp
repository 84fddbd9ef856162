#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/platform.h"

namespace brakwell::platform::usb {

using platform::debug;

namespace {

struct Watch {
  int id;
  uint16_t vendor, product;
  HotplugHandler handler;
  libusb_hotplug_callback_handle handle = 0;
};

// Work handed to the event thread by run_on_event_thread; the caller waits for `done`.
struct Task {
  const std::function<void()>& body;
  bool done = false, ran = false;  // under queueMutex
};

struct Event {
  HotplugHandler handler = nullptr;
  int watch = 0;
  libusb_device* device = nullptr;  // referenced while queued
  bool arrived = false;
  Task* task = nullptr;  // instead of a device event
};

// Function-local, made at first use: it is destroyed before the namespace-scope state of the
// units that use it, so the event thread is gone before their tables are.
struct State {
  std::mutex mutex;  // context, watches and thread
  libusb_context* ctx = nullptr;
  // The process that made the context. A forked child shares the context's descriptors (and
  // libusb's device monitor) with its parent: there the library releases nothing.
  std::atomic<pid_t> owner{0};
  std::vector<std::unique_ptr<Watch>> watches;
  int nextWatch = 1;
  std::thread thread;
  bool running = false;  // written under mutex, read by the event thread through stop
  std::mutex queueMutex;
  std::condition_variable taskDone;
  std::deque<Event> queue;
  std::atomic<std::thread::id> threadId{};
  std::atomic<bool> stop{false};
  std::vector<ContextEndHook> endHooks;  // under mutex

  ~State();
};

State& state() {
  static State s;
  return s;
}

bool inherited(const State& s) {
  const pid_t owner = s.owner.load();
  return owner != 0 && owner != getpid();
}

// Inside libusb's event handling: only queue the work, never do USB I/O here.
int LIBUSB_CALL hotplug_callback(libusb_context* ctx, libusb_device* device,
                                 libusb_hotplug_event event, void* user) {
  State& s = state();
  const auto* watch = static_cast<const Watch*>(user);
  {
    std::lock_guard lock(s.queueMutex);
    s.queue.push_back(Event{watch->handler, watch->id, libusb_ref_device(device),
                            event == LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED});
  }
  if (std::this_thread::get_id() != s.threadId.load()) libusb_interrupt_event_handler(ctx);
  return 0;
}

void finish(State& s, Task* task, bool ran) {
  {
    std::lock_guard lock(s.queueMutex);
    task->done = true;
    task->ran = ran;
  }
  s.taskDone.notify_all();
}

void drain_queue(State& s) {
  for (;;) {
    Event event;
    {
      std::lock_guard lock(s.queueMutex);
      if (s.queue.empty()) return;
      event = s.queue.front();
      s.queue.pop_front();
    }
    if (event.task) {
      const bool run = !s.stop;
      if (run) guard("USB event thread", [&] { event.task->body(); });
      finish(s, event.task, run);
      continue;
    }
    if (!s.stop) {
      guard("USB event thread", [&] { event.handler(event.watch, event.device, event.arrived); });
    }
    libusb_unref_device(event.device);
  }
}

void event_thread(libusb_context* ctx) {
  State& s = state();
  while (!s.stop) {
    timeval wait{1, 0};
    libusb_handle_events_timeout_completed(ctx, &wait, nullptr);
    drain_queue(s);
  }
}

void stop_all(State& s) {
  if (inherited(s)) {
    // A forked child: the thread is its parent's, and so are the context and the devices.
    if (s.thread.joinable()) s.thread.detach();
    return;
  }
  if (std::this_thread::get_id() == s.threadId.load())
    return;  // a handler cannot end its own thread
  std::thread thread;
  libusb_context* ctx;
  {
    std::lock_guard lock(s.mutex);
    ctx = s.ctx;
    if (s.running) {
      s.stop = true;
      s.running = false;
      thread = std::move(s.thread);
    }
  }
  if (thread.joinable()) {
    libusb_interrupt_event_handler(ctx);
    thread.join();
  }
  std::lock_guard lock(s.mutex);
  s.threadId = std::thread::id();
  for (auto& watch : s.watches) libusb_hotplug_deregister_callback(s.ctx, watch->handle);
  s.watches.clear();
  std::deque<Event> left;
  {
    std::lock_guard queueLock(s.queueMutex);
    left.swap(s.queue);
  }
  for (auto& event : left) {
    if (event.task) {
      finish(s, event.task, false);
    } else {
      libusb_unref_device(event.device);
    }
  }
  if (s.ctx) {
    for (ContextEndHook hook : s.endHooks) hook();
    libusb_exit(s.ctx);
  }
  s.ctx = nullptr;
  s.owner = 0;
}

State::~State() { stop_all(*this); }

}  // namespace

libusb_context* context() {
  State& s = state();
  if (inherited(s)) return nullptr;
  std::lock_guard lock(s.mutex);
  if (!s.ctx) {
    if (libusb_init(&s.ctx) != LIBUSB_SUCCESS) {
      s.ctx = nullptr;
    } else {
      s.owner = getpid();
    }
  }
  return s.ctx;
}

std::optional<uint32_t> location_id(uint8_t bus, const uint8_t* ports, int count) {
  if (count < 0 || count > 6) return std::nullopt;
  uint32_t id = static_cast<uint32_t>(bus) << 24;
  for (int i = 0; i < count; ++i) {
    if (ports[i] > 15) return std::nullopt;
    id |= static_cast<uint32_t>(ports[i]) << (20 - 4 * i);
  }
  return id;
}

std::optional<uint32_t> location_id(libusb_device* device, int* error) {
  uint8_t ports[8];
  const int n = libusb_get_port_numbers(device, ports, sizeof ports);
  if (n < 0) {
    if (error) *error = n;
    return std::nullopt;
  }
  auto id = location_id(libusb_get_bus_number(device), ports, n);
  if (!id && error) *error = LIBUSB_ERROR_OVERFLOW;
  return id;
}

std::string utf16le_to_utf8(const unsigned char* text, size_t bytes) {
  std::string out;
  for (size_t i = 0; i + 1 < bytes; i += 2) {
    const unsigned unit = text[i] | text[i + 1] << 8;
    if (unit < 0x80) {
      out += static_cast<char>(unit);
    } else if (unit < 0x800) {
      out += static_cast<char>(0xc0 | unit >> 6);
      out += static_cast<char>(0x80 | (unit & 0x3f));
    } else {
      out += static_cast<char>(0xe0 | unit >> 12);
      out += static_cast<char>(0x80 | ((unit >> 6) & 0x3f));
      out += static_cast<char>(0x80 | (unit & 0x3f));
    }
  }
  return out;
}

std::string product_string(libusb_device_handle* handle) {
  libusb_device_descriptor descriptor{};
  if (!handle ||
      libusb_get_device_descriptor(libusb_get_device(handle), &descriptor) != LIBUSB_SUCCESS ||
      descriptor.iProduct == 0) {
    return "";
  }
  unsigned char buffer[256];
  int n = libusb_get_string_descriptor(handle, 0, 0, buffer, sizeof buffer);
  if (n < 4 || buffer[1] != LIBUSB_DT_STRING) {
    debug("no product name: no language list (%s)", n < 0 ? libusb_error_name(n) : "too short");
    return "";
  }
  const uint16_t language = static_cast<uint16_t>(buffer[2] | buffer[3] << 8);
  n = libusb_get_string_descriptor(handle, descriptor.iProduct, language, buffer, sizeof buffer);
  if (n < 2 || buffer[1] != LIBUSB_DT_STRING) {
    debug("no product name: string %d unreadable (%s)", descriptor.iProduct,
          n < 0 ? libusb_error_name(n) : "too short");
    return "";
  }
  n = std::min(n, static_cast<int>(buffer[0]));
  return utf16le_to_utf8(buffer + 2, n >= 2 ? static_cast<size_t>(n - 2) : 0);
}

std::string product_string(libusb_device* device) {
  libusb_device_descriptor descriptor{};
  if (libusb_get_device_descriptor(device, &descriptor) != LIBUSB_SUCCESS ||
      descriptor.iProduct == 0) {
    return "";
  }
  libusb_device_handle* handle = nullptr;
  if (const int rc = libusb_open(device, &handle); rc != LIBUSB_SUCCESS) {
    debug("no product name: libusb_open failed: %s", libusb_error_name(rc));
    return "";
  }
  std::string text = product_string(handle);
  libusb_close(handle);
  return text;
}

int watch_devices(uint16_t vendor, uint16_t product, HotplugHandler handler) {
  libusb_context* ctx = context();
  if (!ctx) return LIBUSB_ERROR_OTHER;
  if (!libusb_has_capability(LIBUSB_CAP_HAS_HOTPLUG)) return LIBUSB_ERROR_NOT_SUPPORTED;
  State& s = state();
  std::lock_guard lock(s.mutex);
  if (s.ctx != ctx) return LIBUSB_ERROR_OTHER;  // shut down meanwhile
  for (const auto& watch : s.watches) {
    if (watch->vendor == vendor && watch->product == product && watch->handler == handler) {
      return watch->id;
    }
  }
  // The thread first: if it cannot start, nothing is left registered.
  if (!s.running) {
    s.stop = false;
    s.thread = std::thread([ctx] {
      state().threadId = std::this_thread::get_id();
      event_thread(ctx);
    });
    s.running = true;
  }
  auto watch = std::make_unique<Watch>(Watch{s.nextWatch, vendor, product, handler});
  // No LIBUSB_HOTPLUG_ENUMERATE: the caller scans the devices already attached through
  // run_on_event_thread, in order with the events.
  const int rc = libusb_hotplug_register_callback(
      ctx, LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED | LIBUSB_HOTPLUG_EVENT_DEVICE_LEFT,
      LIBUSB_HOTPLUG_NO_FLAGS, vendor, product, LIBUSB_HOTPLUG_MATCH_ANY, hotplug_callback,
      watch.get(), &watch->handle);
  if (rc != LIBUSB_SUCCESS) return rc;
  ++s.nextWatch;
  s.watches.push_back(std::move(watch));
  return s.watches.back()->id;
}

bool run_on_event_thread(const std::function<void()>& body) {
  State& s = state();
  if (on_event_thread()) {
    body();
    return true;
  }
  Task task{body};
  {
    std::lock_guard lock(s.mutex);
    if (!s.running || inherited(s)) return false;
    {
      std::lock_guard queueLock(s.queueMutex);
      s.queue.push_back(Event{.task = &task});
    }
    libusb_interrupt_event_handler(s.ctx);
  }
  std::unique_lock lock(s.queueMutex);
  s.taskDone.wait(lock, [&] { return task.done; });
  return task.ran;
}

bool on_event_thread() { return std::this_thread::get_id() == state().threadId.load(); }

void shutdown() { stop_all(state()); }

void on_context_end(ContextEndHook hook) {
  State& s = state();
  std::lock_guard lock(s.mutex);
  if (std::find(s.endHooks.begin(), s.endHooks.end(), hook) == s.endHooks.end()) {
    s.endHooks.push_back(hook);
  }
}

}  // namespace brakwell::platform::usb
