#include "usb.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

// clang-format off
#include <sys/ioctl.h>
#include <linux/usbdevice_fs.h>
// clang-format on

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "topology.h"

namespace sim {

namespace {

constexpr uint8_t kStringIndexProduct = 2;
constexpr uint8_t kStringIndexSerial = 3;

void put16(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v & 0xff));
  out.push_back(static_cast<uint8_t>(v >> 8));
}

std::vector<UsbInterfaceSpec> effective_interfaces(const UsbDeviceSpec& desc) {
  if (!desc.interfaces.empty()) return desc.interfaces;
  if (desc.deviceClass == 9) return {UsbInterfaceSpec{9, 0, 0, {{0x81, 3, 1}}}};
  return {UsbInterfaceSpec{}};
}

// Device descriptor, then the one configuration with its interfaces and endpoints: the layout of
// the sysfs "descriptors" attribute.
std::vector<uint8_t> descriptors_of(const UsbDeviceSpec& desc) {
  std::vector<uint8_t> d = {18, 1};
  put16(d, 0x0200);
  d.insert(d.end(), {desc.deviceClass, 0, 0, 64});
  put16(d, desc.vendor);
  put16(d, desc.product);
  put16(d, 0x0100);
  d.push_back(0);  // iManufacturer
  d.push_back(desc.productName.empty() ? 0 : kStringIndexProduct);
  d.push_back(desc.serial.empty() ? 0 : kStringIndexSerial);
  d.push_back(1);
  const auto interfaces = effective_interfaces(desc);
  std::vector<uint8_t> c = {9, 2, 0, 0, static_cast<uint8_t>(interfaces.size()), 1, 0, 0x80, 50};
  for (size_t i = 0; i < interfaces.size(); ++i) {
    const auto& in = interfaces[i];
    c.insert(c.end(), {9, 4, static_cast<uint8_t>(i), 0, static_cast<uint8_t>(in.endpoints.size()),
                       in.cls, in.subclass, in.protocol, 0});
    for (const auto& ep : in.endpoints) {
      c.insert(c.end(), {7, 5, ep.address, ep.attributes});
      put16(c, ep.maxPacket);
      c.push_back((ep.attributes & 3) == 3 ? 12 : 0);
    }
  }
  c[2] = static_cast<uint8_t>(c.size() & 0xff);
  c[3] = static_cast<uint8_t>(c.size() >> 8);
  d.insert(d.end(), c.begin(), c.end());
  return d;
}

std::vector<uint8_t> string_descriptor(const std::string& text) {
  std::vector<uint8_t> out = {static_cast<uint8_t>(2 + 2 * text.size()), 3};
  for (unsigned char ch : text) put16(out, ch);
  return out;
}

std::string hex(const std::vector<uint8_t>& bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  for (uint8_t b : bytes) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::string three_digits(int n) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%03d", n);
  return buf;
}

std::string sys_path_of(const std::string& portPath) {
  const int bus = usb_bus_of(portPath);
  std::string path = std::string(kPciRoot) + "/usb" + std::to_string(bus);
  for (size_t i = 1; i <= portPath.size(); ++i) {
    if (i == portPath.size() || portPath[i] == '.') path += "/" + portPath.substr(0, i);
  }
  return path;
}

// A device record in umockdev's format. Attribute values end with a newline, as the kernel's do
// (lsusb and pyserial cut the last character of each, expecting one).
struct Record {
  std::string text;
  explicit Record(const std::string& sysPath) : text("P: " + sysPath + "\n") {}
  // Ends the value with the newline the kernel gives it. A text with a control character (a
  // device forging lines) cannot stand on one record line; umockdev takes it in hexadecimal.
  Record& attr(const std::string& name, const std::string& value) {
    const bool plain = std::all_of(value.begin(), value.end(),
                                   [](char c) { return static_cast<unsigned char>(c) >= 0x20; });
    std::vector<uint8_t> bytes(value.begin(), value.end());
    bytes.push_back('\n');
    text += plain ? "A: " + name + "=" + value + "\\n\n" : "H: " + name + "=" + hex(bytes) + "\n";
    return *this;
  }
  Record& env(const std::string& name, const std::string& value) {
    text += "E: " + name + "=" + value + "\n";
    return *this;
  }
  // A link such as "driver" to /sys/<target>, relative to the device's directory.
  Record& link_to_sys(const std::string& name, const std::string& target, int depth) {
    std::string up;
    for (int i = 0; i < depth; ++i) up += "../";
    text += "L: " + name + "=" + up + target + "\n";
    return *this;
  }
};

