/**
 * @file
 * What operators are told of bug-checks and verdicts: the rows of their page, which the build puts
 * into the program.
 */
#ifndef CATALOG_ADVICE_H
#define CATALOG_ADVICE_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace catalog {

/** The sections "Bug-checks" and "Verdicts" of the page, as they are. */
extern const char* const OPERATIONS_TABLES;

/** A row. Marks of code (`) are left out of the texts. */
struct Advice {
    std::string name;      ///< the bug-check's text, %d for numbers; or the verdict
    std::string functions; ///< that name themselves in its frame; empty for a verdict
    std::string meaning;
    std::string whatToDo;

    bool isVerdict() const { return functions.empty(); }
};

/** All rows, in the order of the page. */
const std::vector<Advice>& allAdvice();

/** The row of a bug-check's message, with its numbers; the message may be cut at its end, the row's
 * text behind the last number must not be shorter. nullptr when there is none. */
const Advice* adviceFor(std::string_view message);

/** A message that was cut, with the end that its row gives; numbers that are cut away are "?". As
 * it was when there is no row. */
std::string wholeMessage(const std::string& message);

/** The rows that a user may mean: the verdict of this name, the bug-check of this message, also
 * within the line that listings print of it, else all that hold the text, whatever its case; a
 * number of its stands for any. */
std::vector<const Advice*> adviceMeantBy(const std::string& text);

/** The name nearest to a mistyped one. */
std::optional<std::string> adviceNearestTo(const std::string& text);

} // namespace catalog

#endif
