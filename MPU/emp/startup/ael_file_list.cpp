#include "startup/ael_file_list.h"

#include "diag/debug_line.h"
#include "mmsg.h"

#include <cstdlib>

EmpAelFileNameEntry_t* empAelFileNameList;

namespace {

/** Links @p entry in where @p place points to what follows it. */
void linkAt(EmpAelFileNameEntry_t** place, EmpAelFileNameEntry_t* entry) {
    entry->link.flink = *place;
    entry->link.blink = place;
    if (*place != nullptr) {
        (*place)->link.blink = &entry->link.flink;
    }
    *place = entry;
}

/** Whether @p entry is replayed before @p current, which was found earlier. */
bool goesInFront(const EmpAelFileNameEntry_t* entry, U8_t source,
                 const EmpAelFileNameEntry_t* current) {
    if (current->mtime != entry->mtime) {
        return current->mtime > entry->mtime;
    }
    if (source != MMSG_E_EPID_STARTUPMP) {
        empDebugLine(
            "empProcessAlternateEventLogFile(): Not a working-on Startup AEL. Keep searching.\n");
        return false;
    }
    return current->tmpEvSequenceId > entry->tmpEvSequenceId;
}

void append(EmpAelFileNameEntry_t* last, EmpAelFileNameEntry_t* entry) {
    linkAt(&last->link.flink, entry);
    empDebugLine("empProcessAlternateEventLogFile(): Place working-on element [%s] in back of\n",
                 entry->aelFileName);
    empDebugLine("empProcessAlternateEventLogFile(): Previous element [%s].\n", last->aelFileName);
}

} // namespace

void empAelFileInsert(EmpAelFileNameEntry_t* entry, U8_t source) {
    if (empAelFileNameList == nullptr) {
        linkAt(&empAelFileNameList, entry);
        empDebugLine("empProcessAlternateEventLogFile(): AEL File [%s], 1st file on list.\n",
                     entry->aelFileName);
        return;
    }
    EmpAelFileNameEntry_t* last = nullptr;
    for (EmpAelFileNameEntry_t* current = empAelFileNameList; current != nullptr;
         current = current->link.flink) {
        if (goesInFront(entry, source, current)) {
            linkAt(current->link.blink, entry);
            empDebugLine(
                "empProcessAlternateEventLogFile(): Place working-on element in front of current element.\n");
            return;
        }
        last = current;
    }
    append(last, entry);
}

void empAelFileListFree() {
    while (empAelFileNameList != nullptr) {
        EmpAelFileNameEntry_t* entry = empAelFileNameList;
        empAelFileNameList = entry->link.flink;
        free(entry);
    }
}