std::string format(const char* pattern, unsigned value) {
  char buf[32];
  std::snprintf(buf, sizeof buf, pattern, value);
  return buf;
}

int depth_of(const std::string& sysPath) {
  return static_cast<int>(std::count(sysPath.begin(), sysPath.end(), '/'));
}

// The driver the kernel would bind to an interface: lsusb -t shows it.
const char* driver_of(const UsbDeviceSpec& desc, const UsbInterfaceSpec& in) {
  if (in.cls == 9) return "hub";
  if (desc.vendor == 0x1fc9) return "cdc_acm";
  if (desc.vendor == 0x0403) return "ftdi_sio";
  return nullptr;
}

// umockdev hands uevents to datagram sockets whose queue holds few messages (net.unix.
// max_dgram_qlen, 10) and drops what does not fit. Before each uevent, wait until
// every listener of this process has taken what it was sent (up to 30 s).
void wait_for_listeners(const std::string& root) {
  const std::string prefix = root + "/event";
  std::vector<int> listeners;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(dir)) {
      const int fd = std::atoi(entry->d_name);
      struct stat st {};
      if (entry->d_name[0] == '.' || fstat(fd, &st) != 0 || !S_ISSOCK(st.st_mode)) continue;
      sockaddr_un address{};
      socklen_t length = sizeof address;
      if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
          address.sun_family == AF_UNIX &&
          std::strncmp(address.sun_path, prefix.c_str(), prefix.size()) == 0) {
        listeners.push_back(fd);
      }
    }
    closedir(dir);
  }
  for (int i = 0; i < 300000; ++i) {
    bool empty = true;
    for (int fd : listeners) {
      int pending = 0;
      if (ioctl(fd, FIONREAD, &pending) == 0 && pending > 0) empty = false;
    }
    if (empty) return;
    const timespec pause{0, 100000};
    nanosleep(&pause, nullptr);
  }
  std::fprintf(stderr,
               "sim: a uevent listener took nothing for 30 s; the next uevent may be lost\n");
}

}  // namespace

int usb_bus_of(const std::string& portPath) { return std::atoi(portPath.c_str()); }

std::vector<int> usb_ports_of(const std::string& portPath) {
  std::vector<int> ports;
  const size_t dash = portPath.find('-');
  if (dash == std::string::npos) return ports;
  for (size_t i = dash + 1; i < portPath.size();) {
    ports.push_back(std::atoi(portPath.c_str() + i));
    const size_t dot = portPath.find('.', i);
    if (dot == std::string::npos) break;
    i = dot + 1;
  }
  return ports;
}

// --- one device's usbfs emulation ------------------------------------------------------------

struct UsbDevice::Impl {
  // A submitted URB waiting to be reaped: its data objects are kept until then.
  struct Urb {
    UMockdevIoctlClient* client = nullptr;
    UMockdevIoctlData* urb = nullptr;     // owned reference
    UMockdevIoctlData* buffer = nullptr;  // owned reference, may be null
    bool ready = false;
    int status = 0;
    std::vector<uint8_t> answer;  // IN data, written after the setup packet for control
    bool control = false;
  };

  UsbDevice* owner = nullptr;
  UMockdevIoctlBase* handler = nullptr;
  std::string devnode;
  mutable std::mutex mutex;
  bool gone = false;
  bool failStrings = false;
  std::deque<Urb> urbs;
  std::vector<UsbSetup> controlLog;

  ~Impl() {
    for (auto& u : urbs) release(u);
  }
  static void release(Urb& u) {
    if (u.buffer) g_object_unref(u.buffer);
    if (u.urb) g_object_unref(u.urb);
    u.buffer = u.urb = nullptr;
  }

