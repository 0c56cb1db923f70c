#include "certificates.h"

#include "temp_directory.h"

#include <cstdlib>
#include <ctime>
#include <stdexcept>

namespace support {
namespace {

constexpr char NEW_KEY[] = " -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ";

void openssl(const std::string& arguments) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (std::system(("openssl " + arguments + " 2>/dev/null").c_str()) != 0) {
        throw std::runtime_error("failed: openssl " + arguments);
    }
}

} // namespace

Authority::Authority(std::string base) : base_(std::move(base)) {
    openssl("req -x509" + (NEW_KEY + base_) + ".key -out " + path() + " -days 2 -subj /CN=ca");
}

Identity Authority::issue(const std::string& name, int days) const {
    const std::string own = base_ + "-" + name;
    writeFile(own + ".ext",
              "basicConstraints=critical,CA:FALSE\nsubjectAltName=DNS:" + name + ".example\n");
    openssl("req -new" + (NEW_KEY + own) + ".key -out " + own + ".csr -subj /CN=" + name);
    openssl("x509 -req -in " + own + ".csr -CA " + path() + " -CAkey " + base_ + ".key -days " +
            std::to_string(days) + " -extfile " + own + ".ext -out " + own + ".pem");
    return {own + ".pem", own + ".key"};
}

Identity Authority::issueFor(const std::string& name, int seconds) const {
    const std::string own = base_ + "-" + name;
    writeFile(own + ".index", "");
    writeFile(own + ".cnf", "[ca]\ndefault_ca = own\n[own]\ndatabase = " + own +
                                ".index\nrand_serial = yes\ndefault_md = sha256\npolicy = any\n"
                                "new_certs_dir = " +
                                own.substr(0, own.rfind('/')) + "\n[any]\ncommonName = supplied\n");
    openssl("req -new" + (NEW_KEY + own) + ".key -out " + own + ".csr -subj /CN=" + name);
    const time_t end = time(nullptr) + seconds;
    tm parts{};
    char text[16];
    strftime(text, sizeof(text), "%y%m%d%H%M%SZ", gmtime_r(&end, &parts));
    openssl("ca -batch -notext -config " + own + ".cnf -cert " + path() + " -keyfile " + base_ +
            ".key -in " + own + ".csr -out " + own + ".pem -enddate " + text);
    return {own + ".pem", own + ".key"};
}

} // namespace support
