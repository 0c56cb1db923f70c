#include "fleet_names.h"

#include "catalog/event_text.h"
#include "common/names.h"
#include "fleet_owner.h"

#include <tuple>

namespace evarchive {
namespace {

constexpr int ANY = -1;
constexpr U32_t LARGEST_SOURCE_NUMBER = 255;

/** Rows, a later one in the place of an earlier one. */
class Names {
  public:
    void add(const std::string& what, int source, U32_t first, U32_t last, int version,
             std::string_view name) {
        for (U32_t number = first; number <= last; ++number) {
            rows_[{what, source, number, version}] = name;
        }
    }

    void add(const std::string& what, int source, const tools::NameTable& table) {
        for (const tools::EnumName& row : table.rows()) {
            add(what, source, row.first, row.last, ANY, row.brief);
        }
    }

    std::string sql() const {
        std::string rows;
        for (const auto& [key, name] : rows_) {
            const auto& [what, source, number, version] = key;
            rows += (rows.empty() ? "" : ", ") + std::string("('") + what + "', " +
                    std::to_string(source) + ", " + std::to_string(number) + ", " +
                    std::to_string(version) + ", " + quoted(name) + ")";
        }
        return "DELETE FROM names; INSERT INTO names VALUES " + rows + "; ";
    }

  private:
    std::map<std::tuple<std::string, int, U32_t, int>, std::string> rows_;
};

} // namespace

std::string sqlOfNames() {
    Names names;
    names.add("source", ANY, tools::endpointNames);
    names.add("type", ANY, tools::eventTypeNames);
    names.add("category", ANY, tools::categoryNames);
    for (U32_t source = 0; source <= LARGEST_SOURCE_NUMBER; ++source) {
        names.add("event", static_cast<int>(source), tools::eventNamesOf(source));
    }
    for (const catalog::Entry* entry : catalog::knownEvents().entries()) {
        names.add("event", static_cast<int>(entry->source), entry->firstId, entry->lastId,
                  entry->version ? static_cast<int>(*entry->version) : ANY, entry->name);
    }
    return names.sql();
}

} // namespace evarchive
