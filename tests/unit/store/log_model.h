/**
 * @file
 * The log file store once more, as naive as it can be told: a file in a vector that is searched
 * byte by byte and read header by header. The product must leave the same bytes, the same state and
 * the same output.
 */
#ifndef TESTS_UNIT_STORE_LOG_MODEL_H
#define TESTS_UNIT_STORE_LOG_MODEL_H

#include "log_image.h"

#include <string>

namespace logmodel {

using logimage::Bytes;

/** What the model does where the event manager bug-checks. */
struct BugCheck {
    std::string text;
    std::string function;
};

struct IndexEntry {
    bool valid = false;
    uint32_t offset = 0;
    bool operator==(const IndexEntry&) const = default;
};

class Log {
  public:
    explicit Log(Bytes image = {}) : file(std::move(image)) {}

    /** A new process: state, index and position as after the reset. The file stays. */
    void restart();
    /** Walks the file. @return true when it was damaged and has been started again */
    bool scan();
    /** Searches from @p from on; @p gap is untouched when there is nothing. */
    bool find(uint32_t from, uint32_t& gap);
    /** Stores an event that takes the next id. */
    void append(const Bytes& body, uint8_t source, uint16_t evId);

    Bytes file;
    std::string debugPath{};     ///< name of the debugging copy
    bool debugCopyThere = false; ///< a rebuild has moved the damaged file away
    Bytes debugCopy{};           ///< that file
    uint32_t write = 0;
    uint32_t start = 0;
    uint32_t startId = 0;
    uint32_t nextId = 0;
    bool wrapped = false;
    bool foundGap = false;
    uint32_t inFile = 0;
    uint32_t added = 0;
    uint32_t deleted = 0;
    uint32_t instance = 0;
    uint32_t clock = logimage::TIME;
    std::vector<IndexEntry> index = std::vector<IndexEntry>(10'000);
    Bytes workSpace = Bytes(70'000, 0);
    uint64_t position = 0; ///< of the file
    std::string output{};  ///< debug lines without time stamps, and hex dumps

  private:
    struct Header {
        uint16_t signature = 0;
        uint8_t version = 0;
        uint32_t crc = 0;
        std::string enclosure{};
        uint32_t slot = 0;
        uint32_t instance = 0;
        uint32_t id = 0;
        uint16_t length = 0;
        uint8_t source = 0;
        uint8_t type = 0;
        uint16_t evId = 0;
        bool isDummy() const { return source == 27 && evId == 1; }
    };

    void line(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void hexDump(const Bytes& bytes);
    Bytes readFile(uint64_t length);
    void writeFile(const Bytes& bytes);
    void writeZeros(uint64_t length);
    static Header parse(const Bytes& header);
    void toWorkSpace(size_t offset, const Bytes& bytes);

    bool findOnce(uint32_t from, uint32_t& gap, bool& over);
    static bool isPlausible(const Header& header);
    bool isSound(const Header& header, bool& cut);
    bool stepOn(uint32_t from, uint32_t& tmpGap);

    enum class Walk { ON, ENDED, REBUILT };
    Walk walkOn(uint32_t& readPosition, bool& first);
    bool takeRecord(const Header& header, uint32_t readPosition, uint32_t gap, bool& first);
    void takeFirst(const Header& header, uint32_t gap);
    void takeContinuous(const Header& header, uint32_t gap);
    void takeOther(const Header& header, uint32_t readPosition, uint32_t gap);
    void endAtDummy(bool first);
    void endWithDummy(uint32_t readPosition, bool first);
    void clearForeign(const Header& header);
    void rebuild();
    void writeFirstEntry();
    void writeDummy(uint32_t offset, uint32_t length, bool fill);

    void makeRoom(uint16_t need);
    void caseA(uint16_t need);
    void caseB(uint16_t need);
    void caseC(uint16_t need);
    void sizeFromIndex(uint16_t need);
    void discard(const Header& header, const Bytes& raw);
    Bytes readHeaderAt(uint64_t offset);
    void checkSignature(const Header& header, const Bytes& raw);

    uint32_t newId_ = 0; ///< id of the event that is being stored
};

/** Lines as empHexDump writes them. */
std::string hexDumpText(const Bytes& bytes);

} // namespace logmodel

#endif
