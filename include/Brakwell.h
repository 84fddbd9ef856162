/*
 * Brakwell: fixture control for factory test stations.
 *
 * One C header for the whole public API of libBrakwell. Usable from C (C99 or later) and C++.
 *
 * Threads: every call runs to its end on the caller's thread, and every pause is a sleep of that
 * thread. What may overlap, call by call:
 * - Calls on different sites may run at the same time from different threads, and so may calls
 *   on the two wells. Each board port is used by one call at a time: a command's write, and a
 *   status query's write, 0.3 s wait and parse, stay together; a second call on the same port
 *   waits its turn, so its pauses may come late, never early. The well-wide calls (every call
 *   that takes a well, and the handle calls without a site) go through the well's sites and
 *   take their turns on those ports; the press and every sensor test use the first site's.
 * - A press cycle and the sensor tests of the same well may overlap without harm to either's
 *   answers, but they then take turns on one port: each query waits for the one before it.
 * - Must not overlap any other call: station start and stop (SOC_Start, SOC_Done,
 *   create_fixture_controller, listSerialPorts, matchDIO_UART, openDIO_UARTForWell1/2,
 *   CloseDIOSerialPort).
 * - A DIO module is used by one thread at a time (every call taking that module's index); the
 *   two modules may be used from two threads.
 * - The USB lists' writers (enumUsbForLocationID, getUSBLocationForUART, getUSBLocationForMCU,
 *   addToUartLocationIDList, usbDeviceConnStatus, usbDeviceRemoveAll) run one at a time, and
 *   not while the host reads mutableUSBDeviceName or g_ListUartLocationID.
 * - SOC_SendCtrlAltZ and SOC_SendCtrlAltY may be called from any thread: chords never mix and
 *   there is one virtual keyboard. Log lines come whole from any thread.
 * - A receive area (DIORS232Buff, SOC_Read, getDIORdBuff) belongs to its site: read it only
 *   while no call on that site runs.
 * The Apple-device tracker's arrivals and removals come from the library's USB event thread; the
 * library guards its lists with one lock of its own. A host that reads g_pListAppleDev or
 * g_ListUutLocationID directly may see them change as it reads, and must neither free a record
 * nor keep its pointer: a record lives only until its device leaves.
 *
 * Texts: a `const char *` result is never freed or changed by the host. Static texts ("error",
 * "UNKNOWN", the vendor and version texts) live as long as the library; a text made at call time
 * stays valid until the same function is next called on the same thread. Copy it to keep it.
 *
 * Log: one line per action goes to syslog (LOG_USER, LOG_NOTICE). Set BRAKWELL_LOG=stderr
 * before the first line is written to mirror every line to standard error. In the log only, text
 * that came from a device (USB strings) has its control characters written as \xNN; the texts
 * handed to the host stay as read.
 *
 * Processes: no C++ exception leaves a call; one that runs out of memory answers as it does for
 * a failure and logs "<call> failed: <reason>" (a log line that cannot be made is dropped). Every
 * descriptor the library opens is close-on-exec, and the programs it starts (lsusb, zenity) are
 * found by absolute path. A forked child may exec or exit at any time: it releases nothing of
 * its parent's and waits for none of its locks, even at exit.
 */
#ifndef BRAKWELL_H
#define BRAKWELL_H

#include <stdbool.h>
#include <stdint.h>

/* The library this header belongs to: 4.1 (libBrakwell.so.4). A host can test them at build
 * time; SOC_LibVersion answers the fixture firmware's version text at run time. */
#define BRAKWELL_VERSION_MAJOR 4
#define BRAKWELL_VERSION_MINOR 1

#if defined(__GNUC__)
#define BRAKWELL_API __attribute__((visibility("default")))
#else
#define BRAKWELL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

struct udev_enumerate;
struct udev_device;
struct libusb_device;
struct libusb_interface_descriptor;

