#include "log_model.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace logmodel {

namespace {
constexpr uint64_t END = 1'600'000;
int number(uint32_t value) {
    return static_cast<int>(value);
}
} // namespace

void Log::line(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    output += text;
}

std::string hexDumpText(const Bytes& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (size_t n = 1; n <= bytes.size(); n++) {
        text += digits[bytes[n - 1] >> 4];
        text += digits[bytes[n - 1] & 15];
        text += n % 64 == 0 ? "\n\n" : n % 32 == 0 ? "\n" : n % 4 == 0 ? " " : "";
    }
    return text + "\n";
}

void Log::hexDump(const Bytes& bytes) {
    output += hexDumpText(bytes);
}

Bytes Log::readFile(uint64_t length) {
    Bytes got = logimage::slice(file, position, length);
    position += got.size();
    return got;
}

void Log::writeFile(const Bytes& bytes) {
    if (bytes.empty()) {
        return;
    }
    if (file.size() < position + bytes.size()) {
        file.resize(static_cast<size_t>(position + bytes.size()), 0);
    }
    std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<std::ptrdiff_t>(position));
    position += bytes.size();
}

void Log::writeZeros(uint64_t length) {
    writeFile(logimage::zeros(length));
}

Log::Header Log::parse(const Bytes& raw) {
    Header header;
    header.signature = logimage::get16(raw, 0);
    header.version = raw.at(2);
    header.crc = logimage::get32(raw, 4);
    for (size_t i = 8; i < 72 && raw.at(i) != 0; i++) {
        header.enclosure += static_cast<char>(raw.at(i));
    }
    header.slot = logimage::get32(raw, 136);
    header.instance = logimage::get32(raw, 140);
    header.id = logimage::get32(raw, 144);
    header.length = logimage::get16(raw, 152);
    header.source = raw.at(154);
    header.type = raw.at(155);
    header.evId = logimage::get16(raw, 158);
    return header;
}

void Log::toWorkSpace(size_t offset, const Bytes& bytes) {
    std::copy(bytes.begin(), bytes.end(), workSpace.begin() + static_cast<std::ptrdiff_t>(offset));
}

void Log::restart() {
    Log fresh(std::move(file));
    fresh.debugCopy = std::move(debugCopy);
    fresh.debugPath = debugPath;
    fresh.debugCopyThere = debugCopyThere;
    fresh.clock = clock;
    *this = std::move(fresh);
}

bool Log::isPlausible(const Header& header) {
    return header.signature == 0xB68F && header.version <= 1 && header.source <= 34 &&
           (header.length <= 3848 || header.source == 27 || header.evId == 1);
}

/** Reads the body of a plausible header and checks the sum. */
bool Log::isSound(const Header& header, bool& cut) {
    uint32_t covered = 152;
    if (!header.isDummy()) {
        Bytes body = readFile(header.length);
        toWorkSpace(160, body);
        if (body.size() < header.length) {
            hexDump(body);
            cut = true;
            return false;
        }
        covered += header.length;
    }
    uint32_t computed = logimage::checksum(workSpace.data() + 8, covered);
    if (computed != header.crc) {
        line("empFindValidEventEntry(): Record CRCChecksum [0x%X] not match with calculated "
             "CRCChecksum [0x%X]\n",
             header.crc, computed);
        return false;
    }
    return true;
}

bool Log::stepOn(uint32_t from, uint32_t& tmpGap) {
    tmpGap++;
    if (uint64_t{from} + tmpGap > END) {
        line("empFindValidEventEntry(): Can't find valid Event Entry. tmpGap = [%d]\n",
             number(tmpGap));
        return false;
    }
    return true;
}

/** Looks at one offset. @return whether a record begins there; @p over: the search is given up */
bool Log::findOnce(uint32_t from, uint32_t& tmpGap, bool& over) {
    position = uint64_t{from} + tmpGap;
    if (position + 160 > file.size()) {
        Bytes part = readFile(160);
        toWorkSpace(0, part);
        hexDump(part);
        over = true;
        return false;
    }
    std::copy_n(file.begin() + static_cast<std::ptrdiff_t>(position), 160, workSpace.begin());
    position += 160;
    if (workSpace[0] != 0xB6 || workSpace[1] != 0x8F) {
        over = !stepOn(from, tmpGap);
        return false;
    }
    Header header = parse(workSpace);
    if (isPlausible(header)) {
        bool cut = false;
        if (isSound(header, cut)) {
            return true;
        }
        over = cut || !stepOn(from, tmpGap);
        return false;
    }
    if (header.signature == 0xB68F && header.version <= 1 && header.type <= 3 &&
        header.source > 34) {
        throw BugCheck{"Bad Event Source [" + std::to_string(header.source) +
                           "] in the Corrupted Event Log File! Please Delete the File.",
                       "empFindValidEventEntry"};
    }
    over = !stepOn(from, tmpGap);
    return false;
}

