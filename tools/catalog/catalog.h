/**
 * @file
 * The event catalogue: what the events of a source mean, and how their data is laid out.
 *
 * It is data: JSON files, one or more for a source, each with "source" and "events"; the file
 * share/event-manager/catalog.schema.json describes them for editors. An event is found by source,
 * id and id version; an entry without a version stands for all versions that have none of their
 * own. Nothing in a file makes a reader fail: what is wrong is left out, and told.
 */
#ifndef CATALOG_CATALOG_H
#define CATALOG_CATALOG_H

#include "fixed_width.h"

#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace catalog {

/** No entry has more fields: one for each byte that an event may have. */
constexpr size_t FIELDS_MAX = 3848;
/** Nor is any text of a catalogue longer, in bytes. */
constexpr size_t TEXT_SIZE_MAX = 4096;

/** How the bytes of a field are read. */
enum class Kind {
    UNSIGNED, ///< 1 to 8 bytes
    SIGNED,   ///< 1 to 8 bytes, two's complement
    TEXT,     ///< up to the first NUL
    HEX,      ///< any bytes
    IPV4,     ///< 4 bytes
};

/** Which byte of a number comes first. */
enum class Order {
    BIG,
    LITTLE,
    EITHER, ///< whichever gives the smaller number: data in the byte order of its writer
};

/** A part of the data. */
struct Field {
    std::string name;
    U32_t offset = 0;
    U32_t width = 0; ///< bytes, at least 1; of a text: at most so many
    Kind kind = Kind::UNSIGNED;
    Order order = Order::BIG;
    std::string unit;                   ///< behind the number; empty: none
    std::map<S64_t, std::string> names; ///< of numbers
};

/** What one event means. */
struct Entry {
    U32_t source = 0;
    U32_t firstId = 0;
    U32_t lastId = 0;             ///< most entries: firstId
    std::optional<U32_t> version; ///< evIdVersion; nothing: any
    std::string name;             ///< one word
    std::string severity;         ///< "information", "warning", "error" or empty
    std::string text;             ///< template: {field} stands for a field's value
    std::string advice;           ///< what an operator may do; empty: nothing
    std::vector<Field> fields;
    std::map<std::string, size_t, std::less<>> fieldPlaces; ///< in fields, by name
    std::string file;                                       ///< where it stands
    U32_t layer = 0; ///< directories that came before its own, or its file

    const Field* field(std::string_view wanted) const;
};

/** Something wrong in a file. */
struct Problem {
    std::string file;
    std::string place; ///< "/events/3/fields/0/offset"; empty: the whole file
    std::string text;
};

/** "FILE: PLACE: TEXT" */
std::string problemLine(const Problem& problem);

/** All that is known. */
class Catalog {
  public:
    /**
     * Takes in the events of a file's content.
     * @param json     the content; anything may be in it
     * @param file     its name, for problems
     * @param problems receives what is wrong; entries that have a problem are not taken
     */
    void add(const std::string& json, const std::string& file, std::vector<Problem>* problems);

    /** add() for a file. */
    void addFile(const std::string& path, std::vector<Problem>* problems);

    /**
     * addFile() for each file of a directory whose name ends in ".json", in the order of names. It
     * goes before the directories that came earlier: a file replaces theirs of the same name, and
     * an entry theirs of the same event.
     */
    void addDirectory(const std::string& path, std::vector<Problem>* problems);

    /** What later directories have replaced, as "replaces ..." at the place of what counts. */
    const std::vector<Problem>& replaced() const { return replaced_; }

    /** @return of the last directory that knows it: the entry of that version, else that of any
     * version; else nullptr. @param version above 255: entries of any version only */
    const Entry* find(U32_t source, U32_t id, U32_t version) const;

    /** In the order of sources and ids. */
    std::vector<const Entry*> entries() const;

  private:
    void take(Entry entry, const std::string& place, std::vector<Problem>* problems);
    void dropFile(const std::string& path, std::vector<Problem>* problems);

    using Ids = std::map<U32_t, Entry>; // by the first id; none overlaps another
    using Layers = std::map<U32_t, Ids>;
    using Versions = std::map<std::optional<U32_t>, Layers>;

    void replace(Layers& layers, const Entry& entry, const std::string& place,
                 std::set<std::string>* files);

    std::map<U32_t, Versions> bySource_;
    std::map<std::string, std::string> files_; // of directories: paths by name
    std::vector<Problem> replaced_;
    U32_t layer_ = 0;
};

/** Where catalogues stand: the directories that EVENT_MANAGER_CATALOG names, with colons between;
 * when it is not set, or empty, those of the installation and of the site
 * (/etc/event-manager/catalog.d). Later ones go before. */
std::vector<std::string> catalogDirectories();

/** The catalogue of catalogDirectories(). All must be there, but that of the site, and readable. */
Catalog loadCatalog(std::vector<Problem>* problems);

// --- Decoding ------------------------------------------------------------------------------------

/** Whether the data do not end before a field. */
bool hasValue(const Field& field, std::span<const U8_t> data);

/** A field's value as text: number with unit, name with number, escaped text, digits; "?" when the
 * data ends before it. */
std::string valueText(const Field& field, std::span<const U8_t> data);

/** The value as a number; nothing for a field that is none, and when the data ends before it. */
std::optional<S64_t> valueNumber(const Field& field, std::span<const U8_t> data);

/** The entry's text with the values of its fields in their places. */
std::string messageOf(const Entry& entry, std::span<const U8_t> data);

/** Data of fewer bytes than these is text only when all of it is. */
constexpr size_t PLAIN_TEXT_SHORT = 8;
/** Of longer data one byte of so many may be a control character or no UTF-8. */
constexpr size_t PLAIN_TEXT_SHARE = 4;

/** Data that is text, mostly: UTF-8, with line ends and tabulators, and a few other bytes, such as
 * the codes of a terminal or letters of another character set; what cannot be shown escaped, NULs
 * at its end left out. @return nothing when there is none, when a NUL stands within it, and when
 * more of it than a quarter, or in fewer than 8 bytes any, is something else */
std::optional<std::string> plainText(std::span<const U8_t> data);

} // namespace catalog

#endif
