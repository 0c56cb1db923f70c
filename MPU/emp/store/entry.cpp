#include "store/entry.h"

#include "diag/hex_dump.h"
#include "store/log_file.h"
#include "store/record.h"

#include <cstring>

void empReadRecord(EmpEvRecord_t* record, EmpSite_t site) {
    empLogReadHeader(record, site);
}

bool empRecordSigned(const EmpEvRecord_t* record) {
    return record->evRdSignature == EMP_RECORD_SIGNATURE;
}

void empRequireSignature(const EmpEvRecord_t* record, EmpSite_t site) {
    if (!empRecordSigned(record)) {
        EMP_BUGCHECK(site, EMP_INVALID_ENTRY);
    }
}

void empRequireSignatureOrDump(const EmpEvRecord_t* record, EmpSite_t site) {
    if (!empRecordSigned(record)) {
        empHexDump(record, EMP_RECORD_SIZE);
        EMP_BUGCHECK(site, EMP_INVALID_ENTRY);
    }
}

void empReadRecordData(const EmpEvRecord_t* record, void* to, EmpSite_t site) {
    // Longer data than any event may have: the offset led to something else, or the file is
    // crafted. It would not fit in a message.
    if (record->evStructLength > EMP_MAX_STRUCT) {
        empHexDump(record, EMP_RECORD_SIZE);
        EMP_BUGCHECK(site, EMP_READ_FAILS);
    }
    empLogRead(to, record->evStructLength, site);
}

void empCopyEventHeader(EmpEvLogHeader_t* to, const EmpEvRecord_t* from) {
    memcpy(to, empCoveredBytes(from), EMP_EVENT_HEADER_SIZE);
}
