/**
 * @file
 * The alternate event log files that a start has found, in the order in which they are replayed:
 * by modification time, start-up files of one time by the sequence id that they carry.
 */
#ifndef EMP_STARTUP_AEL_FILE_LIST_H
#define EMP_STARTUP_AEL_FILE_LIST_H

#include "fixed_width.h"

#include <climits>

struct EmpAelFileNameEntry_s;
using EmpAelFileNameEntry_t = EmpAelFileNameEntry_s;

/** Links of an entry. The back link addresses what points here. */
struct EmpAelFileLink_s {
    EmpAelFileNameEntry_t* flink;  ///< next entry, NULL at the end
    EmpAelFileNameEntry_t** blink; ///< the previous entry's flink, or the list head
};

struct EmpAelFileNameEntry_s {
    EmpAelFileLink_s link;
    char aelFileName[108];   ///< full path as debug lines show it; a longer one is cut
    U32_t tmpEvSequenceId;   ///< stored in the file: not 0 only for source 18
    S64_t mtime;             ///< modification time in seconds
    char name[NAME_MAX + 1]; ///< name in the directory, never cut: files are opened and removed by
                             ///< it
};

/** Head of the list, NULL when empty. Entries are on the heap. */
extern EmpAelFileNameEntry_t* empAelFileNameList;

/**
 * Puts an entry that is on no list in its place. Entries of the same time keep the order in which
 * they come, but for start-up files.
 * @param source the file's evSource
 */
void empAelFileInsert(EmpAelFileNameEntry_t* entry, U8_t source);

/** Frees all entries. */
void empAelFileListFree();

#endif
