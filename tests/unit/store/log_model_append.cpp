#include "log_model.h"

#include <algorithm>

namespace logmodel {

namespace {

constexpr uint64_t END = 1'600'000;
constexpr char FUNCTION[] = "empSaveEventLogMsgToLogFile";

int number(uint32_t value) {
    return static_cast<int>(value);
}

} // namespace

void Log::append(const Bytes& body, uint8_t source, uint16_t evId) {
    logimage::Record record;
    record.body = body;
    record.length = static_cast<uint16_t>(body.size());
    record.time = clock;
    record.id = nextId++;
    record.instance = instance;
    if (nextId == 0) {
        instance++;
    }
    record.source = source;
    record.evId = evId;
    newId_ = record.id;
    Bytes raw = logimage::encode(record);
    // An event that looks like a dummy is stored with the checksum of an ordinary record.
    logimage::put32(raw, 4, logimage::checksum(raw.data() + 8, raw.size() - 8));

    line("empSaveEventLogMsgToLogFile(): Current File Position at [%d].\n",
         static_cast<int>(position));
    makeRoom(static_cast<uint16_t>(body.size() + 160));

    position = write;
    line("empSaveEventLogMsgToLogFile(): empWrite = [%d], empStart = [%d], empStartSequenceId = "
         "[%d].\n",
         number(write), number(start), number(startId));
    writeFile(logimage::slice(raw, 0, 160));
    line("empSaveEventLogMsgToLogFile(): Write total [%d] bytes into Event Log File.\n",
         static_cast<int>(raw.size()));
    writeFile(body);
    inFile++;
    added++;
    index[record.id % 10'000] = {true, write};
    line("empSaveEventLogMsgToLogFile(): Record eventEntryDatabase[%d], Offset = [%d], Flag = "
         "[0x%x] for new Event Entry.\n",
         number(record.id % 10'000), number(write), 1U);
    write += static_cast<uint32_t>(raw.size());
    line("empSaveEventLogMsgToLogFile(): new empWrite = [%d].\n", number(write));
    if (start == END) {
        writeDummy(write, 1'599'840U - write, wrapped);
        line("empSaveEventLogMsgToLogFile(): Recreate Dummy Entry for wipping out space.\n");
    }
}

void Log::makeRoom(uint16_t need) {
    if (uint64_t{write} + need <= start) {
        caseA(need);
        return;
    }
    line("empSaveEventLogMsgToLogFile(): Not enough space for new Event Entry between empWrite = "
         "[%d] and empStart = [%d].\n",
         number(write), number(start));
    if (uint64_t{write} + need <= END) {
        caseB(need);
    } else {
        caseC(need);
    }
}

Bytes Log::readHeaderAt(uint64_t offset) {
    position = offset;
    Bytes raw = readFile(160);
    if (raw.size() < 160) {
        hexDump(raw);
        throw BugCheck{"Linux read function fails for Event Log File!", FUNCTION};
    }
    return raw;
}

void Log::checkSignature(const Header& header, const Bytes& raw) {
    if (header.signature != 0xB68F) {
        hexDump(raw);
        throw BugCheck{"Incorrect Signature in Event Entry!", FUNCTION};
    }
}

void Log::discard(const Header& header, const Bytes& raw) {
    uint32_t slot = header.id % 10'000;
    if (slot != startId % 10'000) {
        hexDump(raw);
        throw BugCheck{"Mismatching empStartSequenceId in Event Entry!", FUNCTION};
    }
    index[slot] = {};
    startId++;
    inFile--;
    deleted++;
    line("empSaveEventLogMsgToLogFile(): Wipe out eventEntryDatabase[%d], new empStartSequenceId = "
         "[%d]\n",
         number(slot), number(startId));
}

void Log::caseA(uint16_t need) {
    line("empSaveEventLogMsgToLogFile(): Enough space for new Event Entry length = [%d].\n", need);
    line("empSaveEventLogMsgToLogFile(): Current empWrite = [%d], empStart = [%d], "
         "empStartSequenceId = [%d].\n",
         number(write), number(start), number(startId));
    if (write >= END) {
        line("empSaveEventLogMsgToLogFile(): This shall not happen. This is for debugging "
             "purpose.\n");
        write = 0;
        start = 0;
        startId++;
    }
    uint32_t gap = 0;
    if (!find(write, gap) || uint64_t{write} + gap == start) {
        line("empSaveEventLogMsgToLogFile(): No valid Event Entry between empWrite = [%d] and "
             "empStart = [%d]\n",
             number(write), number(start));
        return;
    }
    uint64_t at = uint64_t{write} + gap;
    need = static_cast<uint16_t>(need - gap);
    Bytes raw;
    Header header;
    for (;;) {
        raw = readHeaderAt(at);
        header = parse(raw);
        uint32_t length = uint32_t{header.length} + 160;
        if (header.isDummy() && header.length >= 65535) {
            length = static_cast<uint32_t>(END - at);
        } else {
            checkSignature(header, raw);
        }
        line("empSaveEventLogMsgToLogFile(): Current Event Entry Length = [%d].\n", number(length));
        if (length >= need) {
            break;
        }
        if (!header.isDummy()) {
            discard(header, raw);
            at += length;
        } else if (wrapped) {
            throw BugCheck{"Reach Dummy Entry but still not enough space!", FUNCTION};
        }
        need = static_cast<uint16_t>(need - length);
    }
    if (!header.isDummy()) {
        checkSignature(header, raw);
        discard(header, raw);
    }
    line("empSaveEventLogMsgToLogFile(): Enough space to the bottom for new Event Entry.\n");
}

void Log::caseB(uint16_t need) {
    line("empSaveEventLogMsgToLogFile(): New Event Entry Length = [%d], no need to wrap to the Top "
         "of Event Log Fiel.\n",
         need);
    if (uint64_t{start} + 160 <= END) {
        need = static_cast<uint16_t>(need + (write - start));
        while (uint64_t{start} + 160 <= END) {
            Bytes raw = readHeaderAt(start);
            Header header = parse(raw);
            checkSignature(header, raw);
            uint32_t length = uint32_t{header.length} + 160;
            if (length >= need) {
                if (header.isDummy()) {
                    start = END;
                } else {
                    discard(header, raw);
                    start += length;
                }
                line("empSaveEventLogMsgToLogFile(): Enough space to the bottom for new Event "
                     "Entry.\n");
                return;
            }
            if (header.isDummy()) {
                position = file.size();
                if (file.size() >= END) {
                    throw BugCheck{"Reach Dummy Entry but still not enough space!", FUNCTION};
                }
                start = END;
                return;
            }
            discard(header, raw);
            start += length;
            need = static_cast<uint16_t>(need - length);
        }
    }
    line("empSaveEventLogMsgToLogFile(): No wipe out eventEntryDatabase[] b/c no space for Dummy "
         "Record at empStart = [%d].\n",
         number(start));
    start = END;
}

void Log::caseC(uint16_t need) {
    uint64_t noted = position;
    line("empSaveEventLogMsgToLogFile(): New Event Entry Length = [%d], need to wrap to the Top of "
         "Event Log Fiel.\n",
         need);
    position = 0;
    line("empSaveEventLogMsgToLogFile(): Check Event Record from the top to wipe out # of "
         "eventEntryDatabase in the bottom.\n");
    Bytes raw = readHeaderAt(0);
    Header header = parse(raw);
    checkSignature(header, raw);
    position = noted;
    for (uint32_t slot = startId % 10'000; slot < header.id % 10'000; slot++) {
        index[slot] = {};
        startId++;
        deleted++;
        inFile--;
        line("empSaveEventLogMsgToLogFile(): Wipe out eventEntryDatabase[%d], empStartSequenceId = "
             "[%d]\n",
             number(slot), number(startId));
    }
    line("empSaveEventLogMsgToLogFile(): Write Dummy Entry for wipping out space.\n");
    writeDummy(write, 1'599'840U - write, wrapped);
    write = 0;
    start = 0;
    wrapped = true;
    line("empSaveEventLogMsgToLogFile(): Event Log File is wrapped over.\n");
    line("empSaveEventLogMsgToLogFile(): Not enough space to the bottom for new Event Entry. Start "
         "from the Top.\n");
    sizeFromIndex(need);
    line("empSaveEventLogMsgToLogFile(): Including Event with SequenceId = [%d] got enough space\n",
         number(startId - 1));
    line("empSaveEventLogMsgToLogFile(): empWrite = [%d], empStart = [%d], empStartSequenceId = "
         "[%d].\n",
         number(write), number(start), number(startId));
}

void Log::sizeFromIndex(uint16_t need) {
    for (;;) {
        if (std::all_of(index.begin(), index.end(),
                        [](const IndexEntry& entry) { return entry.offset == 0; })) {
            index.assign(10'000, {});
            inFile = 0;
            startId = newId_;
            start = END;
            return;
        }
        uint32_t slot = startId % 10'000;
        uint32_t length = index[(startId + 1) % 10'000].offset - index[slot].offset;
        index[slot] = {};
        start += length;
        startId++;
        deleted++;
        inFile--;
        line("empSaveEventLogMsgToLogFile(): Wipe out eventEntryDatabase[%d], new "
             "empStartSequenceId = [%d]\n",
             number(slot), number(startId));
        if (length >= need) {
            return;
        }
        need = static_cast<uint16_t>(need - length);
    }
}

} // namespace logmodel