/* Sizes of the process-wide tables. */
#define BRAKWELL_UUT_COUNT 8
#define BRAKWELL_PATH_SLOT 41 /* a 40-character path and its NUL */
#define BRAKWELL_RX_AREA 25000
#define BRAKWELL_APPLE_DEV_MAX 12

/* ---------------------------------------------------------------------------------------------
 * Fixture controller interface: one handle per well. Results: 0 success, -1 failure; texts as
 * above. A null handle never crashes the library; each call's answer to one is given below
 * ("null:"), and none of those answers logs anything unless it says so.
 * Sites are 1-based within the handle's well: the station-wide UUT number is site + 4 when the
 * handle's index is exactly 1, else site. A site below 1 is refused like a null handle, except
 * by the signal flags and state getters, which take any site.
 *
 * The two well rules. A call that takes a well (or uses the handle's index as one) reads it one
 * of two ways, marked on each call:
 *   [well==1]  1 is the second well, every other value (2, -1, ...) the first;
 *   [well!=0]  0 is the first well, every other value the second.
 * Pauses ("blocks") are sleeps of the calling thread; a call marked with none returns at once
 * apart from its serial writes. A status query blocks 0.3 s for its reply.
 * ------------------------------------------------------------------------------------------- */
typedef struct FixtureController FixtureController; /* opaque */

/* Slot i: the USB location text ("0x1113000") of UUT i, 0-7; every slot starts NULL. A successful
 * getUSBLocationForUART stores its eight fields here, but only into slots that are null or that it
 * filled itself before (an empty field makes such a slot null again): a slot the host set is never
 * changed, and the host owns the texts it stores. */
BRAKWELL_API extern const char* USBLocation[BRAKWELL_UUT_COUNT];

/* Runs the whole station start (SOC_Start) and answers a new handle, which the host frees with
 * release_fixture_controller. Blocks at least 0.8 s (0.1 s before each of eight port opens) plus
 * the USB enumeration. When no fixture board was found the handle is still made, but its site
 * count is unset (get_site_count answers whatever the memory held): check SOC_GetWellNumber()
 * (0 = no fixture) before trusting it. */
BRAKWELL_API FixtureController* create_fixture_controller(int index);
/* Frees the handle and nothing else (the ports stay open: SOC_Done closes them). null: nothing. */
BRAKWELL_API void release_fixture_controller(FixtureController* handle);
/* "Velmora Technologies", static. */
BRAKWELL_API const char* get_vendor(void);
/* The trimmed first text of FixtureSerialNumber.txt beside the host program's directory, or
 * "UNKNOWN" (static) when it is missing or empty. Valid until the next call on this thread.
 * null: "UNKNOWN". */
BRAKWELL_API const char* get_serial_number(FixtureController* handle);
/* "SUCCESS" (0), "FAILURE" (-1), "UNKNOWN" (any other); static. */
BRAKWELL_API const char* get_error_message(int status);
/* "0.9", the interface's version (not the library's: see BRAKWELL_VERSION_MAJOR); static.
 * null: "UNKNOWN", logged as "VELMORA: get_version, returning UNKNOWN". */
BRAKWELL_API const char* get_version(FixtureController* handle);
/* The station-wide site count, 4 or 8 (not the four of this well; unset when no fixture was
 * found, see create_fixture_controller). null: -1. */
BRAKWELL_API int get_site_count(FixtureController* handle);
/* The well count (one press per well). null: -1. */
BRAKWELL_API int get_actuator_count(FixtureController* handle);
/* USBLocation's slot for the site: the text the host or getUSBLocationForUART stored there, or
 * NULL while it is empty. null, site < 1 or beyond the eighth UUT: "error" (static). */
BRAKWELL_API const char* get_usb_location(FixtureController* handle, int site);
/* "/dev/cu.usbserial-RT00000<uut>", the unit's console (the udev rules make the link); not
 * checked to exist. Valid until the next call on this thread. null or site < 1: "error". */