  static gboolean on_ioctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
    static_cast<Impl*>(self)->handle(client);
    return TRUE;
  }
  static void on_vanished(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) {
    auto* impl = static_cast<Impl*>(self);
    std::lock_guard lock(impl->mutex);
    for (auto it = impl->urbs.begin(); it != impl->urbs.end();) {
      if (it->client == client) {
        release(*it);
        it = impl->urbs.erase(it);
      } else {
        ++it;
      }
    }
  }

  void handle(UMockdevIoctlClient* client) {
    const gulong request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    {
      std::lock_guard lock(mutex);
      if (gone) {
        umockdev_ioctl_client_complete(client, -1, ENODEV);
        return;
      }
    }
    switch (request) {
      case USBDEVFS_GET_CAPABILITIES: {
        UMockdevIoctlData* caps = umockdev_ioctl_data_resolve(arg, 0, sizeof(uint32_t), nullptr);
        const uint32_t value = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
                               USBDEVFS_CAP_NO_PACKET_SIZE_LIM;
        if (caps) {
          std::memcpy(caps->data, &value, sizeof value);
          umockdev_ioctl_client_complete(client, 0, 0);
          g_object_unref(caps);
        } else {
          umockdev_ioctl_client_complete(client, -1, EFAULT);
        }
        return;
      }
      case USBDEVFS_SETCONFIGURATION:
      case USBDEVFS_CLAIMINTERFACE:
      case USBDEVFS_RELEASEINTERFACE:
      case USBDEVFS_SETINTERFACE:
      case USBDEVFS_CLEAR_HALT:
      case USBDEVFS_RESETEP:
      case USBDEVFS_RESET:
        umockdev_ioctl_client_complete(client, 0, 0);
        return;
      case USBDEVFS_GETDRIVER:
        umockdev_ioctl_client_complete(client, -1, ENODATA);
        return;
      case USBDEVFS_SUBMITURB:
        submit(client, arg);
        return;
      case USBDEVFS_REAPURB:
      case USBDEVFS_REAPURBNDELAY:
        reap(client, arg);
        return;
      case USBDEVFS_DISCARDURB:
        discard(client, arg);
        return;
      default:
        umockdev_ioctl_client_complete(client, -1, ENOTTY);
        return;
    }
  }

  void submit(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
    UMockdevIoctlData* urbData = umockdev_ioctl_data_resolve(arg, 0, sizeof(usbdevfs_urb), nullptr);
    if (!urbData) {
      umockdev_ioctl_client_complete(client, -1, EFAULT);
      return;
    }
    const auto* urb = reinterpret_cast<const usbdevfs_urb*>(urbData->data);
    UMockdevIoctlData* buffer = nullptr;
    if (urb->buffer_length > 0) {
      buffer = umockdev_ioctl_data_resolve(urbData, offsetof(usbdevfs_urb, buffer),
                                           static_cast<gsize>(urb->buffer_length), nullptr);
    }
    const size_t length = buffer ? static_cast<size_t>(buffer->data_len) : 0;
    Urb entry{};
    entry.client = client;
    entry.urb = urbData;
    entry.buffer = buffer;
    if (urb->type == USBDEVFS_URB_TYPE_CONTROL) {
      entry.control = true;
      entry.ready = true;
      if (length < 8) {
        entry.status = -EINVAL;
      } else {
        control(buffer->data, length - 8, entry);
      }
    } else if (urb->type == USBDEVFS_URB_TYPE_BULK || urb->type == USBDEVFS_URB_TYPE_INTERRUPT) {
      bulk(urb->endpoint, buffer ? buffer->data : nullptr, length, entry);
    } else {
      release(entry);
      umockdev_ioctl_client_complete(client, -1, EINVAL);
      return;
    }
    {
      std::lock_guard lock(mutex);
      urbs.push_back(entry);
    }
    umockdev_ioctl_client_complete(client, 0, 0);
  }

  void control(const uint8_t* packet, size_t room, Urb& entry) {
    const UsbSetup setup{packet[0], packet[1], static_cast<uint16_t>(packet[2] | packet[3] << 8),
                         static_cast<uint16_t>(packet[4] | packet[5] << 8),
                         static_cast<uint16_t>(packet[6] | packet[7] << 8)};
    bool failStringsNow;
    {
      std::lock_guard lock(mutex);
      controlLog.push_back(setup);
      failStringsNow = failStrings;
    }
    const size_t want = std::min<size_t>(setup.wLength, room);
    if (setup.bmRequestType == 0x80 && setup.bRequest == 6) {
      std::vector<uint8_t> answer;
      const uint8_t kind = setup.wValue >> 8, index = setup.wValue & 0xff;
      const UsbDeviceSpec& desc = owner->spec_;
      if (kind == 1 || kind == 2) {
        const auto all = descriptors_of(desc);
        answer = kind == 1 ? std::vector<uint8_t>(all.begin(), all.begin() + 18)
                           : std::vector<uint8_t>(all.begin() + 18, all.end());
      } else if (kind == 3 && !failStringsNow) {
        if (index == 0) answer = {4, 3, 0x09, 0x04};
        if (index == kStringIndexProduct && !desc.productName.empty()) {
          answer = string_descriptor(desc.productName);
        }
        if (index == kStringIndexSerial && !desc.serial.empty()) {
          answer = string_descriptor(desc.serial);
        }
      }
      if (answer.empty()) {
        entry.status = -EPIPE;  // a stall, as a device answers what it does not have
      } else {
        answer.resize(std::min(answer.size(), want));
        entry.answer = std::move(answer);
      }
      return;
    }
    // What lsusb -v asks besides descriptors: the device's status (bus powered, no remote
    // wake-up) and, of a hub, its hub descriptor (4 ports) and each port's status (powered).
    const bool hub = owner->spec_.deviceClass == 9;
    std::vector<uint8_t> status;
    if (setup.bmRequestType == 0x80 && setup.bRequest == 0) status = {0, 0};
    if (hub && setup.bmRequestType == 0xa0 && setup.bRequest == 6) {
      status = {9, 0x29, 4, 0xe0, 0, 50, 0, 0, 0xff};
    }
    if (hub && setup.bmRequestType == 0xa3 && setup.bRequest == 0) status = {0, 1, 0, 0};
    if (!status.empty()) {
      status.resize(std::min(status.size(), want));
      entry.answer = std::move(status);
      return;
    }
    std::vector<uint8_t> data;
    const bool in = setup.bmRequestType & 0x80;
    if (!in) data.assign(packet + 8, packet + 8 + want);
    if (!owner->on_control) {
      entry.status = -EPIPE;
      return;
    }
    if (!owner->on_control(setup, data)) {
      entry.status = -EPROTO;
      return;
    }
    if (in) {
      data.resize(std::min(data.size(), want));
      entry.answer = std::move(data);
    }
  }

  void bulk(uint8_t endpoint, const uint8_t* bytes, size_t length, Urb& entry) {
    std::vector<uint8_t> data;
    const bool in = endpoint & 0x80;
    if (!in && bytes) data.assign(bytes, bytes + length);
    if (!owner->on_bulk) {
      entry.ready = !in;  // an IN transfer nobody answers stays pending
      return;
    }
    entry.ready = true;
    if (!owner->on_bulk(endpoint, length, data)) {
      entry.status = -EPROTO;
    } else if (in) {
      data.resize(std::min(data.size(), length));
      entry.answer = std::move(data);
    }
  }

  void reap(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
    Urb entry{};
    {
      std::lock_guard lock(mutex);
      auto it = urbs.begin();
      while (it != urbs.end() && !(it->client == client && it->ready)) ++it;
      if (it == urbs.end()) {
        umockdev_ioctl_client_complete(client, -1, EAGAIN);
        return;
      }
      entry = *it;
      urbs.erase(it);
    }
    UMockdevIoctlData* slot = umockdev_ioctl_data_resolve(arg, 0, sizeof(void*), nullptr);
    auto* urb = reinterpret_cast<usbdevfs_urb*>(entry.urb->data);
    const size_t offset = entry.control ? 8 : 0;
    if (entry.buffer && !entry.answer.empty()) {
      const size_t n =
          std::min(entry.answer.size(), static_cast<size_t>(entry.buffer->data_len) - offset);
      std::memcpy(entry.buffer->data + offset, entry.answer.data(), n);
      urb->actual_length = static_cast<int>(n);
    } else if (entry.status == 0 && !(urb->endpoint & 0x80) && !entry.control) {
      urb->actual_length = urb->buffer_length;  // OUT: everything was taken
    } else if (entry.status == 0 && entry.control && !(entry.buffer->data[0] & 0x80)) {
      urb->actual_length = urb->buffer_length - 8;
    } else {
      urb->actual_length = 0;
    }
    urb->status = entry.status;
    if (slot) umockdev_ioctl_data_set_ptr(slot, 0, entry.urb);
    umockdev_ioctl_client_complete(client, slot ? 0 : -1, slot ? 0 : EFAULT);
    if (slot) g_object_unref(slot);
    release(entry);
  }

  void discard(UMockdevIoctlClient* client, UMockdevIoctlData* arg) {
    gulong address = 0;
    std::memcpy(&address, arg->data, std::min<size_t>(sizeof address, arg->data_len));
    std::lock_guard lock(mutex);
    for (auto& u : urbs) {
      if (u.client == client && u.urb->client_addr == address && !u.ready) {
        u.ready = true;
        u.status = -ENOENT;  // cancelled
        umockdev_ioctl_client_complete(client, 0, 0);
        return;
      }
    }
    umockdev_ioctl_client_complete(client, -1, EINVAL);  // already done: the caller reaps it
  }
};

