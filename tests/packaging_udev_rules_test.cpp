// The udev rules on the fixture's devices and on strangers, through a small matcher standing in
// for udev (==, !=, globs, "a|b", ENV assignments, GOTO/LABEL, IMPORT{builtin}="usb_id").
#include <fnmatch.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <tuple>

namespace {

using Device = std::map<std::string, std::string>;

// Runs the device through the rule files in order; answers "GROUP MODE mm links...".
std::string apply(Device dev) {
  std::string label;
  const std::regex key(R"re(([A-Z_]+(\{[^}]*\})?)\s*(==|!=|\+=|=)\s*"([^"]*)")re");
  for (const char* file : {"60-brakwell.rules", "70-brakwell-access.rules"}) {
    std::ifstream in(std::string(BRAKWELL_SOURCE_DIR) + "/packaging/udev/" + file);
    EXPECT_TRUE(in) << file;
    for (std::string line; std::getline(in, line);) {
      std::vector<std::smatch> keys(std::sregex_iterator(line.begin(), line.end(), key), {});
      bool match = true;
      for (const auto& k : keys)
        if (k[3] == "==" || k[3] == "!=")  // "a|b" matched as the extended glob "@(a|b)"
          match &= (k[3] == "==") ==
                   !fnmatch(("@(" + k[4].str() + ")").c_str(), dev[k[1]].c_str(), FNM_EXTMATCH);
      if (keys.empty() || (!label.empty() && (keys[0][1] != "LABEL" || keys[0][4] != label)))
        continue;
      label.clear();
      for (const auto& k : keys) {
        std::string value = k[4];
        for (std::smatch m; std::regex_search(value, m, std::regex(R"(\$env\{(\w+)\})"));)
          value = m.prefix().str() + dev["ENV{" + m[1].str() + "}"] + m.suffix().str();
        if (!match || k[3] == "==" || k[3] == "!=") continue;
        dev[k[1]] = k[1] == "SYMLINK" ? dev[k[1]] + " " + value : value;  // GROUP, MODE, ENV{}...
        if (k[1] == "GOTO") label = value;
        if (k[1] == "IMPORT{builtin}" && value == "usb_id")
          for (std::string p : {"ID_SERIAL_SHORT", "ID_USB_INTERFACE_NUM"})
            dev["ENV{" + p + "}"] = dev["usb_id:" + p];
      }
    }
  }
  return dev["GROUP"] + " " + dev["MODE"] + (dev["ENV{ID_MM_DEVICE_IGNORE}"] == "1" ? " mm" : "") +
         dev["SYMLINK"];
}

// clang-format off
// A USB device (no kernel name) or one of its ttys, as udev sees them: attributes, usb_id's keys.
Device device(const char* action, const char* kernel, const std::string& ids, const char* serial,
              const char* interface = "00") {
  const std::string a = *kernel ? "ATTRS{" : "ATTR{";
  return {{"ACTION", action}, {"SUBSYSTEM", *kernel ? "tty" : "usb"}, {"KERNEL", kernel},
          {"ENV{DEVTYPE}", *kernel ? "" : "usb_device"}, {a + "idVendor}", ids.substr(0, 4)},
          {a + "idProduct}", ids.substr(5)}, {a + "serial}", serial},
          {"usb_id:ID_SERIAL_SHORT", serial}, {"usb_id:ID_USB_INTERFACE_NUM", interface}};
}

TEST(UdevRules, NameAndOpenTheFixturesDevicesOnlyAndLeaveStrangersAlone) {
  const std::tuple<const char*, Device, std::string> rows[] = {
      {"board", device("add", "", "1fc9:df01", "VEL_03_A"), "brakwell 0660 mm"},
      {"board port", device("add", "ttyACM2", "1fc9:df01", "VEL_03_A"), "brakwell 0660 mm tty.usbmodemVEL_03_A1"},
      {"board port, change", device("change", "ttyACM2", "1fc9:df01", "VEL_03_A"), "brakwell 0660 mm tty.usbmodemVEL_03_A1"},
      {"board port, other interface", device("add", "ttyACM3", "1fc9:df01", "VEL_03_A", "02"), "brakwell 0660 mm"},
      {"board port, remove", device("remove", "ttyACM2", "1fc9:df01", "VEL_03_A"), " "},
      {"UART bridge", device("add", "", "0403:6001", "RT000001"), "brakwell 0660 mm"},
      {"UART port", device("add", "ttyUSB0", "0403:6001", "RT000001"), "brakwell 0660 mm cu.usbserial-RT000001"},
      {"quad bridge, first port", device("add", "ttyUSB4", "0403:6011", "RT000005"), "brakwell 0660 mm cu.usbserial-RT000005"},
      {"quad bridge, second port", device("add", "ttyUSB5", "0403:6011", "RT000005", "01"), "brakwell 0660 mm"},
      {"DIO module 1", device("add", "", "0471:df02", ""), "brakwell 0660"},
      {"uinput", {{"ACTION", "add"}, {"SUBSYSTEM", "misc"}, {"KERNEL", "uinput"}}, "brakwell-input 0660"},
      {"another FTDI", device("add", "", "0403:6001", "A50285BI"), " "},
      {"another FTDI's port", device("add", "ttyUSB9", "0403:6001", "A50285BI"), " "},
      {"another CDC device", device("add", "", "2341:0043", "7563331"), " "},
      {"another CDC port", device("add", "ttyACM9", "2341:0043", "7563331"), " "},
  };
  // clang-format on
  for (const auto& [what, dev, expected] : rows) EXPECT_EQ(apply(dev), expected) << what;
  // Every group the rules give is made by sysusers.
  std::ifstream in(std::string(BRAKWELL_SOURCE_DIR) + "/packaging/sysusers.d/brakwell.conf");
  const std::string text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_NE(text.find("\ng brakwell -\ng brakwell-input -\n"), std::string::npos) << text;
}

}  // namespace
