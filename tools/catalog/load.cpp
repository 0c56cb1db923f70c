#include "catalog/catalog.h"

#include "common/names.h"
#include "common/text.h"
#include "emp_mesgs.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

namespace catalog {
namespace {

using Json = nlohmann::json;

// No catalogue is as long; whatever is named by mistake does not fill the memory.
constexpr std::uintmax_t FILE_SIZE_MAX = 4U << 20;
// Nor is any nested like this. What was parsed may be walked over by functions that call
// themselves.
constexpr size_t DEPTH_MAX = 16;
static_assert(FIELDS_MAX == EMP_MAX_STRUCT);

/** Reads members of an object, and tells what is wrong with them. */
class Reader {
  public:
    Reader(const Json& json, std::string file, std::string place, std::vector<Problem>* problems)
        : json_(json), file_(std::move(file)), place_(std::move(place)), problems_(problems) {}

    const std::string& place() const { return place_; }
    bool isGood() const { return good_; }
    const Json& json() const { return json_; }

    Reader at(const std::string& member, const Json& value) const {
        return {value, file_, place_ + "/" + member, problems_};
    }

    void say(const std::string& text) { sayOf("", text); }

    void sayOf(const std::string& member, const std::string& text) {
        good_ = false;
        problems_->push_back({file_, member.empty() ? place_ : place_ + "/" + member, text});
    }

    /** Whether it is an object with no members but these. */
    bool isObjectOf(const std::set<std::string>& members) {
        if (!json_.is_object()) {
            say("must be an object");
            return false;
        }
        for (const auto& [name, value] : json_.items()) {
            if (!members.contains(name)) {
                sayOf(name, "unknown member");
            }
        }
        return true;
    }

    std::string text(const std::string& member, bool required = false) {
        auto found = json_.find(member);
        if (found == json_.end()) {
            if (required) {
                sayOf(member, "is missing");
            }
            return "";
        }
        if (!found->is_string() || (required && found->get<std::string>().empty())) {
            sayOf(member, required ? "must be a text, not empty" : "must be a text");
            return "";
        }
        return shown(member, found->get<std::string>());
    }

    std::optional<U32_t> number(const std::string& member, U32_t min, U32_t max, bool required) {
        auto found = json_.find(member);
        if (found == json_.end()) {
            if (required) {
                sayOf(member, "is missing");
            }
            return std::nullopt;
        }
        if (!found->is_number_unsigned() || found->get<U64_t>() < min ||
            found->get<U64_t>() > max) {
            sayOf(member,
                  "must be a number from " + std::to_string(min) + " to " + std::to_string(max));
            return std::nullopt;
        }
        return found->get<U32_t>();
    }

    /** One of some words; the first when it is not there. */
    template <typename Value>
    Value word(const std::string& member, const std::vector<std::pair<std::string, Value>>& words) {
        std::string found = text(member);
        if (found.empty()) {
            return words.front().second;
        }
        std::string known;
        for (const auto& [name, value] : words) {
            if (name == found) {
                return value;
            }
            known += (known.empty() ? "" : ", ") + name;
        }
        sayOf(member, "'" + found + "' is none of " + known);
        return words.front().second;
    }

    /** @return the text: readers show it as it is, in a line, so nothing else may be in it */
    std::string shown(const std::string& member, const std::string& text) {
        if (text.size() > TEXT_SIZE_MAX) {
            sayOf(member, "is longer than " + std::to_string(TEXT_SIZE_MAX) + " bytes");
            return "";
        }
        for (size_t at = 0; at < text.size();) {
            size_t length = tools::utf8CharacterAt(text, at);
            if (length == 0) {
                sayOf(member, "holds a control character");
                return "";
            }
            at += length;
        }
        return text;
    }