BRAKWELL_API const char* get_uart_path(FixtureController* handle, int site);
/* The well of the site's UUT: 0 for UUT 1-4, 1 for 5-8, -1 beyond, whatever the handle's
 * index. null or site < 1: -1. */
BRAKWELL_API int actuator_for_site(FixtureController* handle, int site);

/* Actuators, LEDs and fixture state. LED states: 0 OFF, 1 PASS, 2 FAIL, 3 INPROGRESS. */
/* Reset, press up, tray out, both LEDs of each site off. [well==1] Blocks 5.0 s plus 0.01 s per
 * well-wide line. -1 when an LED command fails. null: -1, logged "VELMORA: init..., invalid
 * controller.". */
BRAKWELL_API int init(FixtureController* handle);
/* "vel_dfu_reset" to each site of the well. [well==1] Blocks 0.01 s per site. Always 0.
 * null: -1. */
BRAKWELL_API int reset(FixtureController* handle);
/* Press down / up, tray in / out, sent to each site of the well; never a failure. [well==1]
 * Block 0.01 s per site; fixture_open first resets the well and waits 1.0 s. null: -1. */
BRAKWELL_API int fixture_engage(FixtureController* handle);
BRAKWELL_API int fixture_disengage(FixtureController* handle);
BRAKWELL_API int fixture_close(FixtureController* handle);
BRAKWELL_API int fixture_open(FixtureController* handle);
/* The well's sensors, from a status query. [well!=0] Block 0.31 s; false also when the board
 * did not answer. null: false. */
BRAKWELL_API bool is_fixture_engaged(FixtureController* handle);
BRAKWELL_API bool is_fixture_disengaged(FixtureController* handle);
BRAKWELL_API bool is_fixture_closed(FixtureController* handle);
BRAKWELL_API bool is_fixture_open(FixtureController* handle);
/* States 1 and 2 light the site's pass or fail LED (the other one off); 0 and 3 switch the
 * well's run LED off or on (0.01 s before each site's line); other states do nothing and
 * answer 0. [well==1] null or site < 1: -1. */
BRAKWELL_API int set_led_state(FixtureController* handle, int state, int site);
/* As set_led_state, on every site of the well, 0.01 s before each; here 1 lights the pass LEDs
 * and every state but 0, 1 and 3 the fail LEDs, leaving the other colour as it was. null: -1. */
BRAKWELL_API int set_led_state_all(FixtureController* handle, int state);
/* SOC_PneumaticValveOn and SOC_PneumaticValveAutoOn (below), with a bare well index; no null
 * case. [well!=0] */
BRAKWELL_API bool PneumaticValveOn(int well, float timeLimit);
BRAKWELL_API bool PneumaticValveAutoOn(int well, float timeLimit);

/* DUT power and boot-mode sequences. state 1 is OFF, any other value ON. [well==1] 0, or -1
 * when a command could not be written. Pauses: set_usb_power and set_battery_power none;
 * set_force_dfu 1.12 s, set_force_iboot 1.11 s, set_force_diags 1.10 s, set_dut_power OFF 1.02
 * s and ON 0.04 s, set_dut_power_all OFF 0.02 s and ON 0.05 s per site. null or site < 1: -1. */
BRAKWELL_API int set_usb_power(FixtureController* handle, int state, int site);
BRAKWELL_API int set_battery_power(FixtureController* handle, int state, int site);
BRAKWELL_API int set_force_dfu(FixtureController* handle, int state, int site);
BRAKWELL_API int set_force_diags(FixtureController* handle, int state, int site);
BRAKWELL_API int set_force_iboot(FixtureController* handle, int state, int site);
BRAKWELL_API int set_dut_power(FixtureController* handle, int state, int site);
BRAKWELL_API int set_dut_power_all(FixtureController* handle, int state);

/* Signal flags and state getters: log and succeed (0), touching nothing; no pause. Any site,
 * 0 and negative ones too, is logged as its UUT number and answered 0.
 * null: -1 (is_board_detected: false). */
