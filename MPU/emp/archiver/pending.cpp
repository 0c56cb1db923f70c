#include "archiver/pending.h"

#include "diag/debug_line.h"

#include <cstdlib>

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