  private:
    const Json& json_;
    std::string file_;
    std::string place_;
    std::vector<Problem>* problems_;
    bool good_ = true;
};

const std::vector<std::pair<std::string, Kind>> KINDS = {{"unsigned", Kind::UNSIGNED},
                                                         {"signed", Kind::SIGNED},
                                                         {"text", Kind::TEXT},
                                                         {"hex", Kind::HEX},
                                                         {"ipv4", Kind::IPV4}};
const std::vector<std::pair<std::string, Order>> ORDERS = {
    {"big", Order::BIG}, {"little", Order::LITTLE}, {"either", Order::EITHER}};
const std::vector<std::pair<std::string, std::string>> SEVERITIES = {
    {"", ""}, {"information", "information"}, {"warning", "warning"}, {"error", "error"}};

std::optional<S64_t> integerOf(const std::string& text) {
    S64_t value = 0;
    auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    bool whole = error == std::errc() && stop == text.data() + text.size();
    return whole ? std::optional(value) : std::nullopt;
}

void readNames(Reader& reader, Field& field) {
    auto names = reader.json().find("names");
    if (names == reader.json().end()) {
        return;
    }
    if (!names->is_object()) {
        reader.sayOf("names", "must be an object of numbers and names");
        return;
    }
    for (const auto& [text, name] : names->items()) {
        std::optional<S64_t> value = integerOf(text);
        if (!value || !name.is_string()) {
            reader.sayOf("names/" + text, "must be a number with a name");
        } else {
            field.names[*value] = reader.shown("names/" + text, name.get<std::string>());
        }
    }
}

void checkWidth(Reader& reader, const Field& field) {
    bool isNumber = field.kind == Kind::UNSIGNED || field.kind == Kind::SIGNED;
    if (isNumber && field.width > 8) {
        reader.sayOf("width", "a number has 1 to 8 bytes");
    }
    if (field.kind == Kind::IPV4 && field.width != 4) {
        reader.sayOf("width", "an address has 4 bytes");
    }
    if (field.offset + field.width > EMP_MAX_STRUCT) {
        reader.say("reaches beyond the 3848 bytes that an event may have");
    }
}

Field readField(Reader& reader) {
    Field field;
    if (!reader.isObjectOf({"name", "offset", "width", "type", "order", "unit", "names", "note"})) {
        return field;
    }
    field.name = reader.text("name", true);
    field.offset = reader.number("offset", 0, EMP_MAX_STRUCT - 1, true).value_or(0);
    field.width = reader.number("width", 1, EMP_MAX_STRUCT, true).value_or(1);
    field.kind = reader.word("type", KINDS);
    field.order = reader.word("order", ORDERS);
    field.unit = reader.text("unit");
    readNames(reader, field);
    checkWidth(reader, field);
    return field;
}

void checkTemplate(Reader& reader, const Entry& entry) {
    for (size_t at = 0; (at = entry.text.find('{', at)) != std::string::npos;) {
        size_t end = entry.text.find('}', at);
        std::string name = entry.text.substr(at + 1, end == std::string::npos ? end : end - at - 1);
        if (end == std::string::npos || entry.field(name) == nullptr) {
            reader.sayOf("text", "no field is named '" + name + "'");
        }
        at = end;
    }
}

bool readFields(Reader& reader, Entry& entry) {
    auto fields = reader.json().find("fields");
    if (fields == reader.json().end()) {
        return true;
    }
    if (!fields->is_array()) {
        reader.sayOf("fields", "must be an array");
        return false;
    }
    if (fields->size() > FIELDS_MAX) {
        reader.sayOf("fields", "more than " + std::to_string(FIELDS_MAX));
        return false;
    }
    bool good = true;
    for (size_t index = 0; index < fields->size(); index++) {
        Reader each = reader.at("fields/" + std::to_string(index), (*fields)[index]);
        Field field = readField(each);
        if (!entry.fieldPlaces.emplace(field.name, index).second) {
            each.sayOf("name", "another field bears the same name");
        }
        good = good && each.isGood();
        entry.fields.push_back(std::move(field));
    }
    return good;
}

/** Whether it is written like a number, decimal or hexadecimal. */
bool isNumber(std::string_view text) {
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = text.substr(isHex ? 2 : 0);
    return !digits.empty() &&
           digits.find_first_not_of(isHex ? "0123456789abcdefABCDEF" : "0123456789") ==
               std::string_view::npos;
}

/** @return whether nothing is wrong */
bool readEntry(Reader& reader, Entry& entry) {
    if (!reader.isObjectOf({"id", "lastId", "idVersion", "name", "severity", "text", "advice",
                            "fields", "note"})) {
        return false;
    }
    entry.firstId = reader.number("id", 0, UINT16_MAX, true).value_or(0);
    entry.lastId =
        reader.number("lastId", entry.firstId, UINT16_MAX, false).value_or(entry.firstId);
    entry.version = reader.number("idVersion", 0, UINT8_MAX, false);
    entry.name = reader.text("name");
    if (isNumber(entry.name)) { // what is asked for by it would be the id of that number
        reader.sayOf("name", "must not be a number");
    }
    entry.severity = reader.word("severity", SEVERITIES);
    entry.text = reader.text("text", true);
    entry.advice = reader.text("advice");
    bool goodFields = readFields(reader, entry);
    if (goodFields) {
        checkTemplate(reader, entry);
    }
    return goodFields && reader.isGood();
}

std::optional<U32_t> readSource(Reader& reader) {
    auto found = reader.json().find("source");
    std::string text = found == reader.json().end() ? ""
                       : found->is_string()         ? found->get<std::string>()
                       : found->is_number()         ? found->dump()
                                                    : "";
    std::optional<U32_t> source = tools::endpointNames.valueOrNumber(text, UINT8_MAX);
    if (!source) {
        reader.sayOf("source", "must be an endpoint's name or a number up to 255");
    }
    return source;
}

/** Whether brackets stand in each other as in no catalogue. */
bool isTooDeep(const std::string& json) {
    size_t depth = 0;
    bool inText = false;
    for (size_t at = 0; at < json.size() && depth <= DEPTH_MAX; at++) {
        const char sign = json[at];
        if (inText) {
            at += sign == '\\' ? 1 : 0;
            inText = sign != '"';
        } else if (sign == '[' || sign == '{') {
            depth++;
        } else if (sign == ']' || sign == '}') {
            depth -= std::min<size_t>(depth, 1);
        } else {
            inText = sign == '"';
        }
    }
    return depth > DEPTH_MAX;
}

/** "no JSON at line 3, column 5: what is wrong there, and what is expected". */
std::string notJson(const Json::exception& error) {
    const std::string text = error.what(); // "[KIND] parse error at line 3, column 5: ..."
    const size_t place = text.find(" at line ");
    return place == std::string::npos ? "no JSON: " + text.substr(text.find(' ') + 1)
                                      : "no JSON" + text.substr(place);
}

/** The first of them, in their order, that does not end before @p id. */
template <typename Ids>
auto firstOver(Ids& ids, U32_t id) {
    auto place = ids.upper_bound(id);
    if (place != ids.begin() && std::prev(place)->second.lastId >= id) {
        place--;
    }
    return place;
}

} // namespace

const Field* Entry::field(std::string_view wanted) const {
    auto found = fieldPlaces.find(wanted);
    return found == fieldPlaces.end() ? nullptr : &fields[found->second];
}

std::string problemLine(const Problem& problem) {
    return tools::escapedUtf8(problem.file) + ": " +
           (problem.place.empty() ? "" : tools::escapedUtf8(problem.place) + ": ") +
           tools::escapedUtf8(problem.text);
}

/** An entry replaces those of earlier layers that it covers; of a range, part may be left.
 * @param files those named already: once is enough */
void Catalog::replace(Layers& layers, const Entry& entry, const std::string& place,
                      std::set<std::string>* files) {
    for (auto& [layer, ids] : layers) {
        if (layer >= entry.layer) {
            return;
        }
        for (auto other = firstOver(ids, entry.firstId);
             other != ids.end() && other->first <= entry.lastId;) {
            if (files->insert(other->second.file).second) {
                replaced_.push_back(
                    {entry.file, place, "goes before that of " + other->second.file});
            }
            const bool isCovered =
                other->first >= entry.firstId && other->second.lastId <= entry.lastId;
            other = isCovered ? ids.erase(other) : std::next(other);
        }
    }
}

void Catalog::take(Entry entry, const std::string& place, std::vector<Problem>* problems) {
    Versions& versions = bySource_[entry.source];
    Ids& own = versions[entry.version][entry.layer];
    if (auto other = firstOver(own, entry.firstId);
        other != own.end() && other->first <= entry.lastId) {
        problems->push_back({entry.file, place,
                             "the same event stands in " + other->second.file + ", which counts"});
        return;
    }
    std::set<std::string> files;
    for (auto& [version, layers] : versions) {
        if (!entry.version || entry.version == version) {
            replace(layers, entry, place, &files);
        }
    }
    own.emplace(entry.firstId, std::move(entry));
}

void Catalog::dropFile(const std::string& path, std::vector<Problem>* problems) {
    for (auto& [source, versions] : bySource_) {
        for (auto& [version, layers] : versions) {
            for (auto& [layer, ids] : layers) {
                std::erase_if(ids, [&path](const auto& each) { return each.second.file == path; });
            }
        }
    }
    for (std::vector<Problem>* list : {problems, &replaced_}) {
        std::erase_if(*list, [&path](const Problem& problem) { return problem.file == path; });
    }
}

void Catalog::add(const std::string& json, const std::string& file,
                  std::vector<Problem>* problems) {
    if (isTooDeep(json)) {
        problems->push_back({file, "", "nested more than " + std::to_string(DEPTH_MAX) + " deep"});
        return;
    }
    Json content;
    try {
        content = Json::parse(json);
    } catch (const Json::exception& error) { // also of a number that has no room
        problems->push_back({file, "", notJson(error)});
        return;
    }
    Reader reader(content, file, "", problems);
    if (!reader.isObjectOf({"$schema", "source", "events", "note"})) {
        return;
    }
    std::optional<U32_t> source = readSource(reader);
    auto events = content.find("events");
    if (events == content.end() || !events->is_array()) {
        reader.sayOf("events", "must be an array");
        return;
    }
    for (size_t index = 0; index < events->size(); index++) {
        Reader each = reader.at("events/" + std::to_string(index), (*events)[index]);
        Entry entry;
        entry.file = file;
        entry.layer = layer_;
        entry.source = source.value_or(0);
        if (readEntry(each, entry) && source) {
            take(std::move(entry), each.place(), problems);
        }
    }
}

void Catalog::addFile(const std::string& path, std::vector<Problem>* problems) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        problems->push_back({path, "", error ? error.message() : "no regular file"});
        return;
    }
    if (std::filesystem::file_size(path, error) > FILE_SIZE_MAX) {
        problems->push_back({path, "", "longer than 4 MiB"});
        return;
    }
    std::ifstream input(path, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(input)), {});
    if (!input) {
        problems->push_back({path, "", strerror(errno)});
        return;
    }
    add(content, path, problems);
}