BRAKWELL_API extern uint16_t action_usb_signal;
BRAKWELL_API extern uint16_t action_usb_power;
BRAKWELL_API extern uint16_t action_uart_signal;
BRAKWELL_API extern uint16_t action_battery_power;
BRAKWELL_API extern uint16_t action_force_dfu;
BRAKWELL_API extern uint16_t action_apple_id;
BRAKWELL_API extern uint16_t action_conn_det_grounded;
BRAKWELL_API extern uint16_t action_hi5_bs_grounded;
BRAKWELL_API extern uint16_t action_conn_acc_apple_id;

BRAKWELL_API int set_conn_acc_apple_id(FixtureController* handle, int value, int site);
BRAKWELL_API int set_usb_signal(FixtureController* handle, int value, int site);
BRAKWELL_API int set_uart_signal(FixtureController* handle, int value, int site);
BRAKWELL_API int set_apple_id(FixtureController* handle, int value, int site);
BRAKWELL_API int set_conn_det_grounded(FixtureController* handle, int value, int site);
BRAKWELL_API int set_hi5_bs_grounded(FixtureController* handle, int value, int site);
BRAKWELL_API int usb_power(FixtureController* handle, int site);
BRAKWELL_API int battery_power(FixtureController* handle, int site);
BRAKWELL_API int force_dfu(FixtureController* handle, int site);
BRAKWELL_API int usb_signal(FixtureController* handle, int site);
BRAKWELL_API int uart_signal(FixtureController* handle, int site);
BRAKWELL_API int apple_id(FixtureController* handle, int site);
BRAKWELL_API int conn_det_grounded(FixtureController* handle, int site);
BRAKWELL_API int hi5_bs_grounded(FixtureController* handle, int site);
BRAKWELL_API int dut_power(FixtureController* handle, int site);
BRAKWELL_API bool is_board_detected(FixtureController* handle, int site);

/* ---------------------------------------------------------------------------------------------
 * Station control. UUT indexes are 0-based (0-3 first well, 4-7 second); results are true
 * when the command was written in full. Each one-site command blocks only for its write; the
 * waits of the others are given with them. An index outside 0-7 writes nothing: the call logs as
 * usual with the index + 1 and its failure message, and returns false (SOC_Set_VBatt still logs
 * its success message; SOC_Hi5EnterDiag and SOC_Hi5EnterRecovery try and fail both writes);
 * SOC_Read answers NULL; SOC_GetWellIndex answers 0 when one well was found, else 1 for any
 * index above 3 and 0 for the rest. SOC_ResultLed alone folds first: any index above 3 is taken
 * as index - 4, so 4-7 light sites 1-4 and 8-11 light sites 5-8; its outcome line names the
 * folded index + 1, and an index below 0 or above 11 is a failed write as above.
 * ------------------------------------------------------------------------------------------- */
BRAKWELL_API extern uint32_t g_WellNumber;
BRAKWELL_API extern uint32_t g_SlotNumber;
BRAKWELL_API extern bool dioOn1;
BRAKWELL_API extern bool dioOn2;

/* Copies "Velmora Lumbrix 4.01" into the host's buffer; false (buffer untouched) when it is
 * NULL or holds fewer than 25 bytes. */
BRAKWELL_API bool SOC_LibVersion(char* buffer, int size);
/* Finds the fixture boards, counts the wells, opens the eight ports. Blocks at least 0.8 s. */
BRAKWELL_API bool SOC_Start(void);
/* "vel_hi5_disable" to every site, ports closed, Apple-device list emptied. Blocks 1.6 s. */
BRAKWELL_API void SOC_Done(void);
/* Wells found by the last start: 0 (no fixture), 1 or 2. */
BRAKWELL_API uint32_t SOC_GetWellNumber(void);
/* Sites found by the last start: 4 or 8; 0 before a start or when no fixture was found. */
BRAKWELL_API uint32_t SOC_GetSlotNumber(void);
/* 0 or 1: the well of a UUT index (always 0 on a one-well fixture). */
BRAKWELL_API int SOC_GetWellIndex(int uut);