bool Log::find(uint32_t from, uint32_t& gap) {
    uint64_t noted = position;
    std::fill_n(workSpace.begin(), 4064, uint8_t{0});
    uint32_t tmpGap = 0;
    bool over = false;
    bool found = false;
    while (!found && !over) {
        found = findOnce(from, tmpGap, over);
    }
    if (found) {
        gap = tmpGap;
    }
    position = noted;
    return found;
}

bool Log::scan() {
    if (debugCopyThere) {
        debugCopyThere = false;
        line("empProcessEventLogFile(): Remove the debugging copy of the Event Log File [%s].\n",
             debugPath.c_str());
    }
    position = 0;
    uint32_t readPosition = 0;
    bool first = true;
    Walk walk = Walk::ON;
    while (walk == Walk::ON) {
        walk = walkOn(readPosition, first);
    }
    return walk == Walk::REBUILT;
}

/** One record of the walk. */
Log::Walk Log::walkOn(uint32_t& readPosition, bool& first) {
    uint32_t gap = 0;
    position = readPosition;
    if (readPosition > END || !find(readPosition, gap)) {
        endWithDummy(readPosition, first);
        return Walk::ENDED;
    }
    if (gap != 0) {
        line("empProcessEventLogFile(): Found gap = [%d] between the current Event Entry and "
             "another one.\n",
             number(gap));
        if (foundGap) {
            rebuild();
            return Walk::REBUILT;
        }
        foundGap = true;
    }
    Header header = parse(readHeaderAt(uint64_t{readPosition} + gap));
    if (header.isDummy() || uint64_t{start} + 160 > END) {
        endAtDummy(first);
        return Walk::ENDED;
    }
    if (!takeRecord(header, readPosition, gap, first)) {
        return Walk::ENDED;
    }
    index[header.id % 10'000] = {true, readPosition + gap};
    line("empProcessEventLogFile(): Record eventEntryDatabase[%d], Offset = [%d], Flag = [0x%x] "
         "for non-Dummy Entry.\n",
         number(header.id % 10'000), number(readPosition + gap), 1U);
    inFile++;
    readPosition += gap + 160 + header.length;
    line("empProcessEventLogFile(): new Read position = [%d]\n", number(readPosition));
    if (readPosition == END) {
        line("empProcessEventLogFile(): Reach end of the Event Log Files. Read position = [%d]\n",
             number(readPosition));
        return Walk::ENDED;
    }
    return Walk::ON;
}

void Log::endAtDummy(bool first) {
    position = start;
    if (first || !wrapped) {
        start = END;
    }
}

/** @return false when the record belongs to another blade and the file has been cleared */
bool Log::takeRecord(const Header& header, uint32_t readPosition, uint32_t gap, bool& first) {
    if (first) {
        line("empProcessEventLogFile(): This is first Event Entry.\n");
        if (header.enclosure != logimage::ENCLOSURE || header.slot != logimage::SLOT) {
            clearForeign(header);
            return false;
        }
        takeFirst(header, gap);
        first = false;
    } else if (header.id == nextId) {
        takeContinuous(header, gap);
    } else {
        takeOther(header, readPosition, gap);
    }
    return true;
}

void Log::takeFirst(const Header& header, uint32_t gap) {
    instance = header.instance;
    if (!wrapped) {
        write += header.length + 160 + gap;
        start = write;
    }
    line("empProcessEventLogFile(): Event Log with Sequence Id = [%d].\n", number(header.id));
    startId = header.id;
    nextId = header.id + 1;
}

void Log::takeContinuous(const Header& header, uint32_t gap) {
    if (!wrapped) {
        write += header.length + 160 + gap;
        start = write;
    }
    line("empProcessEventLogFile(): Event Log with Sequence Id = [%d].\n", number(header.id));
    nextId++;
    if (gap != 0) {
        throw BugCheck{"Continuous SequenceId with Gap? Bug somewhere!", "empProcessEventLogFile"};
    }
}

void Log::takeOther(const Header& header, uint32_t readPosition, uint32_t gap) {
    line("empProcessEventLogFile(): SequenceId isn't continuous between Event Entries.\n");
    if (startId > header.id) {
        wrapped = true;
        line("empProcessEventLogFile(): Event Log File is wrapped over.\n");
        write = readPosition;
        start = readPosition;
        startId = header.id;
    }
    if (header.id < nextId && !wrapped) {
        throw BugCheck{"Invalid Sequence ID? Bug somewhere!", "empProcessEventLogFile"};
    }
    if (gap != 0) {
        line("empProcessEventLogFile(): Add [%d] bytes of gap between Event Entries for "
             "empStart.\n",
             number(gap));
        start += gap;
    } else {
        line("empProcessEventLogFile(): No gap between Event Entries.\n");
    }
    line("empProcessEventLogFile(): empWrite = [%d], empStart = [%d]\n", number(write),
         number(start));
    line("empProcessEventLogFile(): empSequenceId = [%d], empStartSequenceId = [%d]\n",
         number(nextId), number(startId));
}

void Log::endWithDummy(uint32_t readPosition, bool first) {
    if (first) {
        writeFirstEntry();
        readPosition = 200;
    }
    line("empProcessEventLogFile(): Can't find a valid Event Entry in Event Log File? Create Dummy "
         "Entry.\n");
    uint16_t length = static_cast<uint16_t>(1'599'840U - readPosition);
    if (length > 3844) {
        length = 0xFFFF;
    }
    writeDummy(readPosition, length, true);
    line("empProcessEventLogFile(): empWrite = [%d], new empStart = [%d].\n", number(write),
         number(start));
    if (first) {
        start = END;
        line("empProcessEventLogFile(): Because of creation of Dummy Entry, empWrite = [%d], new "
             "empStart = [%d].\n",
             number(write), number(start));
    }
}

void Log::clearForeign(const Header& header) {
    instance = header.instance + 1;
    line("empProcessEventLogFile(): EnclosureId[%s] or SlotId [%d] in Event Log File Different "
         "from Run Time.\n",
         header.enclosure.c_str(), number(header.slot));
    line("empProcessEventLogFile(): Clear current Event Log File. New Instance Number = [%d].\n",
         number(instance));
    writeFirstEntry();
    writeDummy(200, 65535, true);
    start = END;
}

void Log::rebuild() {
    debugCopy = std::move(file);
    debugCopyThere = true;
    file.clear();
    position = 0;
    line("empProcessEventLogFile(): 2 gaps in Event Log File. Reinitialize the Event Log File.\n");
    index.assign(10'000, {});
    write = nextId = startId = inFile = added = 0;
    wrapped = false;
    foundGap = false;
    writeFirstEntry();
    writeDummy(200, 65535, true);
    line("empProcessEventLogFile(): empWrite = [%d], new empStart = [%d].\n", number(write),
         number(start));
    start = END;
    line("empProcessEventLogFile(): Because of creation of Dummy Entry, empWrite = [%d], new "
         "empStart = [%d].\n",
         number(write), number(start));
}

void Log::writeFirstEntry() {
    logimage::Record first = logimage::Record::first(nextId, instance);
    first.time = clock;
    nextId++;
    position = 0;
    writeFile(logimage::encode(first));
    inFile++;
    added++;
    index[first.id % 10'000] = {true, write};
    line("empWriteFirstEntryToLogFile(): Record eventEntryDatabase[%d], Offset = [%d], Flag = "
         "[0x%x] for new Event Entry.\n",
         number(first.id % 10'000), number(write), 1U);
    write += 200;
    line("empWriteFirstEntryToLogFile(): new empWrite = [%d].\n", number(write));
}

void Log::writeDummy(uint32_t offset, uint32_t length, bool fill) {
    uint64_t noted = position;
    position = offset;
    if (uint64_t{offset} + 160 > END) {
        line("empWriteDummyEntryToLogFile(): No enough space for Dummy Event Record. Write [%d] "
             "bytes of 0 to Event Log File.\n",
             static_cast<int>(1'600'000 - static_cast<int64_t>(offset)));
        writeZeros(offset < END ? END - offset : 0);
        position = noted;
        return;
    }
    logimage::Record dummy =
        logimage::Record::dummy(static_cast<uint16_t>(length <= 65535 ? length : 0xFFFF), instance);
    dummy.time = clock;
    Bytes raw = logimage::encode(dummy);
    line("empWriteDummyEntryToLogFile(): Dummy Entry CRCChecksum = [0x%X].\n",
         logimage::get32(raw, 4));
    writeFile(raw);
    if (length == 65535) {
        length = 1'599'840 - offset;
    }
    if (fill) {
        writeZeros(length);
    }
    position = noted;
}

} // namespace logmodel