void Catalog::addDirectory(const std::string& path, std::vector<Problem>* problems) {
    std::error_code error;
    std::map<std::string, std::string> files;
    std::filesystem::directory_iterator file(path, error);
    for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
        if (file->path().extension() == ".json") {
            files[file->path().filename()] = file->path();
        }
    }
    if (error) {
        problems->push_back({path, "", error.message()});
    }
    layer_++;
    for (const auto& [name, each] : files) {
        if (auto earlier = files_.find(name); earlier != files_.end()) {
            dropFile(earlier->second, problems);
            replaced_.push_back({each, "", "replaces " + earlier->second});
        }
        files_[name] = each;
        addFile(each, problems);
    }
}

const Entry* Catalog::find(U32_t source, U32_t id, U32_t version) const {
    auto versions = bySource_.find(source);
    if (versions == bySource_.end()) {
        return nullptr;
    }
    const Entry* best = nullptr;
    for (const std::optional<U32_t> wanted : {std::optional<U32_t>(), std::optional(version)}) {
        auto layers = versions->second.find(wanted);
        if (layers == versions->second.end()) {
            continue;
        }
        for (auto layer = layers->second.rbegin(); layer != layers->second.rend(); layer++) {
            auto found = firstOver(layer->second, id);
            if (found != layer->second.end() && found->first <= id) {
                best = best == nullptr || layer->first >= best->layer ? &found->second : best;
                break;
            }
        }
    }
    return best;
}

std::vector<const Entry*> Catalog::entries() const {
    std::vector<const Entry*> all;
    for (const auto& [source, versions] : bySource_) {
        for (const auto& [version, layers] : versions) {
            for (const auto& [layer, ids] : layers) {
                std::ranges::transform(ids, std::back_inserter(all),
                                       [](const auto& each) { return &each.second; });
            }
        }
    }
    std::ranges::sort(all, {}, [](const Entry* entry) {
        return std::tie(entry->source, entry->firstId, entry->version, entry->layer);
    });
    return all;
}

} // namespace catalog