/* Signal commands: one line to one site's board (the well-wide ones to four sites).
 * SOC_Reset, SOC_PowerOff, SOC_RunLed: [well==1], 0.01 s before each site's line. */
BRAKWELL_API bool SOC_Reset(int well);
BRAKWELL_API bool SOC_PowerOff(int well);
BRAKWELL_API bool SOC_RunLed(int well, bool turnOn);
BRAKWELL_API bool SOC_ResultLed(int uut, bool pass);
BRAKWELL_API bool SOC_NTC_ON(int uut, bool on);
BRAKWELL_API bool SOC_USBPower(int uut, bool on);
BRAKWELL_API bool SOC_BatteryPower(int uut, bool on);
BRAKWELL_API bool SOC_USBHost(int uut, bool on);
BRAKWELL_API bool SOC_ForceDFU(int uut, bool on);
BRAKWELL_API bool SOC_GPIO1_On(int uut, bool on);
BRAKWELL_API bool SOC_GPIO2_On(int uut, bool on);
BRAKWELL_API bool SOC_UART(int uut, bool on);
BRAKWELL_API bool SOC_ACC_IDENTIFY(int uut, bool on);
BRAKWELL_API bool SOC_Hi5(int uut, bool on);
BRAKWELL_API bool SOC_ACC_DETECT(int uut, bool on);
BRAKWELL_API bool SOC_PassLed(int uut, bool on);
BRAKWELL_API bool SOC_FailLed(int uut, bool on);
BRAKWELL_API bool SOC_Batt_Supercap(int uut, bool on);
BRAKWELL_API bool SOC_Hi5EnterDiag(int uut);
BRAKWELL_API bool SOC_Hi5EnterRecovery(int uut);
BRAKWELL_API bool SOC_PowerOffUUT(int uut);
BRAKWELL_API bool SOC_DFU_Host_Conn(int uut);
BRAKWELL_API bool SOC_ResetUUT(int uut);
BRAKWELL_API bool SOC_Set_VBatt(int uut, int value);
BRAKWELL_API bool SOC_Write(int uut, const char* text);
/* The UUT's receive area (getDIORdBuff): the library's, BRAKWELL_RX_AREA bytes, valid for the
 * life of the library; each write to the site clears it. The index is not checked. */
BRAKWELL_API char* SOC_Read(int uut);

/* Pneumatic press, operator buttons and sensors. A timeout of 0 waits without limit.
 * SOC_PneumaticValveOn: the two-hand cycle; blocks until the plate is down with the tray in and
 * both hands off (about 0.4 s a poll), false when the timeout passed first. [well!=0]
 * SOC_PneumaticValveAutoOn: tray in, plate down, no operator; blocks 0.65 s; always true.
 * [well!=0] SOC_PneumaticValveOff: plate up, tray out; blocks 0.01 s. [well==1]
 * The SOC_Is... tests: one status query each (0.3 s), after a pause of 0.2 s (SOC_IsValveOn),
 * 0.01 s (SOC_IsFixture...) or none. [well!=0]; SOC_IsRun_Pressed serves wells 0 and 1 only,
 * and on a press posts the well's key chord. With no answer the sensor tests are false and
 * SOC_IsAbort_Pressed is true. The status word (queryFixtureStatusForWell1/2) is 0-63, or -1
 * for no answer; each bit reads 0 when its input is active:
 *   0x01 button A held (Run, Abort)   0x02 button B held
 *   0x04 plate down (engaged)         0x08 plate up (disengaged)
 *   0x10 tray in (closed)             0x20 tray out (opened) */
