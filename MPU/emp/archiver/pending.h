/**
 * @file
 * The pool of pending-message records and its three lists. A record holds a message to the Event
 * Archiver that is not written whole yet, or waits for the archiver's answer.
 */
#ifndef EMP_ARCHIVER_PENDING_H
#define EMP_ARCHIVER_PENDING_H

#include "configuration.h"
#include "fault/bugcheck.h"
#include "fixed_width.h"

#include <sys/time.h>

struct EvMsgRecordEntry_s;
using EvMsgRecordEntry_t = EvMsgRecordEntry_s;

/** Head of a list of records; NULL when empty. */
using EvMsgRecordList_t = EvMsgRecordEntry_t*;

/** Links of a record. The back link addresses what points here, so that unlinking needs no head. */
struct EvMsgLink_s {
    EvMsgRecordEntry_t* flink;  ///< next record, NULL at the end
    EvMsgRecordEntry_t** blink; ///< the previous record's flink, or the list head; NULL on no list
};

enum EMP_EVMSG_RECORD_STATE_e : U8_t {
    EMP_E_EVMSG_RECORD_ST_NOT_USED = 1,         ///< on the free list
    EMP_E_EVMSG_RECORD_ST_NOT_FORWARD = 2,      ///< queued, nothing written yet
    EMP_E_EVMSG_RECORD_ST_PARTIAL_FORWARD = 3,  ///< queued, byteSent bytes written
    EMP_E_EVMSG_RECORD_ST_COMPLETE_FORWARD = 4, ///< written whole, an answer is awaited
};

struct EvMsgRecordEntry_s {
    EvMsgLink_s link;
    U8_t state;        ///< EMP_EVMSG_RECORD_STATE_e
    U8_t evMsgType;    ///< EMP_E_MSGS_LOG or EMP_E_MSGS_INQUIRY
    U8_t mmch_version; ///< inquiry: from the requesting message
    U8_t requestor;    ///< inquiry: the requesting endpoint
    U8_t mmsg_cont;    ///< inquiry: from the requesting message; 0x80: from another blade
    U32_t handle;      ///< inquiry: from the requesting message; 0 for events
    U8_t evEnclosureId[EMP_ID_TEXT_SIZE]; ///< inquiry: blade asked about
    U8_t evBladeId[EMP_ID_TEXT_SIZE];     ///< inquiry: blade asked about
    U32_t evSlotId;                       ///< inquiry: blade asked about
    U32_t evInstanceNumber;               ///< inquiry: instance asked about
    U8_t* memAddressPtr;                  ///< heap copy of the whole message, owned; NULL when none
    U32_t msgLength;                      ///< bytes of that message on the wire
    U32_t byteSent;                       ///< bytes of it already written
    struct timeval responseTimeout; ///< time left for the answer: 15 s for inquiries, 0 for events
    U32_t evSeqIdInquiry;           ///< inquiry: sequence id asked about
    U8_t evInquiryType;             ///< inquiry: EMP_INQUIRY_TYPE_e
};

constexpr U32_t EMP_PENDING_RECORDS = 64;

extern EvMsgRecordEntry_t EvMsgRecord[EMP_PENDING_RECORDS];
extern EvMsgRecordList_t EvMsgRecordFreeList;
extern EvMsgRecordList_t
    EvMsgRecordForwardList; ///< written in part or not at all; sent in list order
extern EvMsgRecordList_t EvMsgRecordResponseList; ///< written whole

/** Empties the three lists and puts every record of the pool on the free list, the last one at its
 * head. */
void empEvMsgPoolInit();

/** Zeroes a record that is on no list and pushes it at the head of the free list. */
void empEvMsgEntryInit(EvMsgRecordEntry_t* entry);

/** Frees the record's message, takes it off whatever list holds it and initialises it. */
void empEvMsgEntryFree(EvMsgRecordEntry_t* entry);

/**
 * Takes the head of the free list off it.
 * @return a record on no list, zeroed but for its state; none left is a bug-check
 */
EvMsgRecordEntry_t* empEvMsgTake(EmpSite_t site);

/**
 * Gives a record its own copy of the whole wire message and notes its length; nothing of it counts
 * as sent. No memory is the same bug-check as no record.
 */
void empEvMsgKeepMessage(EvMsgRecordEntry_t* entry, const void* message, U32_t length,
                         EmpSite_t site);

/**
 * Whether one more message may be kept: the two counters of empControl add up to less than 64.
 * KEEP: they count what was ever queued less what moved on; answered messages count for ever.
 */
bool empPendingRecordAdmitted();

/** Puts a record that is on no list at the head of @p list. */
void empEvMsgPush(EvMsgRecordList_t* list, EvMsgRecordEntry_t* entry);

/** Puts a record that is on no list at the end of @p list. */
void empEvMsgAppend(EvMsgRecordList_t* list, EvMsgRecordEntry_t* entry);

/** Takes a record off whatever list holds it. */
void empEvMsgUnlink(EvMsgRecordEntry_t* entry);

#endif
