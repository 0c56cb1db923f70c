/**
 * @file
 * The blade's library: shared parameter blocks, the parameter file, lists, the recorder of fatal
 * signals, and the debug time stamp.
 */
#ifndef MPU_GBL_H
#define MPU_GBL_H

#include "big_endian.h"
#include "configuration.h"
#include "osdep.h"

#include <cstddef>
#include <cstdio>
#include <pthread.h>
#include <semaphore.h>

// --- The MPU parameter block ---------------------------------------------------------------------

/** Values of iCharMode. */
enum MPU_ICHAR_MODE_e : U8_t {
    MPU_E_ICHAR_MODE_DRIVER = 1,
    MPU_E_ICHAR_MODE_ISS = 2,
    MPU_E_ICHAR_MODE_STUB_SERVER = 3,
    MPU_E_ICHAR_MODE_STUB_CLIENT = 4,
};
/** Values of haccMode. */
enum MPU_HACC_MODE_e : U8_t {
    MPU_E_HACC_MODE_STAND_ALONE = 1,
    MPU_E_HACC_MODE_DUAL_SIM = 2,
    MPU_E_HACC_MODE_EBLADE = 3,
    MPU_E_HACC_MODE_DEFAULT = 4,
};

/** A software or firmware version. */
struct MpuVersion_s {
    U16be_t major;    // 0
    U16be_t minor;    // 2
    U16be_t maintNum; // 4
    U16be_t buildNum; // 6
};
using MpuVersion_t = MpuVersion_s;

/** A MAC address. */
struct MpuMacAddress_s {
    U8_t address[6]; // 0
    U8_t filler[2];  // 6
};
using MpuMacAddress_t = MpuMacAddress_s;

constexpr U32_t MPU_PARAMS_VERSION = 15; ///< layout version of MPU_PARAMS_t
constexpr size_t MPU_PARAMS_SIZE = 744;  ///< bytes of MPU_PARAMS_t

/**
 * The blade's parameters: 744 bytes, big-endian, in System V shared memory and in the binary
 * configuration file. Texts are NUL-terminated where their value is shorter than the field.
 */
struct MPU_PARAMS_s {
    U32be_t version;               //   0  layout version, 15
    U32be_t flags;                 //   4  flag bits, set by name from a parameter file
    U32be_t slotId;                //   8  slot of this blade
    U8_t bladeType;                //  12
    U8_t disklineMode;             //  13
    U8_t iCharMode;                //  14  MPU_ICHAR_MODE_e
    U8_t numPorts;                 //  15
    U32be_t regBlockOffset[2];     //  16
    U32be_t regBlockSize[2];       //  24
    U16be_t otherPresentOffset;    //  32
    U8_t otherPresentBlock;        //  34
    U8_t otherPresentBit;          //  35
    U16be_t resetOtherOffset;      //  36
    U8_t resetOtherBlock;          //  38
    U8_t resetOtherBit;            //  39
    U32be_t issIpAddress;          //  40
    U8_t numBusses;                //  44
    U8_t numAdapters;              //  45
    U8_t batteryMgtPolicy;         //  46
    U8_t _pad1;                    //  47
    MpuVersion_t mpuVer;           //  48  software
    MpuVersion_t r7qVer;           //  56  firmware of the companion ASIC
    U16be_t asicDeviceId;          //  64
    U16be_t pciVendorId;           //  66
    U16be_t asicRevision;          //  68
    U8_t haccMode;                 //  70  MPU_HACC_MODE_e
    U8_t chassisType;              //  71
    U32be_t serialNo;              //  72
    U32be_t shmKey;                //  76
    U32be_t ouiNo;                 //  80
    U32be_t productIdNo;           //  84
    U32be_t boardRevNo;            //  88
    U32be_t _pad2;                 //  92
    U32be_t smSize;                //  96  bytes of system memory
    U32be_t bmSize;                // 100  bytes of buffer memory
    U32be_t haccStartingIpAddress; // 104
    U32be_t haccNetmask;           // 108
    U32be_t mgtPortIpAddress;      // 112
    U32be_t mgtPortNetmask;        // 116
    U8_t serialStr[64];            // 120  text: the event manager's blade id
    U8_t chassisSN[64];            // 184  text: the event manager's enclosure id
    MpuMacAddress_t macAddress[8]; // 248
    char mmsgDirectory[128];       // 312  text: directory of the local message sockets
    char nvramDirectory[128];      // 440  text: directory of non-volatile data
    char logDirectory[128];        // 568  text: directory of log files
    U8_t portConfig[8];            // 696  one byte a port
    U8_t vendorId[8];              // 704  text, blank-padded
    U8_t productId[16];            // 712  text, blank-padded
    U8_t revisionLvl[4];           // 728  text, blank-padded
    U8_t bus[2];                   // 732
    U8_t _pad3[2];                 // 734
    U32be_t adapters[2];           // 736
};
using MPU_PARAMS_t = MPU_PARAMS_s;
static_assert(sizeof(MPU_PARAMS_t) == MPU_PARAMS_SIZE && isWireImage<MPU_PARAMS_t>);
static_assert(offsetof(MPU_PARAMS_t, slotId) == 8 && offsetof(MPU_PARAMS_t, iCharMode) == 14);
static_assert(offsetof(MPU_PARAMS_t, regBlockOffset) == 16 &&
              offsetof(MPU_PARAMS_t, regBlockSize) == 24);