BRAKWELL_API bool SOC_PneumaticValveOn(int well, float timeout);
BRAKWELL_API bool SOC_PneumaticValveAutoOn(int well, float timeout);
BRAKWELL_API bool SOC_PneumaticValveOff(int well);
BRAKWELL_API bool SOC_IsValveOn(int well);
BRAKWELL_API bool SOC_IsRun_Pressed(int well);
BRAKWELL_API bool SOC_IsAbort_Pressed(int well);
BRAKWELL_API bool SOC_IsBoth_Pressed(int well);
BRAKWELL_API bool SOC_IsFixtureEngaged(int well);
BRAKWELL_API bool SOC_IsFixtureDisengaged(int well);
BRAKWELL_API bool SOC_IsFixtureClosed(int well);
BRAKWELL_API bool SOC_IsFixtureOpened(int well);
BRAKWELL_API void SOC_SendCtrlAltZ(void);
BRAKWELL_API void SOC_SendCtrlAltY(void);

/* ---------------------------------------------------------------------------------------------
 * Fixture board link: serial discovery, per-UUT port table, command writer, status query. A UUT
 * index outside 0-7 touches nothing and logs nothing: writes and opens answer false, queries -1
 * (queryFixtureStatusForWell1 still logs its query line), getDIORdBuff NULL.
 * ------------------------------------------------------------------------------------------- */
BRAKWELL_API extern char DIO_SerialDevice[BRAKWELL_UUT_COUNT][BRAKWELL_PATH_SLOT];
BRAKWELL_API extern char DIO_UUTSerialDevice[BRAKWELL_UUT_COUNT][BRAKWELL_PATH_SLOT];
BRAKWELL_API extern int32_t DIO_fileDescriptor[BRAKWELL_UUT_COUNT];
BRAKWELL_API extern char portList[BRAKWELL_UUT_COUNT][BRAKWELL_PATH_SLOT];
BRAKWELL_API extern int32_t portConnected[BRAKWELL_UUT_COUNT];
BRAKWELL_API extern char DIORS232Buff[BRAKWELL_UUT_COUNT][BRAKWELL_RX_AREA];

/* The serial scan over libudev: the iterator is a udev enumeration of the tty subsystem, a
 * registry entry a udev device. Keys "IOTTYDevice" (base name) and "IODialinDevice" (dial-in
 * path) are understood; any other key reads the udev property of that name. */
BRAKWELL_API int createSerialIterator(struct udev_enumerate** iterator);
/* The answer is the library's one 256-byte buffer, overwritten by the next call. */
BRAKWELL_API char* getRegistryString(struct udev_device* entry, const char* key);
BRAKWELL_API int listSerialPorts(void);
BRAKWELL_API void matchDIO_UART(void);
BRAKWELL_API bool openDIO_UARTForWell1(int uut);
BRAKWELL_API bool openDIO_UARTForWell2(int uut);
BRAKWELL_API void CloseDIOSerialPort(int uut);

BRAKWELL_API bool DIORS232Write(int uut, const char* buf, int len);
BRAKWELL_API void ClearDIORS232Buff(int uut);
/* The UUT's receive area, as SOC_Read. */
BRAKWELL_API char* getDIORdBuff(int uut);
/* The status word (see the press calls) of the well whose first site is uut. Blocks 0.3 s. */
BRAKWELL_API int queryFixtureStatusForWell1(int uut);
BRAKWELL_API int queryFixtureStatusForWell2(int uut);
/* Well actions: one line to each site of the well, 0.01 s before each. [well==1] */
BRAKWELL_API bool turnOnRunLed(int well);
BRAKWELL_API bool turnOffRunLed(int well);
BRAKWELL_API void fixtureDown(int well);
BRAKWELL_API void fixtureUp(int well);
BRAKWELL_API void fixtureIn(int well);
BRAKWELL_API void fixtureOut(int well);

/* ---------------------------------------------------------------------------------------------
 * USB topology: enumeration by vendor and product, Apple-device arrival and removal, the
 * UART-to-UUT location mapping. Vendor and product: only the low 32 bits are used.
 * ------------------------------------------------------------------------------------------- */
typedef struct AppleDevRecord {
  uint32_t notification; /* the removal watch armed for this device; 0 when none */
  char* deviceName;      /* the device's product string */
  uint32_t locationID;
} AppleDevRecord;

