#include "archiver/pending.h"

#include "diag/debug_line.h"
#include "state/control.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr char NO_RECORD[] = "No more Event Message Record?";

} // namespace

EvMsgRecordEntry_t EvMsgRecord[EMP_PENDING_RECORDS];
EvMsgRecordList_t EvMsgRecordFreeList;
EvMsgRecordList_t EvMsgRecordForwardList;
EvMsgRecordList_t EvMsgRecordResponseList;

void empEvMsgPoolInit() {
    EvMsgRecordFreeList = nullptr;
    EvMsgRecordForwardList = nullptr;
    EvMsgRecordResponseList = nullptr;
    for (EvMsgRecordEntry_t& entry : EvMsgRecord) {
        empEvMsgEntryInit(&entry);
    }
}

void empEvMsgEntryInit(EvMsgRecordEntry_t* entry) {
    *entry = EvMsgRecordEntry_t{};
    entry->state = EMP_E_EVMSG_RECORD_ST_NOT_USED;
    empEvMsgPush(&EvMsgRecordFreeList, entry);
}

void empEvMsgEntryFree(EvMsgRecordEntry_t* entry) {
    empDebugLine("empEvMsgEntryFree(): Free Event Message Record with handle = [%d]\n",
                 static_cast<int>(entry->handle));
    free(entry->memAddressPtr);
    empEvMsgUnlink(entry);
    empEvMsgEntryInit(entry);
}

EvMsgRecordEntry_t* empEvMsgTake(EmpSite_t site) {
    EvMsgRecordEntry_t* entry = EvMsgRecordFreeList;
    if (entry == nullptr) {
        EMP_BUGCHECK(site, NO_RECORD);
    }
    empEvMsgUnlink(entry);
    return entry;
}

void empEvMsgKeepMessage(EvMsgRecordEntry_t* entry, const void* message, U32_t length,
                         EmpSite_t site) {
    entry->memAddressPtr = static_cast<U8_t*>(malloc(length));
    if (entry->memAddressPtr == nullptr) {
        EMP_BUGCHECK(site, NO_RECORD);
    }
    memcpy(entry->memAddressPtr, message, length);
    entry->msgLength = length;
    entry->byteSent = 0;
}

bool empPendingRecordAdmitted() {
    U32_t pending = U32_t{empControl.forwardPendingListCount} + empControl.responsePendingListCount;
    return pending < EMP_PENDING_RECORDS;
}

void empEvMsgPush(EvMsgRecordList_t* list, EvMsgRecordEntry_t* entry) {
    entry->link.flink = *list;
    entry->link.blink = list;
    if (*list != nullptr) {
        (*list)->link.blink = &entry->link.flink;
    }
    *list = entry;
}

void empEvMsgAppend(EvMsgRecordList_t* list, EvMsgRecordEntry_t* entry) {
    EvMsgRecordEntry_t** end = list;
    while (*end != nullptr) {
        end = &(*end)->link.flink;
    }
    entry->link.flink = nullptr;
    entry->link.blink = end;
    *end = entry;
}

void empEvMsgUnlink(EvMsgRecordEntry_t* entry) {
    if (entry->link.flink != nullptr) {
        entry->link.flink->link.blink = entry->link.blink;
    }
    if (entry->link.blink != nullptr) {
        *entry->link.blink = entry->link.flink;
    }
    entry->link.flink = nullptr;
    entry->link.blink = nullptr;
}