UsbDevice::UsbDevice(UsbBus& bus, UsbDeviceSpec desc, int busnum, int devnum)
    : bus_(bus), spec_(std::move(desc)), busnum_(busnum), devnum_(devnum), impl_(new Impl) {
  impl_->owner = this;
  impl_->devnode = "/dev/bus/usb/" + three_digits(busnum) + "/" + three_digits(devnum);
}

UsbDevice::~UsbDevice() {
  if (impl_->handler) {
    umockdev_testbed_detach_ioctl(bus_.bed_.raw(), impl_->devnode.c_str(), nullptr);
    g_signal_handlers_disconnect_by_data(impl_->handler, impl_.get());
    g_object_unref(impl_->handler);
  }
}

// The device and its interfaces, with the attributes the kernel gives them (lsusb, lsusb -t and
// pyserial read these; libusb reads the device's).
std::vector<std::string> UsbDevice::sysfs_records() {
  const UsbDeviceSpec& d = spec_;
  const auto interfaces = effective_interfaces(d);
  const std::string path = sys_path();
  const bool root = d.portPath.rfind("usb", 0) == 0;
  Record dev(path);
  dev.text += "N: " + devnode().substr(5) + "\n";
  dev.attr("busnum", std::to_string(busnum_))
      .attr("devnum", std::to_string(devnum_))
      .attr("devpath", root ? "0" : d.portPath.substr(d.portPath.find('-') + 1))
      .attr("speed", "480")
      .attr("version", " 2.00")
      .attr("rx_lanes", "1")
      .attr("tx_lanes", "1")
      .attr("bConfigurationValue", "1")
      .attr("bNumConfigurations", "1")
      .attr("bNumInterfaces", format("%2u", static_cast<unsigned>(interfaces.size())))
      .attr("bDeviceClass", format("%02x", d.deviceClass))
      .attr("bDeviceSubClass", "00")
      .attr("bDeviceProtocol", d.deviceClass == 9 ? "01" : "00")
      .attr("bMaxPacketSize0", "64")
      .attr("bmAttributes", "80")
      .attr("bMaxPower", "100mA")
      .attr("bcdDevice", "0100")
      .attr("idVendor", format("%04x", d.vendor))
      .attr("idProduct", format("%04x", d.product))
      .attr("configuration", "")
      .attr("maxchild", d.deviceClass == 9 ? "4" : "0")
      .attr("authorized", "1")
      .attr("removable", root ? "unknown" : "removable");
  if (!d.productName.empty()) dev.attr("product", d.productName);
  if (!d.serial.empty()) dev.attr("serial", d.serial);
  dev.text += "H: descriptors=" + hex(descriptors_of(d)) + "\n";
  dev.env("SUBSYSTEM", "usb").env("DEVTYPE", "usb_device");
  dev.env("BUSNUM", three_digits(busnum_)).env("DEVNUM", three_digits(devnum_));
  dev.env("DEVNAME", devnode());
  const std::string ids = format("%x/", d.vendor) + format("%x/100", d.product);
  dev.env("PRODUCT", ids).link_to_sys("driver", "bus/usb/drivers/usb", depth_of(path));
  std::vector<std::string> records{dev.text};
  children_.clear();
  for (size_t i = 0; i < interfaces.size(); ++i) {
    const auto& in = interfaces[i];
    const std::string name =
        (root ? std::to_string(busnum_) + "-0" : d.portPath) + ":1." + std::to_string(i);
    const std::string at = path + "/" + name;
    Record rec(at);
    rec.attr("bInterfaceNumber", format("%02x", static_cast<unsigned>(i)))
        .attr("bAlternateSetting", " 0")
        .attr("bNumEndpoints", format("%02x", static_cast<unsigned>(in.endpoints.size())))
        .attr("bInterfaceClass", format("%02x", in.cls))
        .attr("bInterfaceSubClass", format("%02x", in.subclass))
        .attr("bInterfaceProtocol", format("%02x", in.protocol))
        .attr("authorized", "1")
        .attr("supports_autosuspend", "1");
    rec.env("SUBSYSTEM", "usb").env("DEVTYPE", "usb_interface").env("PRODUCT", ids);
    rec.env("INTERFACE", std::to_string(in.cls) + "/" + std::to_string(in.subclass) + "/" +
                             std::to_string(in.protocol));
    if (const char* driver = driver_of(d, in)) {
      rec.link_to_sys("driver", std::string("bus/usb/drivers/") + driver, depth_of(at));
    }
    records.push_back(rec.text);
    children_.push_back(at);
  }
  return records;
}

