#include "catalog/catalog.h"

#include <cstdlib>
#include <filesystem>

namespace catalog {
namespace {

constexpr char VARIABLE[] = "EVENT_MANAGER_CATALOG";
constexpr char SITE[] = "/etc/event-manager/catalog.d";
constexpr char BELOW_SHARE[] = "share/event-manager/catalog.d";

std::vector<std::string> splitAtColons(const std::string& text) {
    std::vector<std::string> parts;
    for (size_t at = 0; at <= text.size();) {
        size_t colon = std::min(text.find(':', at), text.size());
        if (colon > at) {
            parts.push_back(text.substr(at, colon - at));
        }
        at = colon + 1;
    }
    return parts;
}

/** What the variable says; nothing when it is not set, or empty. */
std::optional<std::string> namedDirectories() {
    const char* directories = getenv(VARIABLE);
    bool isSet = directories != nullptr && *directories != '\0';
    return isSet ? std::optional<std::string>(directories) : std::nullopt;
}

/** Beside the program in a build folder, else where it is installed, which may be in a folder of
 * programs that others start. Where there is none: where a program's share folder is. */
std::string ownDirectory() {
    std::error_code error;
    std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    std::filesystem::path folder = program.parent_path();
    for (const auto& base : {folder, folder.parent_path(), folder.parent_path().parent_path()}) {
        if (std::filesystem::is_directory(base / BELOW_SHARE, error)) {
            return base / BELOW_SHARE;
        }
    }
    return folder.parent_path() / BELOW_SHARE;
}

} // namespace

std::vector<std::string> catalogDirectories() {
    if (std::optional<std::string> named = namedDirectories()) {
        return splitAtColons(*named);
    }
    return {ownDirectory(), SITE};
}

Catalog loadCatalog(std::vector<Problem>* problems) {
    Catalog catalog;
    bool isNamed = namedDirectories().has_value();
    for (const std::string& directory : catalogDirectories()) {
        std::error_code error;
        auto type = std::filesystem::status(directory, error).type();
        // A site need not have any.
        if (isNamed || directory != SITE || type != std::filesystem::file_type::not_found) {
            catalog.addDirectory(directory, problems);
        }
    }
    return catalog;
}

} // namespace catalog
