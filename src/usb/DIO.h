// Register commands of the USB DIO modules (unit DIO): the register shadow, the open flags and
// the last sensor reading. Internal: only the functions are exported (Brakwell.h).
#pragma once

#include <cstdint>

#include "usb/USBRW.h"

namespace brakwell::dio {

inline constexpr int kRegisters = 16;  // registers 0 to 13 are used

extern uint8_t reg[kModules][kRegisters];  // last value written to each register
extern uint8_t bDioOpened[kModules];
extern int32_t sensorState[kModules];  // low 6 bits of the last status byte; 7 at load

}  // namespace brakwell::dio
