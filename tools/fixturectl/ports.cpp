// fixturectl ports: what of the fixture is on USB, read from udev without starting the station,
// so that it also works when a well is incomplete.
#include <libudev.h>

#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "cli.h"

namespace fixturectl {
namespace {

struct Kind {
  const char* vendor;
  const char* product;  // null: any product of the vendor
  const char* name;
};
const Kind kKinds[] = {
    {"1fc9", "df01", "fixture board"}, {"0403", "6001", "UART bridge"},
    {"0403", "6011", "UART bridge"},   {"0471", "df01", "DIO module"},
    {"0471", "df02", "DIO module"},    {"05ac", nullptr, "unit"},
};

std::string attr(udev_device* d, const char* name) {
  const char* v = udev_device_get_sysattr_value(d, name);
  return v ? v : "";
}

Json text_or_null(const std::string& s) { return s.empty() ? Json() : Json(s); }

// The platform's location id from a sysfs name "1-1.1.3": the bus in the top byte, then one
// hexadecimal digit per hub tier.
uint32_t location_of(const std::string& sysname) {
  const size_t dash = sysname.find('-');
  if (dash == std::string::npos) return 0;
  uint32_t id = static_cast<uint32_t>(std::stoul(sysname.substr(0, dash))) << 24;
  int shift = 20;
  size_t at = dash + 1;
  while (at < sysname.size() && shift >= 0) {
    const size_t dot = sysname.find('.', at);
    id |= (std::stoul(sysname.substr(at, dot - at)) & 0xf) << shift;
    shift -= 4;
    if (dot == std::string::npos) break;
    at = dot + 1;
  }
  return id;
}

std::string hub_of(const std::string& sysname) { return sysname.substr(0, sysname.rfind('.')); }

// The site a device belongs to: a board by its serial VEL_0N_A, a UART bridge by its name
// USB UART<n>; 0 when it names none.
int own_site(const std::string& kind, const std::string& serial, const std::string& product) {
  int n = 0;
  if (kind == "fixture board" && std::sscanf(serial.c_str(), "VEL_%d_", &n) == 1) return n;
  if (kind == "UART bridge" && std::sscanf(product.c_str(), "USB UART%d", &n) == 1) return n;
  return 0;
}

}  // namespace

int cmd_ports(Context& ctx, const Args&) {
  std::unique_ptr<udev, decltype(&udev_unref)> u(udev_new(), udev_unref);
  std::unique_ptr<udev_enumerate, decltype(&udev_enumerate_unref)> e(udev_enumerate_new(u.get()),
                                                                     udev_enumerate_unref);
  if (!u || !e) fail(kFailed, "udev is not available");
  udev_enumerate_add_match_subsystem(e.get(), "usb");
  udev_enumerate_add_match_subsystem(e.get(), "tty");
  udev_enumerate_scan_devices(e.get());

  struct Row {
    Json json;
    std::string hub;
  };
  std::vector<Row> usb;
  std::map<std::string, int> siteOfHub;  // a site's hub, from its UART bridge
  std::map<std::string, size_t> bySyspath;
  struct Tty {
    std::string node, syspath, link;
  };
  std::vector<Tty> ttys;
  udev_list_entry* entry = nullptr;
  udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(e.get())) {
    const char* path = udev_list_entry_get_name(entry);
    std::unique_ptr<udev_device, decltype(&udev_device_unref)> d(
        udev_device_new_from_syspath(u.get(), path), udev_device_unref);
    if (!d) continue;
    const char* subsystem = udev_device_get_subsystem(d.get());
    if (subsystem && std::string(subsystem) == "tty") {
      // The name the udev rule gives the port (/dev/tty.usbmodem<serial><n>), if any.
      const char* node = udev_device_get_devnode(d.get());
      const char* links = udev_device_get_property_value(d.get(), "DEVLINKS");
      std::string link;
      std::istringstream names(links ? links : "");
      for (std::string name; names >> name;) {
        if (name.find("usbmodem") != std::string::npos) link = name;
      }
      if (node) ttys.push_back({node, path, link});
      continue;
    }
    const char* type = udev_device_get_devtype(d.get());
    if (!type || std::string(type) != "usb_device") continue;
    const std::string vendor = attr(d.get(), "idVendor"), product = attr(d.get(), "idProduct");
    const Kind* kind = nullptr;
    for (const auto& k : kKinds) {
      if (vendor == k.vendor && (!k.product || product == k.product)) kind = &k;
    }
    if (!kind) continue;
    const std::string sysname = udev_device_get_sysname(d.get());
    const std::string serial = attr(d.get(), "serial"), name = attr(d.get(), "product");
    const int site = own_site(kind->name, serial, name);
    if (site && std::string(kind->name) == "UART bridge") siteOfHub[hub_of(sysname)] = site;
    bySyspath[path] = usb.size();
    usb.push_back({{{"kind", kind->name},
                    {"id", vendor + ":" + product},
                    {"name", text_or_null(name)},
                    {"serial", text_or_null(serial)},
                    {"location", location_of(sysname)},
                    {"site", site ? Json(site) : Json()}},
                   hub_of(sysname)});
  }
  // A unit has no name of its own to tell its site: it sits on its site's hub.
  for (auto& row : usb) {
    const auto it = siteOfHub.find(row.hub);
    if (row.json["site"].is_null() && row.json["kind"] == "unit" && it != siteOfHub.end()) {
      row.json["site"] = it->second;
    }
  }
  Json devices = Json::array();
  for (auto& row : usb) devices.push_back(row.json);

  Json ports = Json::array();
  for (const auto& [node, syspath, link] : ttys) {
    const Json* owner = nullptr;
    for (const auto& [devpath, index] : bySyspath) {
      if (syspath.rfind(devpath + "/", 0) == 0) owner = &devices[index];
    }
    if (!owner) continue;
    ports.push_back({{"path", node},
                     {"link", text_or_null(link)},
                     {"id", (*owner)["id"]},
                     {"serial", (*owner)["serial"]},
                     {"site", (*owner)["site"]}});
  }
  ctx.out.result()["usb_devices"] = std::move(devices);
  ctx.out.result()["serial_ports"] = std::move(ports);
  return kOk;
}

}  // namespace fixturectl
