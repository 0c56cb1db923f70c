/**
 * @file
 * An authority of a test's own, and the certificates that it issues.
 */
#ifndef TEST_CERTIFICATES_H
#define TEST_CERTIFICATES_H

#include <string>
#include <vector>

namespace support {

/** What proves who a program is: paths of PEM files. */
struct Identity {
    std::string certificate;
    std::string key;

    /** As options of a gate. */
    std::vector<std::string> options(const std::string& ca) const {
        return {"--certificate", certificate, "--key", key, "--ca", ca};
    }
};

class Authority {
  public:
    /** @param base path of its files without extension */
    explicit Authority(std::string base);

    std::string path() const { return base_ + ".pem"; }

    /**
     * A certificate "CN=<name>" with the alternative name "DNS:<name>.example".
     * @param days that it is valid; negative: it is no longer
     */
    Identity issue(const std::string& name, int days = 2) const;

    /** A certificate "CN=<name>" that is valid from now on for some seconds. */
    Identity issueFor(const std::string& name, int seconds) const;

  private:
    std::string base_;
};

} // namespace support

#endif
