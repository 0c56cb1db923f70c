/**
 * @file
 * Which certificate may speak for which enclosures.
 */
#ifndef EVGATE_CERTIFICATE_MAP_H
#define EVGATE_CERTIFICATE_MAP_H

#include <istream>
#include <map>
#include <string>
#include <vector>

namespace evgate {

/** Enclosures by name; a pattern that ends with '*' means all that begin so. */
using Patterns = std::vector<std::string>;

/** What a certificate allows. */
struct Rights {
    Patterns speaks; ///< enclosures whose blades connect with it
    Patterns asks;   ///< enclosures that it may ask about besides

    bool maySpeakFor(const std::string& enclosure) const;
    bool mayAskAbout(const std::string& enclosure) const;
};

/**
 * The file: a line a name, '#' begins a comment.
 *
 *   DNS:site-a.example  ENC-A "ENC B"  ask:*
 *
 * The name is one of a certificate's, with its kind in front (DNS:, URI: or CN:); behind it stand
 * the enclosures that it may speak for, and with "ask:" those that it may ask about too.
 */
class CertificateMap {
  public:
    /** Throws std::runtime_error, naming the line that is wrong. */
    static CertificateMap read(std::istream& text);

    /** What all these names together allow. */
    Rights rightsOf(const std::vector<std::string>& names) const;

    std::size_t size() const { return entries_.size(); }

  private:
    std::map<std::string, Rights> entries_;
};

} // namespace evgate

#endif