BRAKWELL_API extern char* mutableUSBDeviceName;
BRAKWELL_API extern AppleDevRecord* g_pListAppleDev[BRAKWELL_APPLE_DEV_MAX];
BRAKWELL_API extern uint32_t g_ListUutLocationID[BRAKWELL_APPLE_DEV_MAX];
BRAKWELL_API extern uint32_t g_ListUartLocationID[BRAKWELL_APPLE_DEV_MAX];

BRAKWELL_API int enumUsbForLocationID(long vendorId, long productId);
/* The names of the last enumeration ("(null)" before one). Valid until the next call on this
 * thread. mutableUSBDeviceName, the same text, is the library's. */
BRAKWELL_API const char* getUSBDeviceName(void);
BRAKWELL_API uint32_t removeHexTrailingZeros(uint32_t value);

/* The "iterator" of the arrival handler is a null-terminated array of devices. */
BRAKWELL_API int usbDeviceConnStatus(long vendorId, long productId);
BRAKWELL_API void usbDeviceArrival(void* refCon, struct libusb_device** iterator);
BRAKWELL_API int addSelfToAppleDevList(AppleDevRecord* record);
BRAKWELL_API void usbDeviceRemoval(void* refCon, struct libusb_device* service,
                                   uint32_t messageType, void* messageArgument);
BRAKWELL_API void removeSelfFromAppleDevList(uint32_t locationID);
BRAKWELL_API void usbDeviceRemoveAll(void);

/* Location texts; "error" (static) when the enumeration failed, otherwise valid until the next
 * call of the same function on this thread. */
BRAKWELL_API const char* getUSBLocationForUART(long vendorId, long productId);
BRAKWELL_API const char* getUSBLocationForMCU(long vendorId, long productId);
BRAKWELL_API int getDifferentLocationIndex(const char* text1, const char* text2);
BRAKWELL_API void addToUartLocationIDList(const char* uartName, uint32_t locationID);
BRAKWELL_API uint32_t usbUartSiblingLocationID(int uartIndex);

/* ---------------------------------------------------------------------------------------------
 * USB DIO modules 0471:df01 (module 0) and 0471:df02 (module 1). Results 1 success, 0 failure.
 * ------------------------------------------------------------------------------------------- */
BRAKWELL_API int openUSB(int m);
BRAKWELL_API void dealWithDevice(int m, struct libusb_device* service);
BRAKWELL_API void dealWithInterface(int m, const struct libusb_interface_descriptor* interface);
BRAKWELL_API int USBDeviceAlive(int m);
BRAKWELL_API int closeUSB(int m);
/* Reads exactly 10 bytes whatever `size` says: the buffer must hold at least 10. */
BRAKWELL_API int readFromEndpt(int m, int channel, unsigned char* buffer, int size);
BRAKWELL_API int writeToEndpt(int m, int channel, const unsigned char* buffer, int size);
BRAKWELL_API int vendorRequest(int m, uint32_t value);
BRAKWELL_API void readCompletion(void* context, int result);
BRAKWELL_API void readTimerHandler(void* timer, const int* moduleIndex);

BRAKWELL_API long strToInt(const char* text);
BRAKWELL_API int dioReset(int m);
BRAKWELL_API int dioOpen(int m);
BRAKWELL_API int dioWrite(int m, int reg, const char* value);
BRAKWELL_API int resetAllRegisters(int m);
BRAKWELL_API void resetAllRegisters2(int m);
BRAKWELL_API int dioRead(int m, int reg, uint32_t* value);
BRAKWELL_API int dioStatus(int m, uint32_t* status);
BRAKWELL_API void dioClose(int m);
BRAKWELL_API int dioReadSensor(int m, uint32_t* sensors);
BRAKWELL_API bool SOC_BoardID(int m, uint32_t* boardId);

#ifdef __cplusplus
}
#endif

#endif /* BRAKWELL_H */
