#include "keyboard.h"

// clang-format off
#include <sys/ioctl.h>
#include <linux/uinput.h>
// clang-format on

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sim {
namespace {

constexpr unsigned long kSizeless = ~(static_cast<unsigned long>(_IOC_SIZEMASK) << _IOC_SIZESHIFT);

// Copies `len` bytes out of the client's memory at the ioctl argument.
UMockdevIoctlData* resolve(UMockdevIoctlClient* client, size_t len) {
  return umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0, len, nullptr);
}

}  // namespace

Keyboard::Keyboard(Testbed& bed) : bed_(bed) {
  bed_.add_from_string(
      "P: /devices/virtual/misc/uinput\nN: uinput\nE: SUBSYSTEM=misc\nE: DEVNAME=/dev/uinput\n");
  handler_ = umockdev_ioctl_base_new();
  g_signal_connect(handler_, "handle-ioctl", G_CALLBACK(on_ioctl), this);
  g_signal_connect(handler_, "handle-write", G_CALLBACK(on_write), this);
  GError* error = nullptr;
  if (!umockdev_testbed_attach_ioctl(bed_.raw(), "/dev/uinput", handler_, &error)) {
    std::fprintf(stderr, "sim: cannot serve /dev/uinput: %s\n", error ? error->message : "?");
    std::abort();
  }
}

Keyboard::~Keyboard() {
  umockdev_testbed_detach_ioctl(bed_.raw(), "/dev/uinput", nullptr);
  g_signal_handlers_disconnect_by_data(handler_, this);
  g_object_unref(handler_);
}

gboolean Keyboard::on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, Keyboard* self) {
  const unsigned long request = umockdev_ioctl_client_get_request(client);
  long result = 0;
  if (request == UI_GET_VERSION) {
    const unsigned version = 5;  // set-up through UI_DEV_SETUP
    std::memcpy(resolve(client, sizeof version)->data, &version, sizeof version);
  } else if ((request & kSizeless) == (UI_GET_SYSNAME(0) & kSizeless)) {
    const size_t len = _IOC_SIZE(request);
    std::snprintf(reinterpret_cast<char*>(resolve(client, len)->data), len, "input99");
  } else if (request == UI_DEV_SETUP) {
    uinput_setup setup{};
    std::memcpy(&setup, resolve(client, sizeof setup)->data, sizeof setup);
    std::lock_guard lock(self->mutex_);
    self->name_.assign(setup.name, strnlen(setup.name, sizeof setup.name));
  } else if (request == UI_SET_KEYBIT) {
    // The argument is the key code itself, not a pointer.
    std::lock_guard lock(self->mutex_);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    long code = 0;
    std::memcpy(&code, arg->data, std::min<size_t>(sizeof code, arg->data_len));
    self->enabledKeys_.push_back(static_cast<int>(code));
  } else if (request == UI_DEV_CREATE) {
    std::lock_guard lock(self->mutex_);
    ++self->created_;
  }
  umockdev_ioctl_client_complete(client, result, 0);
  return TRUE;
}

gboolean Keyboard::on_write(UMockdevIoctlBase*, UMockdevIoctlClient* client, Keyboard* self) {
  UMockdevIoctlData* data = umockdev_ioctl_client_get_arg(client);
  const double t = now();
  for (int at = 0; at + static_cast<int>(sizeof(input_event)) <= data->data_len;
       at += sizeof(input_event)) {
    input_event e{};
    std::memcpy(&e, data->data + at, sizeof e);
    {
      std::lock_guard lock(self->mutex_);
      self->events_.push_back({t, e.type, e.code, e.value});
    }
    if (e.type == EV_KEY) {
      self->bed_.trace("keyboard", "key" + std::to_string(e.code) + "=" + std::to_string(e.value));
    }
  }
  umockdev_ioctl_client_complete(client, data->data_len, 0);
  return TRUE;
}

std::vector<KeyEvent> Keyboard::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

std::vector<KeyEvent> Keyboard::keys() const {
  std::vector<KeyEvent> out;
  for (const KeyEvent& e : events()) {
    if (e.type == EV_KEY) out.push_back(e);
  }
  return out;
}

void Keyboard::clear() {
  std::lock_guard lock(mutex_);
  events_.clear();
}

int Keyboard::created() const {
  std::lock_guard lock(mutex_);
  return created_;
}

std::string Keyboard::name() const {
  std::lock_guard lock(mutex_);
  return name_;
}

std::vector<int> Keyboard::enabled_keys() const {
  std::lock_guard lock(mutex_);
  return enabledKeys_;
}

}  // namespace sim
