/**
 * @file
 * A request and its answer, as the pages see them: without sockets, and without a library.
 */
#ifndef EVWEB_HTTP_H
#define EVWEB_HTTP_H

#include "fixed_width.h"

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace evweb {

/** What stands behind the '?', decoded. */
using Parameters = std::multimap<std::string, std::string>;

struct Request {
    std::string method;
    std::string path; ///< decoded
    Parameters parameters{};
    std::map<std::string, std::string> headers{}; ///< names in lower case; the first of each
    bool isLocal = false;                         ///< over a Unix socket, or from this host
};

struct Response {
    int status = 200;
    std::string type = "application/json";
    std::string body{};
    std::vector<std::pair<std::string, std::string>> headers{};

    /** Gives the next piece behind the body, empty at the end. What it throws breaks the connection
     * off, so that nobody takes the answer for whole. Empty: there are none. */
    std::function<std::string()> more{};
};

/** A question that cannot be answered, by the one who asked: a status from 400 on, and why. */
class Refusal : public std::runtime_error {
  public:
    Refusal(int status, const std::string& text) : std::runtime_error(text), status_(status) {}
    int status() const { return status_; }

  private:
    int status_;
};

/** ASCII capitals as small letters. */
std::string lowerCase(std::string text);

} // namespace evweb

#endif
