// All eight sites at once, each site's thread running sequences, signal commands and sensor tests.
#include <thread>

#include "support/station_fixture.h"
#include "write_tap.h"

namespace {

using brakwell::platform::monotonic_seconds;
using testing_support::status_reply;

constexpr const char* kQuery = brakwell::station::kStatusQuery;
constexpr int kRounds = 2;

class Parallel : public testing_support::StationFixture {
 protected:
  // One round of a site's work; the number of wrong sensor answers (a lost reply reads -1: false
  // to both). The first well reads tray open and plate up, the second tray closed and plate up.
  static int site_round(int site) {
    FixtureController* h = wells[site > 4 ? 1 : 0];
    const int siteOfWell = (site - 1) % 4 + 1, uut = site - 1, well = site > 4 ? 1 : 0;
    set_dut_power(h, 0, siteOfWell);
    SOC_GPIO1_On(uut, true);
    set_force_dfu(h, 0, siteOfWell);
    SOC_UART(uut, false);
    SOC_Hi5EnterDiag(uut);
    const int wrong = (SOC_IsFixtureOpened(well) != (well == 0)) + !SOC_IsFixtureDisengaged(well);
    set_dut_power(h, 1, siteOfWell);
    SOC_PassLed(uut, true);
    brakwell::platform::sleep_seconds(0.05);  // its last line has reached the board
    return wrong;
  }

  // A site's lines but its well's queries, timed at the write (the boards' reader may be late).
  static std::vector<sim::ReceivedLine> own_lines(int site) {
    std::vector<sim::ReceivedLine> out;
    for (const auto& line : sim::write_tap::lines(site - 1)) {
      if (line.text != kQuery) out.push_back(line);
    }
    return out;
  }
  static void clear_all() {
    for (auto* b : boards->all()) b->clear();
    sim::write_tap::clear();
  }
};

TEST_F(Parallel, EightSitesAtOnceAsEachAlone) {
  sim::write_tap::watch(DIO_fileDescriptor);
  clear_all();
  board(1).script_status({status_reply(0x17)});
  board(5).script_status({status_reply(0x37)});
  // Alone: the reference lines, and the pause before each: none, 0.01 s, 1 s, or two sensor
  // tests' 0.62 s; what a gap has beyond that is the machine's.
  const double aloneStart = monotonic_seconds();
  EXPECT_EQ(site_round(2), 0);
  const double alone = monotonic_seconds() - aloneStart;
  const auto reference = own_lines(2);
  std::vector<double> pause(reference.size(), 0);
  for (size_t k = 1; k < reference.size(); ++k) {
    for (double p : {0.01, 0.62, 1.0}) {
      if (reference[k].time - reference[k - 1].time + 2e-3 >= p) pause[k] = p;
    }
  }
  clear_all();

  int wrong[8] = {};
  const double start = monotonic_seconds();
  std::vector<std::thread> sites;
  for (int site = 1; site <= 8; ++site) {
    sites.emplace_back([site, &wrong] {
      for (int round = 0; round < kRounds; ++round) wrong[site - 1] += site_round(site);
    });
  }
  for (auto& t : sites) t.join();
  // One site after another would take eight times as long as each alone.
  EXPECT_LT(monotonic_seconds() - start, 4 * kRounds * alone);

  for (int site = 1; site <= 8; ++site) {
    SCOPED_TRACE("site " + std::to_string(site));
    EXPECT_EQ(wrong[site - 1], 0);
    const auto lines = own_lines(site);
    ASSERT_EQ(lines.size(), kRounds * reference.size());
    // Late is allowed (a port's second caller waits its turn), early never.
    for (size_t i = 0; i < lines.size(); ++i) {
      const size_t k = i % reference.size();
      EXPECT_EQ(lines[i].text, reference[k].text) << i;
      EXPECT_GE(k > 0 ? lines[i].time - lines[i - 1].time : 1.0, pause[k] - 2e-4) << i;
    }
    std::string written;
    for (const auto& line : sim::write_tap::lines(site - 1)) written += line.text;
    EXPECT_EQ(board(site).received(), written);
  }
  // Every query of a well's four sites went to its first site, each answered on its own.
  for (int site : {1, 5})
    EXPECT_EQ(sim::write_tap::lines(site - 1).size() - own_lines(site).size(), 2u * kRounds * 4);
}

}  // namespace