static_assert(offsetof(MPU_PARAMS_t, otherPresentOffset) == 32);
static_assert(offsetof(MPU_PARAMS_t, resetOtherOffset) == 36 &&
              offsetof(MPU_PARAMS_t, issIpAddress) == 40);
static_assert(offsetof(MPU_PARAMS_t, numBusses) == 44 &&
              offsetof(MPU_PARAMS_t, batteryMgtPolicy) == 46);
static_assert(offsetof(MPU_PARAMS_t, mpuVer) == 48 && offsetof(MPU_PARAMS_t, r7qVer) == 56);
static_assert(offsetof(MPU_PARAMS_t, asicDeviceId) == 64 && offsetof(MPU_PARAMS_t, haccMode) == 70);
static_assert(offsetof(MPU_PARAMS_t, chassisType) == 71 && offsetof(MPU_PARAMS_t, serialNo) == 72);
static_assert(offsetof(MPU_PARAMS_t, shmKey) == 76 && offsetof(MPU_PARAMS_t, ouiNo) == 80);
static_assert(offsetof(MPU_PARAMS_t, smSize) == 96 && offsetof(MPU_PARAMS_t, bmSize) == 100);
static_assert(offsetof(MPU_PARAMS_t, haccStartingIpAddress) == 104);
static_assert(offsetof(MPU_PARAMS_t, mgtPortIpAddress) == 112);
static_assert(offsetof(MPU_PARAMS_t, mgtPortNetmask) == 116 &&
              offsetof(MPU_PARAMS_t, serialStr) == 120);
static_assert(offsetof(MPU_PARAMS_t, chassisSN) == 184 &&
              offsetof(MPU_PARAMS_t, macAddress) == 248);
static_assert(offsetof(MPU_PARAMS_t, mmsgDirectory) == 312 &&
              offsetof(MPU_PARAMS_t, nvramDirectory) == 440);
static_assert(offsetof(MPU_PARAMS_t, logDirectory) == 568 &&
              offsetof(MPU_PARAMS_t, portConfig) == 696);
static_assert(offsetof(MPU_PARAMS_t, vendorId) == 704 && offsetof(MPU_PARAMS_t, productId) == 712);
static_assert(offsetof(MPU_PARAMS_t, revisionLvl) == 728 && offsetof(MPU_PARAMS_t, bus) == 732);
static_assert(offsetof(MPU_PARAMS_t, adapters) == 736);

/**
 * Attaches to the parameter block, read-only, for the life of the process.
 * @param key System V key
 * @return the block, owned by the library; NULL, after lines on standard error, when there is none,
 * it cannot be mapped or its version is not 15
 */
MPU_PARAMS_t* MPU_getMpuParams(int key);

/** MPU_getMpuParams() that also gives the segment's id in @p shmid, -1 on failure. */
MPU_PARAMS_t* MPU_getMpuParamsAndShmid(int* shmid, int key);

/**
 * Creates the parameter block and fills it, from the text file that the environment variable
 * NONXML_FILE names, or else from the 744-byte image CONFIG_FILE or PROJDIR/configMpu.bin. A block
 * that stands under the same key is removed first.
 * @param shmid receives the segment's id, -1 on failure
 * @param key   System V key
 * @return the block, attached read-write; NULL on failure, after lines on standard error. The
 * success of a re-creation is also said on standard error.
 */
MPU_PARAMS_t* MPU_createMpuParams(int* shmid, int key);

/** Marks the segment for removal. @return the result of shmctl */
int MPU_deleteMpuParams(int shmid);

/**
 * Fills the attached block from a text file of "name=value" lines and bare flag names. Problems are
 * lines on standard error; the line is skipped or a default used. Without a block nothing is read.
 * @return the last result of fgets, NULL at the end of the file
 */
char* readNonXML(FILE* file);

// --- The CMAP parameter block --------------------------------------------------------------------

using MPU_SEMAPHORE_t = sem_t;
using MPU_MUTEX_t = pthread_mutex_t;

constexpr size_t CMAP_PARAMS_SIZE =
    52; ///< bytes asked for on every host; 32-bit hosts need exactly these