uint32_t UsbDevice::location_id() const {
  if (spec_.portPath.rfind("usb", 0) == 0) return static_cast<uint32_t>(busnum_) << 24;
  uint32_t id = static_cast<uint32_t>(busnum_) << 24;
  int shift = 20;
  for (int port : usb_ports_of(spec_.portPath)) {
    if (shift < 0) break;
    id |= static_cast<uint32_t>(port & 0xf) << shift;
    shift -= 4;
  }
  return id;
}

std::string UsbDevice::sys_path() const {
  if (spec_.portPath.rfind("usb", 0) == 0) return std::string(kPciRoot) + "/" + spec_.portPath;
  return sys_path_of(spec_.portPath);
}

std::string UsbDevice::devnode() const { return impl_->devnode; }

void UsbDevice::fail_strings(bool fail) {
  std::lock_guard lock(impl_->mutex);
  impl_->failStrings = fail;
}

bool UsbDevice::answer_bulk_in(uint8_t endpoint, const std::vector<uint8_t>& data) {
  std::lock_guard lock(impl_->mutex);
  for (auto& u : impl_->urbs) {
    const auto* urb = reinterpret_cast<const usbdevfs_urb*>(u.urb->data);
    if (!u.ready && urb->endpoint == endpoint) {
      u.ready = true;
      u.answer = data;
      return true;
    }
  }
  return false;
}

