// Units under test that behave: a site whose USB or battery supply is on shows its unit at port 3
// of the site's hub, named by the boot mode its lines selected at power-up — force-DFU asserted:
// DFU Mode; a Hi5 recovery request since the last power-down: Recovery Mode; otherwise a normal
// boot. The unit leaves when both supplies go off or on "vel_dfu_reset\n" (the board's reset
// cuts its power). Each site watches the lines its board receives. A site whose UART bridge has
// its port (UsbBus::add_uart) has the unit's console at the port's other end: on booting the unit
// writes "unit <n> booted in <normal|recovery|dfu> mode\r\n", and while up it echoes what it is
// sent.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "testbed.h"
#include "usb.h"

namespace sim {

enum class BootMode { Normal, Recovery, Dfu };

struct UnitIdentity {
  const char* name;  // the iProduct string
  uint16_t vendor, product;
  const char* state;  // as the trace writes it: "normal", "recovery", "dfu"
};
const UnitIdentity& unit_identity(BootMode mode);

class Units {
 public:
  // Units for the given sites (1-8), all unpowered.
  Units(Testbed& bed, UsbBus& bus, const std::set<int>& sites);
  ~Units();
  Units(const Units&) = delete;
  Units& operator=(const Units&) = delete;

  // The unit's boot mode while it is on the bus.
  std::optional<BootMode> present(int site) const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;  // shared with the testbed's trace listener
};

}  // namespace sim
