/**
 * @file
 * Waiting for a state with a deadline, by polling: no test sleeps for a guessed time.
 */
#ifndef TEST_WAIT_H
#define TEST_WAIT_H

#include <chrono>
#include <functional>
#include <string>

namespace support {

/** Generous, because emulated programs on a busy machine are slow; only failing tests wait so long.
 */
constexpr std::chrono::milliseconds DEADLINE{30'000};

/** Polls until @p reached returns true. @return whether it did before the deadline */
bool waitUntil(const std::function<bool()>& reached, std::chrono::milliseconds deadline = DEADLINE);

/** waitUntil() that throws std::runtime_error, saying @p what was waited for, at the deadline. */
void requireSoon(const std::function<bool()>& reached, const std::string& what,
                 std::chrono::milliseconds deadline = DEADLINE);

/** Waits for a file to exist; throws at the deadline. */
void waitForFile(const std::string& path);

/** Waits for a file to be gone; throws at the deadline. */
void waitForNoFile(const std::string& path);

/** Waits for a whole line of a growing file that contains @p text. @return that line; throws at the
 * deadline. */
std::string waitForLine(const std::string& path, const std::string& text);

/** @return the first whole line of @p content that contains @p text, or an empty text */
std::string findLine(const std::string& content, const std::string& text);

} // namespace support

#endif