size_t UsbDevice::pending_bulk_in() const {
  std::lock_guard lock(impl_->mutex);
  size_t n = 0;
  for (auto& u : impl_->urbs) n += !u.ready;
  return n;
}

std::vector<UsbSetup> UsbDevice::control_log() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->controlLog;
}

// --- the bus ---------------------------------------------------------------------------------

UsbBus::UsbBus(Testbed& bed) : bed_(bed) {}

UsbBus::~UsbBus() {
  std::lock_guard lock(mutex_);
  while (!present_.empty()) drop(*present_.back());
}

void UsbBus::ensure_root(int busnum, bool announce) {
  const std::string name = "usb" + std::to_string(busnum);
  if (find(name)) return;
  // The host controller the root hub hangs from, with its driver (lsusb -t names it).
  if (busnum == 1) {
    Record controller(kPciRoot);
    controller.env("SUBSYSTEM", "pci").env("DRIVER", "xhci_hcd");
    bed_.add_from_string(
        controller.link_to_sys("driver", "bus/pci/drivers/xhci_hcd", depth_of(kPciRoot)).text);
  }
  add_locked(UsbDeviceSpec{name, 0x1d6b, 0x0002, "xHCI Host Controller", "", 9, {}}, announce);
}

UsbDevice* UsbBus::find(const std::string& portPath) {
  std::lock_guard lock(mutex_);
  for (auto* d : present_) {
    if (d->spec_.portPath == portPath) return d;
  }
  return nullptr;
}

