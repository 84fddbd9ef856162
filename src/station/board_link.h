// Internal helpers of the fixture board link, shared by the serial port table and the command
// protocol.
#pragma once

#include <Brakwell.h>

#include <mutex>

namespace brakwell::link {

// The pneumatic moves, sent by the well actions and by the press cycle.
inline constexpr char kPressIn[] = "vel_pne_in\n";
inline constexpr char kPressOut[] = "vel_pne_out\n";
inline constexpr char kPressUp[] = "vel_pne_up\n";
inline constexpr char kPressDown[] = "vel_pne_down\n";

// Every per-UUT table has eight entries; an index outside them is a closed port.
inline bool valid_uut(int uut) { return uut >= 0 && uut < BRAKWELL_UUT_COUNT; }

// The site number a fixture board's port name carries: the two characters after its first
// underscore, read as a decimal number (0 when they are not one, or are missing).
int site_of_port_path(const char* path);

// Holds the UUT's port for one call, so that calls on different sites run side by side while a
// second call on the same port waits its turn: a command's clear and write, and a status query's
// write, wait and parse, never mix with another call's. Holds nothing for an index outside the
// table. The helpers below marked "held" expect the caller to hold the port.
std::unique_lock<std::mutex> hold_port(int uut);

// Zeroes the UUT's receive area (held).
void clear_held(int uut);

// DIORS232Write's body (held).
bool write_held(int uut, const char* buf, int len);

// Whether the port's last write came up short: its board is not taking its output (held).
extern bool refusing[BRAKWELL_UUT_COUNT];

// Reads whatever the board sends on the UUT's port for `seconds` into its receive area (never
// past its last byte, always NUL-terminated). The calling thread sleeps in poll meanwhile and
// the call lasts the whole time, replies or not (held).
void collect_reply(int uut, double seconds);

// Parses a status reply: the binary digits between "=" and the character before "l_sw", low
// six bits; -1 when there is no such reply.
int parse_status_reply(const char* text);

}  // namespace brakwell::link
