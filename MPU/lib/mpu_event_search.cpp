#include "mpu_event_search.h"

#include "emp_mesgs.h"
#include "text64.h"

#include <cstring>
#include <sys/shm.h>

namespace mpu {

namespace {

// More than a process and its neighbours send while one batch is not confirmed.
constexpr U32_t LOOKED_AT_MAX = 2000;

/** A batch of messages, from its end. */
struct Batch_s {
    const U8_t* message[MPU_SEARCH_MESSAGES_MAX];
    bool found[MPU_SEARCH_MESSAGES_MAX];
    size_t count;
    size_t open; ///< messages from this one on are found or not there
};
using Batch_t = Batch_s;

const MMSG_t* messageAt(const U8_t* bytes) {
    return reinterpret_cast<const MMSG_t*>(bytes);
}

const EmpEvLogMsg_t* eventIn(const MMSG_t* message) {
    return reinterpret_cast<const EmpEvLogMsg_t*>(message->user_data_start);
}

Batch_t batchOf(const U8_t* messages, size_t length) {
    Batch_t batch = {};
    for (size_t at = 0; at < length;) {
        batch.message[batch.count++] = messages + at;
        at += messageAt(messages + at)->mmch.mmsg_length;
    }
    batch.open = batch.count;
    return batch;
}

/** Asks for one event. @param id for an exact inquiry: whose it is comes from the newest event
 * @return the answer, in the link's buffer; nullptr when there is none */
const EmpEvLogMsg_t* inquire(const MpuSearch_t& search, U32_t type, U32_t instance, U32_t id) {
    alignas(MMSG_t) U8_t request[MMCH_SIZE + sizeof(EmpEvInquiryMsg_t)];
    MMSG_t* message =
        mpuBuildRequest(request, search.endpoint, EMP_E_MSGS_INQUIRY, sizeof(request));
    message->mmch.handle = ++*search.handle;
    auto* inquiry = reinterpret_cast<EmpEvInquiryMsg_t*>(message->user_data_start);
    *inquiry = {};
    inquiry->evInquiryType = type;
    if (type == EMP_E_INQUIRY_TYPE_EXACT) {
        empTextCopy(inquiry->evEnclosureId, search.params->chassisSN);
        empTextCopy(inquiry->evBladeId, search.params->serialStr);
        inquiry->evSlotId = search.params->slotId;
        inquiry->evInstanceNumber = instance;
        inquiry->evSeqIdInquiry = id;
    }
    if (!mpuLinkSend(search.link, message, search.deadline) ||
        mpuLinkAwait(search.link, EMP_E_MSGS_INQUIRY, *search.handle, search.deadline) !=
            MPU_LINK_E_ANSWER) {
        return nullptr;
    }
    const MMSG_t* answer = messageAt(search.link->answer);
    const EmpEvLogMsg_t* event = eventIn(answer);
    bool whole = answer->mmch.return_code == EMP_E_RESPONSE_SUCCESS &&
                 answer->mmch.mmsg_length >= EMP_EVENT_MMSG_SIZE &&
                 answer->mmch.mmsg_length >= EMP_EVENT_MMSG_SIZE + event->evLogHdr.evStructLength;
    return whole ? event : nullptr;
}

/** Whether a stored event is the one of a message. */
bool isEventOf(const EmpEvLogMsg_t* stored, const MMSG_t* message) {
    const EmpEvLogHeader_t& one = stored->evLogHdr;
    const EmpEvLogHeader_t& other = eventIn(message)->evLogHdr;
    U32_t length = message->mmch.mmsg_length - U32_t{EMP_EVENT_MMSG_SIZE};
    return one.evSource == message->mmch.requestor && one.evType == other.evType &&
           one.evCategory == other.evCategory && one.evIdVersion == other.evIdVersion &&
           one.evId == other.evId && one.evStructLength == length &&
           memcmp(stored->evStruct, eventIn(message)->evStruct, length) == 0;
}

/** Looks for an older message of the batch that a stored event is. */
void match(Batch_t* batch, const EmpEvLogMsg_t* stored) {
    for (size_t place = batch->open; place > 0; place--) {
        if (isEventOf(stored, messageAt(batch->message[place - 1]))) {
            batch->open = place - 1;
            batch->found[place - 1] = true;
            return;
        }
    }
}

/** From the newest event of the log back to its oldest one: behind that, others would be asked. */
void searchLog(const MpuSearch_t& search, Batch_t* batch) {
    const EmpEvLogMsg_t* event = inquire(search, EMP_E_INQUIRY_TYPE_FIRST, 0, 0);
    if (event == nullptr) {
        return;
    }
    U32_t oldest = event->evLogHdr.evSequenceId;
    event = inquire(search, EMP_E_INQUIRY_TYPE_LAST, 0, 0);
    for (U32_t looked = 0; event != nullptr && looked < LOOKED_AT_MAX; looked++) {
        if (static_cast<S64_t>(U32_t{event->evLogHdr.evTime}) > search.after) {
            match(batch, event);
        }
        U32_t id = event->evLogHdr.evSequenceId;
        if (batch->open == 0 || id <= oldest) {
            return;
        }
        event = inquire(search, EMP_E_INQUIRY_TYPE_EXACT, event->evLogHdr.evInstanceNumber, id - 1);
    }
}

} // namespace

MpuBlockUse_t mpuBlockUse(int shmid) {
    struct shmid_ds status;
    if (shmctl(shmid, IPC_STAT, &status) != 0) {
        return {};
    }
    return {true, status.shm_lpid, status.shm_atime, status.shm_dtime};
}

bool mpuSameUse(const MpuBlockUse_t& one, const MpuBlockUse_t& other) {
    return one.known && other.known && one.last == other.last && one.attached == other.attached &&
           one.detached == other.detached;
}

size_t mpuDropFound(const MpuSearch_t& search, U8_t* messages, size_t length) {
    Batch_t batch = batchOf(messages, length);
    searchLog(search, &batch);
    size_t kept = 0;
    for (size_t place = 0; place < batch.count; place++) {
        if (!batch.found[place]) {
            size_t size = messageAt(batch.message[place])->mmch.mmsg_length;
            memmove(messages + kept, batch.message[place], size);
            kept += size;
        }
    }
    return kept;
}

} // namespace mpu