UsbDevice& UsbBus::add(const UsbDeviceSpec& desc, bool announce) {
  std::lock_guard lock(mutex_);
  const int busnum = usb_bus_of(desc.portPath);
  if (busnum < 1 || busnum > 127 || usb_ports_of(desc.portPath).empty()) {
    std::fprintf(stderr, "sim: bad USB port path '%s'\n", desc.portPath.c_str());
    std::abort();
  }
  ensure_root(busnum, announce);
  for (size_t i = 0; i < desc.portPath.size(); ++i) {
    if (desc.portPath[i] != '.') continue;
    const std::string hub = desc.portPath.substr(0, i);
    if (!find(hub))
      add_locked(UsbDeviceSpec{hub, 0x05e3, 0x0608, "USB2.0 Hub", "", 9, {}}, announce);
  }
  if (find(desc.portPath)) {
    std::fprintf(stderr, "sim: a USB device is already at %s\n", desc.portPath.c_str());
    std::abort();
  }
  return add_locked(desc, announce);
}

UsbDevice& UsbBus::add_locked(const UsbDeviceSpec& desc, bool announce) {
  const bool root = desc.portPath.rfind("usb", 0) == 0;
  const int busnum = root ? std::atoi(desc.portPath.c_str() + 3) : usb_bus_of(desc.portPath);
  int devnum = 1;
  if (!root) {
    // Kernel-like: numbers go up, wrap after 127, skip those in use.
    for (int tries = 0; tries < 127; ++tries) {
      int& next = nextDevnum_[busnum];
      if (next < 2 || next > 127) next = 2;
      devnum = next++;
      bool used = false;
      for (auto* d : present_) used |= d->busnum_ == busnum && d->devnum_ == devnum;
      if (!used) break;
    }
  }
  // A number used before by a device that is gone: its handler makes way.
  for (auto it = all_.begin(); it != all_.end(); ++it) {
    if ((*it)->busnum_ == busnum && (*it)->devnum_ == devnum) {
      all_.erase(it);
      break;
    }
  }
  all_.emplace_back(new UsbDevice(*this, desc, busnum, devnum));
  UsbDevice& device = *all_.back();
  device.id_ = nextId_++;

  device.impl_->handler = umockdev_ioctl_base_new();
  g_signal_connect(device.impl_->handler, "handle-ioctl", G_CALLBACK(UsbDevice::Impl::on_ioctl),
                   device.impl_.get());
  g_signal_connect(device.impl_->handler, "client-vanished",
                   G_CALLBACK(UsbDevice::Impl::on_vanished), device.impl_.get());
  GError* error = nullptr;
  if (!umockdev_testbed_attach_ioctl(bed_.raw(), device.devnode().c_str(), device.impl_->handler,
                                     &error)) {
    std::fprintf(stderr, "sim: attach_ioctl %s: %s\n", device.devnode().c_str(),
                 error ? error->message : "?");
    std::abort();
  }

  for (const auto& record : device.sysfs_records()) bed_.add_from_string(record);
  present_.push_back(&device);
  if (announce) {
    wait_for_listeners(bed_.root());
    bed_.uevent("/sys" + device.sys_path(), "add");
  }
  bed_.trace("usb", desc.portPath + "=add");
  return device;
}