/** States and locks that processes of a blade share, in the host's own layout and byte order. */
struct CmapParams_s {
    MPU_SPINLOCK_t updateLock;              ///< 1 free, 0 taken
    MPU_SEMAPHORE_t batteryStateChangeSema; ///< process-local
    U8_t cmapState;
    U8_t rcpState;
    U8_t batteryPolicy;
    U8_t batteryState;
    U32_t _filler1;
    MPU_MUTEX_t smisIndicationCriticalSection; ///< process-local
};
using CmapParams_t = CmapParams_s;
// Segments come in whole pages, so a 64-bit host's larger layout fits behind a request for 52 bytes
// too.
static_assert(sizeof(void*) == 4 ? sizeof(CmapParams_t) == CMAP_PARAMS_SIZE
                                 : sizeof(CmapParams_t) <= 4096);

/** Attaches to the CMAP block read-write. @return NULL on failure, after lines on standard error */
CmapParams_t* MPU_getCmapParams(int key);

/** MPU_getCmapParams() that also gives the segment's id in @p shmid, -1 on failure. */
CmapParams_t* MPU_getCmapParamsAndShmid(int* shmid, int key);

/** Creates and initialises the CMAP block, removing one that stands under the same key. */
CmapParams_t* MPU_createCmapParams(int* shmid, int key);

/** Destroys the semaphore and the mutex of the attached block and marks the segment for removal. */
int MPU_deleteCmapParams(int shmid);

// --- Exit statuses -------------------------------------------------------------------------------

/** Exit statuses of the library; a parent sees the low 8 bits. */
enum MPU_EXIT_CODE_e : int {
    MPU_E_EXIT_CODE_OK = 0,
    MPU_E_EXIT_CODE_ERROR = 0x40000000,
    MPU_E_EXIT_CODE_NULL_POINTER = 0x40000001,
    MPU_E_EXIT_CODE_GETTIME_ERROR = 0x40000002,
    MPU_E_EXIT_CODE_SETTIME_ERROR = 0x40000003,
    MPU_E_EXIT_CODE_MUTEX_INIT_ERROR = 0x40000004,
    MPU_E_EXIT_CODE_MUTEX_DONE_ERROR = 0x40000005,
    MPU_E_EXIT_CODE_MUTEX_GET_ERROR = 0x40000006,
    MPU_E_EXIT_CODE_MUTEX_UNLOCK_ERROR = 0x40000007,
    MPU_E_EXIT_CODE_SEMA_INIT_ERROR = 0x40000008,
    MPU_E_EXIT_CODE_SEMA_DONE_ERROR = 0x40000009,
    MPU_E_EXIT_CODE_SEMA_WAIT_ERROR = 0x4000000a,
    MPU_E_EXIT_CODE_SEMA_POST_ERROR = 0x4000000b,
    MPU_E_EXIT_CODE_SEMA_VALUE_ERROR = 0x4000000c,
};

/** Ends the process: the last error, then @p text, on standard error; then exit(@p status). */
[[noreturn]] void MPU_BUGCHECK(int status, const char* text);

// --- Lists ---------------------------------------------------------------------------------------

/**
 * The two links at the start of every list element and of the list head. Lists are circular; an
 * empty head and an element on no list (an orphan) point to themselves. The functions take any
 * structure that begins with these links.
 */
struct MPU_LIST_LINK_s {
    MPU_LIST_LINK_s* flink; ///< next
    MPU_LIST_LINK_s* blink; ///< previous
};
using MPU_LIST_LINK_t = MPU_LIST_LINK_s;

void MPU_init_listhead(void* head); ///< makes a head empty, an element an orphan
void MPU_insert_on_list_head(void* head,
                             void* element); ///< links an orphan behind the head, or exits
void MPU_insert_on_list_tail(void* head,
                             void* element); ///< links an orphan before the head, or exits
void* MPU_remove_from_list(void* element);   ///< unlinks from any list; returns the element
void* MPU_remove_from_list_head(void* head); ///< first element, or NULL when empty
void* MPU_remove_from_list_tail(void* head); ///< last element, or NULL when empty
bool MPU_list_mt(const void* head);          ///< true when empty
void MPU_lzero(void* ptr, U32_t count);      ///< zeroes @p count 32-bit words

// The same, done while holding one lock for all lists of the process. Not for signal handlers.
void MPU_init_listhead_safe(void* head);
void MPU_insert_on_list_head_safe(void* head, void* element);
void MPU_insert_on_list_tail_safe(void* head, void* element);
void* MPU_remove_from_list_safe(void* element);
void* MPU_remove_from_list_head_safe(void* head);
void* MPU_remove_from_list_tail_safe(void* head);
bool MPU_list_mt_safe(const void* head);

// --- Signals and time ----------------------------------------------------------------------------

/**
 * Has the process record its own death by SIGILL, SIGFPE, SIGSEGV, SIGBUS, SIGHUP, SIGTERM or
 * SIGQUIT as an alternate event log file, and then abort. The parameter block must be attached.
 * @return the result of the last installation, or of the last error print; of no interest
 */
int handleUnexpectedSignals();

/**
 * Local time as "Mon dd hh:mm:ss", the day right-aligned in two places.
 * @param buf at least 64 bytes; left as it is when NULL or when the time cannot be broken down
 */
void get_timestamp(char* buf);

#endif