void UsbBus::drop(UsbDevice& device) {
  {
    std::lock_guard lock(device.impl_->mutex);
    if (device.impl_->gone) return;
    device.impl_->gone = true;
  }
  // Devices behind a hub go with it, the deepest first.
  const std::string prefix = device.spec_.portPath.rfind("usb", 0) == 0
                                 ? std::to_string(device.busnum_) + "-"
                                 : device.spec_.portPath + ".";
  std::vector<UsbDevice*> behind;
  for (auto* d : present_) {
    if (d->spec_.portPath.rfind(prefix, 0) == 0) behind.push_back(d);
  }
  for (size_t i = behind.size(); i-- > 0;) drop(*behind[i]);
  wait_for_listeners(bed_.root());
  bed_.uevent("/sys" + device.sys_path(), "remove");
  for (size_t i = device.children_.size(); i-- > 0;)
    bed_.remove_device("/sys" + device.children_[i]);
  bed_.remove_device("/sys" + device.sys_path());
  std::erase(present_, &device);
  bed_.trace("usb", device.spec_.portPath + "=remove");
}

void UsbBus::remove(UsbDevice& device) {
  std::lock_guard lock(mutex_);
  drop(device);
}

void UsbBus::remove(uint64_t id) {
  std::lock_guard lock(mutex_);
  for (auto* d : present_) {
    if (d->id_ == id) return drop(*d);
  }
}

bool UsbBus::present(uint64_t id) {
  std::lock_guard lock(mutex_);
  return std::any_of(present_.begin(), present_.end(), [id](auto* d) { return d->id_ == id; });
}

UsbDevice& UsbBus::add_board(int site) {
  UsbDeviceSpec desc{site_port_path(site, kBoardPort),
                     0x1fc9,
                     0xdf01,
                     board_name(site),
                     board_serial(site),
                     0,
                     {}};
  desc.interfaces = {UsbInterfaceSpec{2, 2, 1, {{0x83, 3, 16}}},
                     UsbInterfaceSpec{0x0a, 0, 0, {{0x81, 2}, {0x02, 2}}}};
  return add(desc);
}

UsbDevice& UsbBus::add_uart(int site, std::string name) {
  if (name.empty()) name = "USB UART" + std::to_string(site);
  UsbDeviceSpec desc{
      site_port_path(site, kUartPort), 0x0403, 0x6001, name, uart_serial(site), 0, {}};
  desc.interfaces = {UsbInterfaceSpec{0xff, 0xff, 0xff, {{0x81, 2}, {0x02, 2}}}};
  UsbDevice& device = add(desc);
  // Its port, as ftdi_sio makes it: a usb-serial device below the interface, the tty below that,
  // and the link the udev rules give it. The tty is a pseudo-terminal (see unit.h).
  const std::string serialDevice = device.children_.front() + "/" + uart_tty(site);
  Record port(serialDevice);
  port.attr("port_number", "0").attr("latency_timer", "16").env("SUBSYSTEM", "usb-serial");
  port.link_to_sys("driver", "bus/usb-serial/drivers/ftdi_sio", depth_of(serialDevice));
  Record tty(serialDevice + "/tty/" + uart_tty(site));
  tty.text += "N: " + uart_tty(site) + "\nL: device=../../../" + uart_tty(site) + "\n";
  tty.env("SUBSYSTEM", "tty").env("DEVNAME", "/dev/" + uart_tty(site));
  tty.env("DEVLINKS", uart_link(site));
  bed_.add_from_string(port.text);
  bed_.add_from_string(tty.text);
  bed_.add_dev_link(uart_link(site), uart_tty(site));
  device.children_.push_back(serialDevice);
  device.children_.push_back(serialDevice + "/tty/" + uart_tty(site));
  return device;
}

UsbDevice& UsbBus::add_unit(int site, const std::string& name, uint16_t vendor, uint16_t product) {
  UsbDeviceSpec desc{site_port_path(site, kUnitPort), vendor, product, name, "", 0, {}};
  return add(desc);
}

std::vector<UsbDevice*> UsbBus::devices() {
  std::lock_guard lock(mutex_);
  return present_;
}

}  // namespace sim
